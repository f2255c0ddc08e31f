// Device stacks, interfaces and files, as a client and a bus driver see them.
#include "tests/host/executive/test_driver.h"

#include <cstring>
#include <string>
#include <vector>

namespace host::tests {
namespace {

constexpr GUID kClass = {0x65E8773D, 0x8F56, 0x11D0, {0xA3, 0xB9, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
constexpr ULONG kNeither = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x801, METHOD_NEITHER, FILE_ANY_ACCESS);
constexpr ULONG kOutDirect = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x802, METHOD_OUT_DIRECT, FILE_ANY_ACCESS);
constexpr ULONG kBuffered = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x803, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr ULONG kHold = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x804, METHOD_BUFFERED, FILE_ANY_ACCESS);

// What the function driver saw, in order; and what it is to answer.
std::vector<std::string> trace;
NTSTATUS startStatus;
KPROCESSOR_MODE lastMode;
PDEVICE_OBJECT functionDevice, physicalDevice;
UNICODE_STRING linkName;

std::string Narrow(const UNICODE_STRING &text) {
    return {text.Buffer, text.Buffer + text.Length / sizeof(WCHAR)};
}

void NTAPI CancelHeld(PDEVICE_OBJECT, PIRP irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    Complete(irp, STATUS_CANCELLED);
}

NTSTATUS Control(PIRP irp, const IO_STACK_LOCATION &location) {
    const auto &parameters = location.Parameters.DeviceIoControl;
    lastMode = irp->RequestorMode;
    switch (parameters.IoControlCode) {
    case kNeither:
        *static_cast<int *>(irp->UserBuffer) = *static_cast<int *>(parameters.Type3InputBuffer) + 1;
        return Complete(irp, STATUS_SUCCESS, sizeof(int));
    case kBuffered:
        *static_cast<int *>(irp->AssociatedIrp.SystemBuffer) += 2;
        return Complete(irp, STATUS_SUCCESS, sizeof(int));
    case kOutDirect:
        EXPECT_EQ(MmGetMdlByteCount(irp->MdlAddress), sizeof(int));
        *static_cast<int *>(MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority)) =
            *static_cast<int *>(irp->AssociatedIrp.SystemBuffer) + 3;
        return Complete(irp, STATUS_SUCCESS, sizeof(int));
    default:
        IoMarkIrpPending(irp);
        static_cast<void>(IoSetCancelRoutine(irp, CancelHeld));
        return STATUS_PENDING;
    }
}

NTSTATUS Pnp(PIRP irp, UCHAR minor) {
    const char *names[] = {"start", "query-remove", "remove", "cancel-remove", "stop", "query-stop"};
    trace.push_back(minor < std::size(names)           ? names[minor]
                    : minor == IRP_MN_SURPRISE_REMOVAL ? "surprise"
                                                       : "capabilities");
    if (minor == IRP_MN_START_DEVICE && NT_SUCCESS(startStatus) && linkName.Buffer != nullptr)
        IoSetDeviceInterfaceState(&linkName, TRUE);
    if (minor == IRP_MN_START_DEVICE)
        return Complete(irp, startStatus);
    if (minor != IRP_MN_REMOVE_DEVICE)
        return Complete(irp, STATUS_SUCCESS);
    Complete(irp, STATUS_SUCCESS);
    IoDetachDevice(physicalDevice);
    IoDeleteDevice(functionDevice);
    RtlFreeUnicodeString(&linkName);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI Dispatch(PDEVICE_OBJECT, PIRP irp) {
    const IO_STACK_LOCATION location = *IoGetCurrentIrpStackLocation(irp);
    switch (location.MajorFunction) {
    case IRP_MJ_CREATE: {
        const PFILE_OBJECT related = location.FileObject->RelatedFileObject;
        const std::string name = Narrow(location.FileObject->FileName);
        trace.push_back("create " + (related != nullptr ? Narrow(related->FileName) + " + " : "") + name);
        return Complete(irp, name == "\\none" ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_SUCCESS);
    }
    case IRP_MJ_CLEANUP:
    case IRP_MJ_CLOSE:
        trace.push_back((location.MajorFunction == IRP_MJ_CLOSE ? "close " : "cleanup ") +
                        Narrow(location.FileObject->FileName));
        return Complete(irp, STATUS_SUCCESS);
    case IRP_MJ_DEVICE_CONTROL:
        return Control(irp, location);
    case IRP_MJ_PNP:
        return Pnp(irp, location.MinorFunction);
    default:
        return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
}

NTSTATUS NTAPI AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
    const NTSTATUS status = IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_KS, 0, FALSE, &functionDevice);
    if (!NT_SUCCESS(status))
        return status;
    IoAttachDeviceToDeviceStack(functionDevice, pdo);
    functionDevice->Flags &= ~DO_DEVICE_INITIALIZING;
    UNICODE_STRING reference;
    RtlInitUnicodeString(&reference, L"GLOBAL");
    return IoRegisterDeviceInterface(pdo, &kClass, &reference, &linkName);
}

