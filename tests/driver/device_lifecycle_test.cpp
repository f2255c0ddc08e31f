// Start, restart and removal of the device, and what it finds and leaves in the registry.
#include "camera/uvc_camera.h"
#include "driver/allocation_list.h"
#include "driver/uvc_device.h"
#include "host/executive/pnp.h"
#include "tests/driver/capture_rig.h"

#include <cstring>

namespace uvc::driver_test {

namespace {

// A REG_SZ value of the device's hardware key; "(none)" when it is not there.
std::string HardwareText(PDEVICE_OBJECT pdo, const WCHAR *name) {
    HANDLE key = nullptr;
    if (!NT_SUCCESS(IoOpenDeviceRegistryKey(pdo, PLUGPLAY_REGKEY_DEVICE, KEY_READ, &key)))
        return "(no key)";
    UNICODE_STRING valueName;
    RtlInitUnicodeString(&valueName, name);
    alignas(8) UCHAR block[512];
    ULONG length = 0;
    NTSTATUS status = ZwQueryValueKey(key, &valueName, KeyValuePartialInformation, block, sizeof(block), &length);
    ZwClose(key);
    if (!NT_SUCCESS(status))
        return "(none)";
    const auto &value = *reinterpret_cast<KEY_VALUE_PARTIAL_INFORMATION *>(block);
    EXPECT_EQ(value.Type, static_cast<ULONG>(REG_SZ));
    std::string text;
    for (ULONG i = 0; i + sizeof(WCHAR) <= value.DataLength; i += sizeof(WCHAR)) {
        WCHAR character = 0;
        std::memcpy(&character, value.Data + i, sizeof(character));
        text += static_cast<char>(character);
    }
    EXPECT_EQ(text.back(), '\0') << "not terminated";
    text.pop_back();
    return text;
}

TEST(DeviceLifecycle, NamesStandInTheHardwareKey) {
    Rig rig("sim:8201");
    ASSERT_EQ(rig.started, STATUS_SUCCESS);
    EXPECT_EQ(HardwareText(rig.computer.Pdo(), L"ModelName"), rig.camera->model().product);
    EXPECT_EQ(HardwareText(rig.computer.Pdo(), L"VendorName"), rig.camera->model().manufacturer);
}

TEST(DeviceLifecycle, AFullSpeedDeviceIsRefusedBeforeItIsConfigured) {
    Rig rig("sim:generic,speed=full");
    EXPECT_EQ(rig.started, STATUS_DEVICE_CONFIGURATION_ERROR);
    EXPECT_NE(rig.computer.Machine().DebugLog().find("this is not a high speed device, so just quitting.\n"),
              std::string::npos);
    for (const auto &record : rig.camera->ControlLog())
        EXPECT_NE(record.setup.request, 9) << "SET_CONFIGURATION was sent";
}

TEST(DeviceLifecycle, ADeviceThatDoesNotAnswerAtFirstIsOutOfResources) {
    host::client::ComputerOptions options;
    Rig rig("sim:generic,speed=full", options); // loads the driver; the camera itself does not matter
    host::FaultPlan plan;
    plan.FailTransfer(1, host::TransferFault::Stall);
    rig.computer.Machine().Arm(plan);
    EXPECT_EQ(rig.computer.PlugIn(Camera("sim:generic")), STATUS_INSUFFICIENT_RESOURCES);
}

// A start after a stop builds a further camera; the application of the first round keeps nothing.
TEST(DeviceLifecycle, RestartsAndStreamsAgain) {
    Rig rig("sim:8202");
    ASSERT_EQ(rig.started, STATUS_SUCCESS);
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(rig.app.OpenPin(rig.app.Ranges().front()), STATUS_SUCCESS);
        ASSERT_EQ(rig.app.Run(), STATUS_SUCCESS);
        host::client::Frame *frame = rig.app.Next();
        ASSERT_TRUE(frame);
        EXPECT_EQ(frame->Status(), STATUS_SUCCESS);
        rig.app.pin.Close();
        rig.app.frames.clear();
        rig.app.filter.Close();
        ASSERT_EQ(rig.computer.Restart(), STATUS_SUCCESS);
        ASSERT_EQ(rig.app.OpenFilter(), STATUS_SUCCESS);
    }
}

// When the device does not say who it is at a later start, the camera of the first start serves on.
// The stream that the pin has paused went with the camera of before: the next run starts one.
TEST(DeviceLifecycle, ARunAfterARestartInPauseStartsTheStream) {
    Rig rig("sim:generic");
    ASSERT_EQ(rig.started, STATUS_SUCCESS);
    ASSERT_EQ(rig.app.OpenPin(rig.app.Ranges().front()), STATUS_SUCCESS);
    ASSERT_EQ(rig.app.Run(), STATUS_SUCCESS);
    ASSERT_EQ(rig.app.pin.SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    ASSERT_EQ(rig.computer.Restart(), STATUS_SUCCESS);
    const auto before = rig.camera->Counters().framesStarted;
    ASSERT_EQ(rig.app.pin.SetState(KSSTATE_RUN), STATUS_SUCCESS);
    LARGE_INTEGER second{.QuadPart = -10'000'000};
    KeDelayExecutionThread(KernelMode, FALSE, &second);
    EXPECT_GT(rig.camera->Counters().framesStarted, before);
}

TEST(DeviceLifecycle, ARestartWithoutADescriptorKeepsTheCamera) {
    Rig rig("sim:8201");
    ASSERT_EQ(rig.started, STATUS_SUCCESS);
    rig.app.filter.Close();
    host::FaultPlan plan;
    plan.FailTransfer(1, host::TransferFault::Stall);
    rig.computer.Machine().Arm(plan);
    EXPECT_EQ(rig.computer.Restart(), STATUS_SUCCESS);
    EXPECT_EQ(rig.computer.Machine().Faults().FaultsDealt(), 1u);
    ASSERT_EQ(rig.app.OpenFilter(), STATUS_SUCCESS);
    EXPECT_TRUE(FindRange(rig.app.Ranges(), FourCc("BY8 "), 640));
}

// A pin that stays open over a restart which fails finds no camera, and says so.
TEST(DeviceLifecycle, AFailedRestartLeavesAnOpenPinWithoutCamera) {
    Rig rig("sim:8201");
    ASSERT_EQ(rig.started, STATUS_SUCCESS);
    ASSERT_EQ(rig.app.OpenPin(rig.app.Ranges().front()), STATUS_SUCCESS);
    host::FaultPlan plan;
    plan.FailTransfer(5, host::TransferFault::Stall); // the camera says who it is, but not how it is configured
    rig.computer.Machine().Arm(plan);
    EXPECT_FALSE(NT_SUCCESS(rig.computer.Restart()));
    EXPECT_EQ(rig.computer.Machine().Faults().FaultsDealt(), 1u);
    rig.computer.Machine().Arm({});
    EXPECT_FALSE(NT_SUCCESS(rig.app.pin.SetState(KSSTATE_RUN)));
    static_cast<void>(rig.app.pin.SetFormat(rig.app.format));
    rig.app.pin.Close();
    rig.app.filter.Close();
}

// Unplugged with everything open and running: the application's frames come back, its calls fail, and closing works.
TEST(DeviceLifecycle, SurvivesThePulledCable) {
    Rig rig("sim:8201");
    ASSERT_EQ(rig.started, STATUS_SUCCESS);
    ASSERT_EQ(rig.app.OpenPin(rig.app.Ranges().front()), STATUS_SUCCESS);
    ASSERT_EQ(rig.app.Run(), STATUS_SUCCESS);
    ASSERT_TRUE(rig.app.Next());
    rig.computer.Unplug();
    Application late;
    EXPECT_FALSE(NT_SUCCESS(late.OpenFilter()));
    rig.app.pin.Close();
    rig.app.frames.clear();
    rig.app.filter.Close();

    auto again = Camera("sim:8101");
    ASSERT_EQ(rig.computer.PlugIn(again), STATUS_SUCCESS);
    ASSERT_EQ(rig.app.OpenFilter(), STATUS_SUCCESS);
    EXPECT_FALSE(rig.app.Ranges().empty());
}

TEST(AllocationList, FreesTheBlockThatItCannotRecord) {
    host::Runtime runtime;
    AllocationList list;
    list.Initialise();
    auto block = [] { return ExAllocatePoolWithTag(PagedPool, 16, 'tseT'); };
    void *first = block();
    ASSERT_EQ(list.Track(first), STATUS_SUCCESS);
    void *second = block();
    host::FaultPlan plan;
    plan.FailNth(host::FaultSite::PoolAllocation, 1);
    runtime.Arm(plan);
    EXPECT_EQ(list.Track(second), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(list.UntrackOne(), first);
    EXPECT_EQ(list.UntrackOne(), nullptr);
    ExFreePool(first);
    list.Delete(); // the runtime's leak check proves that the second block is gone
}

} // namespace

} // namespace uvc::driver_test
