// Every allocation, request, thread and transfer fails once, in every step from plug-in to stop. The step that meets
// the fault ends with a clean status, nothing is left behind, and the next try works.
#include "tests/driver/capture_rig.h"

#include <algorithm>
#include <string_view>

namespace uvc::driver_test {

namespace {

struct Outcome {
    const char *step = "all";
    NTSTATUS status = STATUS_SUCCESS;
    bool Ok() const { return NT_SUCCESS(status); }
};

// Plug in, open, stream three frames, stop, pull the cable. Ends at the first failing step.
Outcome Capture(host::client::Computer &computer, const std::string &text, LONG width) {
    auto camera = Camera(text);
    Outcome outcome{"plug in", computer.PlugIn(camera)};
    if (outcome.Ok()) {
        Application app;
        auto step = [&](const char *name, auto &&action) {
            if (outcome.Ok())
                outcome = {name, action()};
        };
        std::vector<KS_DATARANGE_VIDEO> ranges;
        step("open filter", [&] { return app.OpenFilter(); });
        step("ask for ranges", [&] { return app.filter.DataRanges(kPinId, ranges); });
        step("open pin", [&] {
            auto range = std::find_if(ranges.begin(), ranges.end(), [&](const auto &r) {
                return r.VideoInfoHeader.bmiHeader.biWidth == width && r.VideoInfoHeader.bmiHeader.biCompression != 0;
            });
            return range != ranges.end() ? app.OpenPin(*range) : STATUS_NO_MATCH;
        });
        step("run", [&] { return app.Run(); });
        for (int i = 0; i < 3; ++i) {
            step("frame", [&] {
                host::client::Frame *frame = app.Next();
                if (frame == nullptr)
                    return STATUS_IO_TIMEOUT;
                NTSTATUS status = frame->Status();
                if (NT_SUCCESS(status)) {
                    camera->GrantFrame();
                    status = app.pin.Queue(*frame);
                }
                return status;
            });
        }
        step("stop", [&] { return app.pin.SetState(KSSTATE_STOP); });
        app.pin.Close();
        app.filter.Close();
    }
    computer.Unplug();
    return outcome;
}

// How a run without memory may end.
bool IsNamedStatus(const Outcome &outcome, bool forGood) {
    switch (outcome.status) {
    case STATUS_SUCCESS:
    case STATUS_INSUFFICIENT_RESOURCES:
    case STATUS_NO_MEMORY:
        return true;
    case STATUS_INVALID_PARAMETER: // what a probe request that cannot be sent ends with
        return std::string_view(outcome.step) == "run";
    case STATUS_IO_TIMEOUT: // frames that cannot be cloned are not filled
        return std::string_view(outcome.step) == "frame" && forGood;
    default:
        return false;
    }
}

struct Sweep {
    const char *name;
    const char *camera;
    LONG width;
    host::FaultSite site;
    host::TransferFault fault = host::TransferFault::Stall;
    bool andAllLater = false;
};
void PrintTo(const Sweep &sweep, std::ostream *out) {
    *out << sweep.name;
}

class FaultSweep : public testing::TestWithParam<Sweep> {};

TEST_P(FaultSweep, FailsCleanlyAndWorksAgain) {
    const Sweep &sweep = GetParam();
    host::client::Computer computer(DriverEntry);
    host::Runtime &machine = computer.Machine();
    ASSERT_TRUE(Capture(computer, sweep.camera, sweep.width).Ok());
    const host::Runtime::PoolUse before = machine.OutstandingPool();

    std::uint64_t nth = 1;
    unsigned failures = 0;
    for (;; ++nth) {
        SCOPED_TRACE(testing::Message() << "fault " << nth);
        host::FaultPlan plan;
        if (sweep.site == host::FaultSite::UsbTransfer)
            plan.FailTransfer(nth, sweep.fault, sweep.andAllLater);
        else
            plan.FailNth(sweep.site, nth, sweep.andAllLater);
        machine.Arm(plan);
        const Outcome outcome = Capture(computer, sweep.camera, sweep.width);
        const bool dealt = machine.Faults().FaultsDealt() != 0;
        machine.Arm({});
        if (!dealt) {
            EXPECT_TRUE(outcome.Ok()) << outcome.step;
            break;
        }
        failures += !outcome.Ok();
        const host::Runtime::PoolUse after = machine.OutstandingPool();
        ASSERT_EQ(after.blocks, before.blocks) << outcome.step;
        if (sweep.site == host::FaultSite::PoolAllocation)
            EXPECT_TRUE(IsNamedStatus(outcome, sweep.andAllLater)) << outcome.step << " " << std::hex << outcome.status;
        const Outcome retry = Capture(computer, sweep.camera, sweep.width);
        ASSERT_TRUE(retry.Ok()) << "the retry fails: " << retry.step << " " << std::hex << retry.status;
    }
    // A sweep in which nothing ever failed would prove nothing.
    EXPECT_GT(nth, 1u);
    EXPECT_GT(failures, 0u);
    RecordProperty("faults", static_cast<int>(nth - 1));
}

constexpr char kDirect[] = "sim:generic,payload=32768";
constexpr char kCollecting[] = "sim:8201,payload=32768";
constexpr char kWhole[] = "sim:8201,payload=frame";

INSTANTIATE_TEST_SUITE_P(
    Capture, FaultSweep,
    testing::Values(
        Sweep{"PoolDirect", kDirect, 320, host::FaultSite::PoolAllocation},
        Sweep{"PoolCollecting", kCollecting, 320, host::FaultSite::PoolAllocation},
        Sweep{"PoolWhole", kWhole, 320, host::FaultSite::PoolAllocation},
        Sweep{"PoolFromNthOn", kCollecting, 320, host::FaultSite::PoolAllocation, {}, true},
        Sweep{"Requests", kCollecting, 320, host::FaultSite::Irp},
        Sweep{"RequestsFromNthOn", kDirect, 320, host::FaultSite::Irp, {}, true},
        Sweep{"MemoryDescriptors", kWhole, 320, host::FaultSite::Mdl, {}, true},
        Sweep{"Threads", kCollecting, 320, host::FaultSite::Thread},
        Sweep{"StallDirect", kDirect, 320, host::FaultSite::UsbTransfer, host::TransferFault::Stall},
        Sweep{"StallFromNthOn", kCollecting, 320, host::FaultSite::UsbTransfer, host::TransferFault::Stall, true},
        Sweep{"HangFromNthOn", kDirect, 320, host::FaultSite::UsbTransfer, host::TransferFault::Hang, true},
        Sweep{"HangCollecting", kCollecting, 320, host::FaultSite::UsbTransfer, host::TransferFault::Hang},
        Sweep{"ShortWhole", kWhole, 320, host::FaultSite::UsbTransfer, host::TransferFault::Short},
        Sweep{"ShortFromNthOn", kDirect, 320, host::FaultSite::UsbTransfer, host::TransferFault::Short, true},
        Sweep{"Babble", kDirect, 320, host::FaultSite::UsbTransfer, host::TransferFault::Babble},
        Sweep{"BabbleCollecting", kCollecting, 320, host::FaultSite::UsbTransfer, host::TransferFault::Babble, true},
        Sweep{"UnplugDirect", kDirect, 320, host::FaultSite::UsbTransfer, host::TransferFault::Gone},
        Sweep{"UnplugCollecting", kCollecting, 320, host::FaultSite::UsbTransfer, host::TransferFault::Gone},
        Sweep{"UnplugWhole", kWhole, 320, host::FaultSite::UsbTransfer, host::TransferFault::Gone}),
    [](const auto &info) { return std::string(info.param.name); });

} // namespace

} // namespace uvc::driver_test