// A physical device and a driver for it.
class Devices : public ExecutiveTest {
  protected:
    void SetUp() override {
        trace.clear();
        startStatus = STATUS_SUCCESS;
        bus_.emplace(Succeed);
        physicalDevice = bus_->Device();
        RegisterPdo(physicalDevice, L"USB\\VID_199E&PID_8101\\7");
        ASSERT_EQ(LoadDriver(
                      L"Function",
                      [](PDRIVER_OBJECT driver, PUNICODE_STRING path) -> NTSTATUS {
                          EXPECT_EQ(Narrow(*path),
                                    "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\Function");
                          for (PDRIVER_DISPATCH &dispatch : driver->MajorFunction)
                              dispatch = Dispatch;
                          driver->DriverExtension->AddDevice = AddDevice;
                          return STATUS_SUCCESS;
                      },
                      &function_),
                  STATUS_SUCCESS);
    }
    void TearDown() override {
        UnloadDriver(function_);
        bus_.reset();
    }

    NTSTATUS Open(const WCHAR *name, HANDLE *handle, HANDLE root = nullptr, ULONG options = 0) {
        UNICODE_STRING text;
        RtlInitUnicodeString(&text, name);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &text, OBJ_CASE_INSENSITIVE, root, nullptr);
        IO_STATUS_BLOCK ioStatus;
        return ZwCreateFile(handle, GENERIC_READ | GENERIC_WRITE, &attributes, &ioStatus, nullptr, 0, 0, FILE_OPEN,
                            options, nullptr, 0);
    }

    static constexpr const WCHAR *kName =
        L"\\??\\usb#vid_199e&pid_8101#7#{65e8773d-8f56-11d0-a3b9-00a0c9223196}\\GLOBAL";

    std::optional<TestDriver> bus_;
    PDRIVER_OBJECT function_ = nullptr;
};

