// The bus as plug and play sees it: device stacks over a device object, and what becomes of it when they go.
#include "host/executive/pnp.h"
#include "host/usb/bus.h"
#include "tests/host/usb/client.h"

#include <optional>

namespace host::usb::test {
namespace {

struct FunctionExtension {
    PDEVICE_OBJECT lower;
};

// A function driver that passes everything on, and goes with its device.
NTSTATUS NTAPI PassOn(PDEVICE_OBJECT device, PIRP irp) {
    PDEVICE_OBJECT lower = static_cast<FunctionExtension *>(device->DeviceExtension)->lower;
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    bool isRemove = stack->MajorFunction == IRP_MJ_PNP && stack->MinorFunction == IRP_MN_REMOVE_DEVICE;
    IoSkipCurrentIrpStackLocation(irp);
    NTSTATUS status = IoCallDriver(lower, irp);
    if (isRemove) {
        IoDetachDevice(lower);
        IoDeleteDevice(device);
    }
    return status;
}

NTSTATUS NTAPI AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
    PDEVICE_OBJECT device = nullptr;
    NTSTATUS status =
        IoCreateDevice(driver, sizeof(FunctionExtension), nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
    if (!NT_SUCCESS(status))
        return status;
    static_cast<FunctionExtension *>(device->DeviceExtension)->lower = IoAttachDeviceToDeviceStack(device, pdo);
    device->Flags &= ~DO_DEVICE_INITIALIZING;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI FunctionDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    driver->MajorFunction[IRP_MJ_PNP] = PassOn;
    driver->MajorFunction[IRP_MJ_POWER] = PassOn;
    driver->DriverExtension->AddDevice = AddDevice;
    return STATUS_SUCCESS;
}

class PdoTest : public testing::Test {
  protected:
    PdoTest() {
        static constexpr WCHAR kName[] = L"function";
        EXPECT_EQ(LoadDriver(kName, FunctionDriverEntry, &function_), STATUS_SUCCESS);
    }
    ~PdoTest() override { UnloadDriver(function_); }

    NTSTATUS QueryInterface(PDEVICE_OBJECT pdo, const GUID &type, USHORT version, USHORT size, PVOID interface) {
        PIRP irp = IoAllocateIrp(pdo->StackSize, FALSE);
        irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
        PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
        stack->MajorFunction = IRP_MJ_PNP;
        stack->MinorFunction = IRP_MN_QUERY_INTERFACE;
        stack->Parameters.QueryInterface.InterfaceType = &type;
        stack->Parameters.QueryInterface.Size = size;
        stack->Parameters.QueryInterface.Version = version;
        stack->Parameters.QueryInterface.Interface = static_cast<PINTERFACE>(interface);
        auto keep = [](PDEVICE_OBJECT, PIRP, PVOID) -> NTSTATUS { return STATUS_MORE_PROCESSING_REQUIRED; };
        IoSetCompletionRoutine(irp, keep, nullptr, TRUE, TRUE, TRUE);
        IoCallDriver(pdo, irp);
        NTSTATUS status = irp->IoStatus.Status;
        IoFreeIrp(irp);
        return status;
    }

    Runtime runtime_;
    PDRIVER_OBJECT function_ = nullptr;
    std::shared_ptr<FakeDevice> device_ = std::make_shared<FakeDevice>();
    std::optional<Bus> bus_{std::in_place};
};

TEST_F(PdoTest, OffersTheBusInterface) {
    for (bool highSpeed : {true, false}) {
        device_->highSpeed = highSpeed;
        PDEVICE_OBJECT pdo = bus_->Plug(device_);
        USB_BUS_INTERFACE_USBDI_V1 bus{};
        ASSERT_EQ(QueryInterface(pdo, USB_BUS_INTERFACE_USBDI_GUID, 1, sizeof(bus), &bus), STATUS_SUCCESS);
        EXPECT_EQ(bus.Size, 72);
        EXPECT_EQ(bus.Version, 1);
        EXPECT_EQ(bus.IsDeviceHighSpeed(bus.BusContext), highSpeed);
        USBD_VERSION_INFORMATION version{};
        bus.GetUSBDIVersion(bus.BusContext, &version, nullptr);
        EXPECT_EQ(version.Supported_USB_Version, 0x200u);
        bus.InterfaceReference(bus.BusContext);
        bus.InterfaceDereference(bus.BusContext);
        // It is still there to be asked when the device is not.
        bus_->Unplug(pdo);
        EXPECT_EQ(bus.IsDeviceHighSpeed(bus.BusContext), highSpeed);

        EXPECT_EQ(QueryInterface(pdo, USB_BUS_INTERFACE_USBDI_GUID, 1, sizeof(bus) - 1, &bus), STATUS_NOT_SUPPORTED);
        EXPECT_EQ(QueryInterface(pdo, USB_BUS_INTERFACE_USBDI_GUID, 2, sizeof(bus), &bus), STATUS_NOT_SUPPORTED);
        EXPECT_EQ(QueryInterface(pdo, GUID{}, 1, sizeof(bus), &bus), STATUS_NOT_SUPPORTED);
    }
}

TEST_F(PdoTest, ADeviceThatStaysCanBeStartedAgainButItsOldHandlesAreDead) {
    PDEVICE_OBJECT pdo = bus_->Plug(device_);
    ASSERT_EQ(StartDeviceStack(pdo, function_), STATUS_SUCCESS);
    auto configured = SelectConfiguration(pdo, device_->configuration, {{1, 0}});
    configured->Send();
    ASSERT_TRUE(configured->Completes());
    USBD_PIPE_HANDLE pipe = InterfaceOf(*configured, 0).Pipes[0].PipeHandle;
    ASSERT_EQ(StopDeviceStack(pdo), STATUS_SUCCESS);
    ASSERT_EQ(RestartDeviceStack(pdo), STATUS_SUCCESS);
    auto abort = PipeRequest(pdo, pipe, URB_FUNCTION_ABORT_PIPE);
    abort->Send();
    ASSERT_TRUE(abort->Completes());
    EXPECT_EQ(abort->UsbdStatus(), USBD_STATUS_SUCCESS);

    RemoveDeviceStack(pdo, false);
    ASSERT_EQ(StartDeviceStack(pdo, function_), STATUS_SUCCESS);
    abort->Send();
    ASSERT_TRUE(abort->Completes());
    EXPECT_EQ(abort->UsbdStatus(), USBD_STATUS_INVALID_PIPE_HANDLE);
    abort.reset();
    configured.reset();
    RemoveDeviceStack(pdo, false);
    bus_.reset();
}

TEST_F(PdoTest, ADeviceComesBackUnderItsOldPath) {
    for (int turn = 0; turn < 3; ++turn) {
        PDEVICE_OBJECT pdo = bus_->Plug(device_);
        EXPECT_EQ(bus_->IdentityOf(pdo).instancePath, u"USB\\VID_1234&PID_ABCD\\A1B2");
        ASSERT_EQ(StartDeviceStack(pdo, function_), STATUS_SUCCESS);
        bus_->Unplug(pdo);
        RemoveDeviceStack(pdo, true);
        EXPECT_EQ(pdo->AttachedDevice, nullptr);
    }
}

} // namespace
} // namespace host::usb::test
