// A small camera on the bus model: two formats, probe and commit, and a bulk pipe that sends what a test hands it.
#pragma once

#include "host/executive/pnp.h"
#include "host/usb/bus.h"
#include "tests/camera/descriptor_bytes.h"
#include "tests/host/usb/fake_device.h"
#include "tests/usb/stream_parts.h"

#include <map>
#include <optional>

namespace uvc::usb_test {

using host::usb::Setup;
using host::usb::TransferResult;
using host::usb::TransferStatus;
using host::usb::test::Bytes;
using host::usb::test::operator+;

inline constexpr ULONG kInterval = 333333;

// Format 1, "BY8 ": frame 1 of 64 x 64, frame 2 of 128 x 64. One bulk pipe.
inline Bytes ScriptedConfiguration() {
    namespace test = host::usb::test;
    const Bytes formats = camera_test::Format(1, false, "BY8 ", 8) +
                          camera_test::Frame(1, kWidth, kHeight, 2, {kInterval, 2 * kInterval}) +
                          camera_test::Frame(2, 2 * kWidth, kHeight, 1, {kInterval});
    return test::ConfigurationDescriptor(2, test::InterfaceDescriptor(0, 0, 0) + test::InterfaceDescriptor(1, 0, 1) +
                                                formats + test::EndpointDescriptor(0x81, 2, 512, 0));
}

class ScriptedCamera : public host::usb::test::FakeDevice {
  public:
    ScriptedCamera() {
        configuration = ScriptedConfiguration();
        onControl = [this](const Setup &setup, std::span<std::uint8_t> data) { return Answer(setup, data); };
    }

    ProbeCommitBlock probe{.dwMaxPayloadTransferSize = kFrameSize + 2};
    ProbeCommitBlock commit{};
    std::function<void(ProbeCommitBlock &)> onProbe; // may change what the camera agrees to
    std::map<std::string, TransferStatus> failing;   // by the names of the log

    // "get probe", "set commit", ... since the last call, joined by commas.
    std::string TakeRequests() {
        std::string text;
        for (const std::string &name : std::exchange(requests_, {}))
            text += (text.empty() ? "" : ", ") + name;
        return text;
    }

    // One payload with a two-byte header.
    void SendPayload(UCHAR fid, bool end, ULONG length, UCHAR fill) {
        Bytes bytes(length + 2, fill);
        bytes[0] = 2;
        bytes[1] = static_cast<UCHAR>(fid | (end ? 2 : 0));
        Send({.bytes = std::move(bytes)});
    }

    // What it has not sent yet is not sent any more.
    void Forget() {
        Bytes nowhere(8 * kFrameSize);
        while (BulkIn(0x81, nowhere, host::Runtime::Current().Now()).status != TransferStatus::NotYet) {
        }
    }

  private:
    TransferResult Answer(const Setup &setup, std::span<std::uint8_t> data) {
        if (setup.index != 1 || data.size() != sizeof(ProbeCommitBlock))
            return {.status = TransferStatus::Stall};
        const bool set = setup.request == 0x01;
        const bool isCommit = setup.value == 0x0200;
        const std::string name = std::string(set ? "set " : "get ") + (isCommit ? "commit" : "probe");
        requests_.push_back(name);
        if (failing.contains(name))
            return {.status = failing[name]};
        ProbeCommitBlock &block = isCommit ? commit : probe;
        if (!set) {
            std::memcpy(data.data(), &block, sizeof(block));
            return {.length = sizeof(block)};
        }
        const ULONG payload = probe.dwMaxPayloadTransferSize;
        std::memcpy(&block, data.data(), sizeof(block));
        block.dwMaxPayloadTransferSize = payload;
        if (!isCommit && onProbe)
            onProbe(block);
        return {.length = sizeof(block)};
    }

    std::vector<std::string> requests_;
};

// The camera on a bus, without any driver but the one under test.
class ScriptedBus {
  public:
    explicit ScriptedBus(host::usb::PlugOptions options = {}, void (*prepare)(ScriptedCamera &) = nullptr) {
        if (prepare != nullptr)
            prepare(*device);
        pdo = bus_.Plug(device, std::move(options));
        EXPECT_NE(pdo, nullptr);
        device->TakeLog();
    }
    ~ScriptedBus() {
        bus_.Unplug(pdo);
        host::RemoveDeviceStack(pdo, true);
    }
    void Unplug() { bus_.Unplug(pdo); }

    std::shared_ptr<ScriptedCamera> device = std::make_shared<ScriptedCamera>();
    PDEVICE_OBJECT pdo = nullptr;

  private:
    host::usb::Bus bus_;
};

// Runs `attempt` with the first, second, ... resource or transfer of a kind failing, until there is none left to fail.
// The attempt ends with the faults disarmed and says whether one was dealt.
template <class Fault, class Attempt> void SweepFaults(Fault fault, Attempt attempt) {
    for (std::uint64_t nth = 1;; ++nth) {
        SCOPED_TRACE("fault " + std::to_string(static_cast<int>(fault)) + ", number " + std::to_string(nth));
        host::FaultPlan plan;
        if constexpr (std::is_same_v<Fault, host::FaultSite>)
            plan.FailNth(fault, nth);
        else
            plan.FailTransfer(nth, fault);
        host::Runtime::Current().Arm(plan);
        if (!attempt())
            return;
    }
}
inline bool DisarmFaults() {
    host::Runtime &runtime = host::Runtime::Current();
    const bool dealt = runtime.Faults().FaultsDealt() != 0;
    runtime.Arm({});
    return dealt;
}

} // namespace uvc::usb_test