TEST_F(Devices, OpenNeedsAStartedDeviceAndCarriesTheRestOfTheName) {
    HANDLE filter, pin;
    ASSERT_EQ(StartDeviceStack(physicalDevice, function_), STATUS_SUCCESS);
    PWSTR list = nullptr;
    ASSERT_EQ(IoGetDeviceInterfaces(&kClass, nullptr, 0, &list), STATUS_SUCCESS);
    UNICODE_STRING first;
    RtlInitUnicodeString(&first, list);
    EXPECT_TRUE(RtlEqualUnicodeString(&first, &linkName, FALSE));
    EXPECT_EQ(list[first.Length / sizeof(WCHAR) + 1], 0);
    ExFreePool(list);

    ASSERT_EQ(Open(kName, &filter), STATUS_SUCCESS);
    EXPECT_EQ(Open(L"\\none", &pin, filter), STATUS_OBJECT_NAME_NOT_FOUND);
    ASSERT_EQ(Open(L"{pin}\\format", &pin, filter), STATUS_SUCCESS);
    ZwClose(filter); // the pin still refers to it
    ZwClose(pin);
    RemoveDeviceStack(physicalDevice, false);
    EXPECT_EQ(Open(kName, &filter), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(trace,
              (std::vector<std::string>{"capabilities", "start", "create \\GLOBAL", "create \\GLOBAL + \\none",
                                        "create \\GLOBAL + {pin}\\format", "cleanup \\GLOBAL", "cleanup {pin}\\format",
                                        "close {pin}\\format", "close \\GLOBAL", "remove"}));
}

TEST_F(Devices, EachMethodPassesItsBuffers) {
    ASSERT_EQ(StartDeviceStack(physicalDevice, function_), STATUS_SUCCESS);
    HANDLE file;
    ASSERT_EQ(Open(kName, &file), STATUS_SUCCESS);
    for (const auto &[code, expected] : {std::pair{kNeither, 41}, {kBuffered, 42}, {kOutDirect, 43}}) {
        for (bool user : {false, true}) {
            int in = 40, out = 0;
            IO_STATUS_BLOCK ioStatus{};
            std::optional<UserMode> mode;
            if (user)
                mode.emplace();
            EXPECT_EQ(ZwDeviceIoControlFile(file, nullptr, nullptr, nullptr, &ioStatus, code, &in, sizeof in, &out,
                                            sizeof out),
                      STATUS_SUCCESS);
            EXPECT_EQ(out, expected);
            EXPECT_EQ(ioStatus.Information, sizeof out);
            EXPECT_EQ(lastMode, user ? ::UserMode : KernelMode);
        }
    }
    host::UserMode user;
    IO_STATUS_BLOCK ioStatus{};
    EXPECT_EQ(ZwDeviceIoControlFile(file, nullptr, nullptr, nullptr, &ioStatus, kBuffered, reinterpret_cast<PVOID>(16),
                                    4, nullptr, 0),
              STATUS_ACCESS_VIOLATION);
    ZwClose(file);
    RemoveDeviceStack(physicalDevice, false);
}

TEST_F(Devices, OutstandingRequestIsCancelledAndItsFileClosesAfterwards) {
    ASSERT_EQ(StartDeviceStack(physicalDevice, function_), STATUS_SUCCESS);
    HANDLE file, eventHandle;
    ASSERT_EQ(Open(kName, &file), STATUS_SUCCESS);
    CreateEventHandle(&eventHandle, NotificationEvent, true);
    IO_STATUS_BLOCK ioStatus{};
    EXPECT_EQ(ZwDeviceIoControlFile(file, eventHandle, nullptr, nullptr, &ioStatus, kHold, nullptr, 0, nullptr, 0),
              STATUS_PENDING);
    PVOID event;
    ASSERT_EQ(
        ObReferenceObjectByHandle(eventHandle, 0, (POBJECT_TYPE)(PVOID)ExEventObjectType, KernelMode, &event, nullptr),
        STATUS_SUCCESS);
    EXPECT_EQ(WaitFor(event, 10), STATUS_TIMEOUT);
    EXPECT_EQ(CancelFileIo(file), STATUS_SUCCESS);
    EXPECT_EQ(WaitFor(event, 0), STATUS_SUCCESS);
    EXPECT_EQ(ioStatus.Status, STATUS_CANCELLED);
    ObDereferenceObject(event);
    ZwClose(eventHandle);
    ZwClose(file);
    EXPECT_EQ(trace.back(), "close \\GLOBAL");
    RemoveDeviceStack(physicalDevice, false);
}

TEST_F(Devices, SurpriseRemovalWaitsForTheLastCloseAndRefusesNewOpens) {
    ASSERT_EQ(StartDeviceStack(physicalDevice, function_), STATUS_SUCCESS);
    HANDLE file, other;
    ASSERT_EQ(Open(kName, &file), STATUS_SUCCESS);
    RemoveDeviceStack(physicalDevice, true);
    EXPECT_EQ(trace.back(), "surprise");
    EXPECT_EQ(Open(L"more", &other, file), STATUS_DELETE_PENDING);
    ZwClose(file);
    EXPECT_EQ(trace.back(), "remove");
    // The same device comes back.
    ASSERT_EQ(StartDeviceStack(physicalDevice, function_), STATUS_SUCCESS);
    RemoveDeviceStack(physicalDevice, false);
}

TEST_F(Devices, FailedStartTakesTheStackDownAgain) {
    startStatus = STATUS_NO_SUCH_DEVICE;
    EXPECT_EQ(StartDeviceStack(physicalDevice, function_), STATUS_NO_SUCH_DEVICE);
    EXPECT_EQ(trace, (std::vector<std::string>{"capabilities", "start", "remove"}));
    EXPECT_EQ(physicalDevice->AttachedDevice, nullptr);
}

TEST_F(Devices, StopAndRestartKeepTheStack) {
    ASSERT_EQ(StartDeviceStack(physicalDevice, function_), STATUS_SUCCESS);
    EXPECT_EQ(StopDeviceStack(physicalDevice), STATUS_SUCCESS);
    EXPECT_EQ(RestartDeviceStack(physicalDevice), STATUS_SUCCESS);
    RemoveDeviceStack(physicalDevice, false);
    EXPECT_EQ(trace, (std::vector<std::string>{"capabilities", "start", "query-stop", "stop", "capabilities", "start",
                                               "remove"}));
}

} // namespace
} // namespace host::tests
