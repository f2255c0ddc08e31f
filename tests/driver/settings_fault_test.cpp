// Faults while a camera starts with saved settings and while a client gets and sets controls. Whatever fails, the
// request says so, nothing is left behind, the saved settings stay, and the next start has them again.
#include "host/client/control.h"
#include "tests/driver/capture_rig.h"

#include <algorithm>

namespace uvc::driver_test {

namespace {

struct Setting {
    const char *name;
    host::client::ControlId control;
    LONG value; // neither the camera's default nor its limit
    ULONG flags;
};

const Setting kSettings[] = {
    {"brightness", {PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_BRIGHTNESS}, 17, UVC_CONTROL_MANUAL},
    {"gain", {PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_GAIN}, 99, UVC_CONTROL_MANUAL},
    {"hue", {PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_HUE}, -250, UVC_CONTROL_AUTOMATIC},
    {"red", {PROPSETID_PRIVATE_IMAGE, UVC_IMAGE_WHITE_BALANCE_RED}, 400, UVC_CONTROL_MANUAL},
    {"exposure", {PROPSETID_PRIVATE_IMAGE, UVC_IMAGE_EXPOSURE}, 1234, UVC_CONTROL_MANUAL},
};

NTSTATUS Set(host::client::Filter &filter, const Setting &setting) {
    return host::client::SetControl(filter, setting.control, {.value = setting.value, .flags = setting.flags});
}

struct Fault {
    const char *name;
    host::FaultSite site;
    host::TransferFault transfer = host::TransferFault::Stall;
    bool andAllLater = false;
    NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES; // that a get or set may end with
};
void PrintTo(const Fault &fault, std::ostream *out) {
    *out << fault.name;
}

class SettingsFaults : public testing::TestWithParam<Fault> {
  protected:
    // Plug in, get and set every control, pull the cable. Without `exact` whatever fails may fail as the fault says.
    // The controls are set to what is saved already: so the settings stay, whether a set succeeds or not.
    void Run(bool exact) {
        auto camera = Camera("sim:generic");
        const NTSTATUS started = computer_.PlugIn(camera);
        if (exact)
            ASSERT_EQ(started, STATUS_SUCCESS);
        EXPECT_TRUE(started == STATUS_SUCCESS || NT_ERROR(started)) << std::hex << started;
        failures_ += !NT_SUCCESS(started);
        Application app;
        const NTSTATUS opened = NT_SUCCESS(started) ? app.OpenFilter() : started;
        if (exact)
            ASSERT_EQ(opened, STATUS_SUCCESS);
        for (const Setting &setting : kSettings)
            if (NT_SUCCESS(opened))
                Use(app.filter, setting, exact);
        app.filter.Close();
        computer_.Unplug();
    }

    void Use(host::client::Filter &filter, const Setting &setting, bool exact) {
        SCOPED_TRACE(setting.name);
        host::client::ControlSetting found;
        Expect(host::client::GetControl(filter, setting.control, found), exact);
        if (exact) {
            EXPECT_EQ(found.value, setting.value) << "lost";
            EXPECT_EQ(found.flags, setting.flags);
        }
        const NTSTATUS set = Set(filter, setting);
        Expect(set, exact);
        const NTSTATUS after = host::client::GetControl(filter, setting.control, found);
        Expect(after, exact);
        // Where value and automatic mode take a request each, the status is that of the second.
        if (setting.flags != UVC_CONTROL_AUTOMATIC && NT_SUCCESS(set) && NT_SUCCESS(after))
            EXPECT_EQ(found.value, setting.value);
    }

    void Expect(NTSTATUS status, bool exact) {
        if (status == STATUS_SUCCESS)
            return;
        ++failures_;
        // A control that could not be read at the start is none for this time; so are all without a table to list them.
        const NTSTATUS named[] = {GetParam().status, STATUS_NOT_FOUND, STATUS_NOT_IMPLEMENTED,
                                  STATUS_PROPSET_NOT_FOUND};
        EXPECT_TRUE(!exact && std::find(std::begin(named), std::end(named), status) != std::end(named))
            << std::hex << status;
    }

    host::client::Computer computer_{DriverEntry};
    unsigned failures_ = 0;
};

TEST_P(SettingsFaults, LoseNothing) {
    {
        ASSERT_EQ(computer_.PlugIn(Camera("sim:generic")), STATUS_SUCCESS);
        Application app;
        ASSERT_EQ(app.OpenFilter(), STATUS_SUCCESS);
        for (const Setting &setting : kSettings)
            ASSERT_EQ(Set(app.filter, setting), STATUS_SUCCESS) << setting.name;
        app.filter.Close();
        computer_.Unplug();
    }
    ASSERT_NO_FATAL_FAILURE(Run(true));
    host::Runtime &machine = computer_.Machine();
    const host::Runtime::PoolUse before = machine.OutstandingPool();

    const Fault &fault = GetParam();
    std::uint64_t nth = 1;
    for (;; ++nth) {
        SCOPED_TRACE(testing::Message() << "fault " << nth);
        host::FaultPlan plan;
        if (fault.site == host::FaultSite::UsbTransfer)
            plan.FailTransfer(nth, fault.transfer, fault.andAllLater);
        else
            plan.FailNth(fault.site, nth, fault.andAllLater);
        machine.Arm(plan);
        Run(false);
        const bool dealt = machine.Faults().FaultsDealt() != 0;
        machine.Arm({});
        ASSERT_EQ(machine.OutstandingPool().blocks, before.blocks);
        const unsigned failures = failures_;
        ASSERT_NO_FATAL_FAILURE(Run(true));
        ASSERT_EQ(failures_, failures) << "the next start";
        if (!dealt)
            break;
        if (HasFailure())
            return;
    }
    // A sweep in which nothing ever failed would prove nothing.
    EXPECT_GT(nth, 1u);
    EXPECT_GT(failures_, 0u);
    RecordProperty("faults", static_cast<int>(nth - 1));
}

INSTANTIATE_TEST_SUITE_P(
    Controls, SettingsFaults,
    testing::Values(
        Fault{"Pool", host::FaultSite::PoolAllocation},
        Fault{"PoolFromNthOn", host::FaultSite::PoolAllocation, {}, true}, Fault{"Requests", host::FaultSite::Irp},
        Fault{"Stall", host::FaultSite::UsbTransfer, host::TransferFault::Stall, false, STATUS_UNSUCCESSFUL},
        Fault{"Hang", host::FaultSite::UsbTransfer, host::TransferFault::Hang, false, STATUS_IO_TIMEOUT},
        Fault{"Unplug", host::FaultSite::UsbTransfer, host::TransferFault::Gone, false, STATUS_DEVICE_NOT_CONNECTED}),
    [](const auto &info) { return std::string(info.param.name); });

} // namespace

} // namespace uvc::driver_test
