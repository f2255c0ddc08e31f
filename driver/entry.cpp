// Driver entry and the device-level callbacks of the kernel-streaming class driver.
#include "camera/banner.h"
#include "driver/uvc_device.h"

namespace uvc {

namespace {

NTSTATUS StartDevice(PKSDEVICE device, PIRP, PCM_RESOURCE_LIST, PCM_RESOURCE_LIST) {
    return UvcDevice::From(device)->Start();
}

// The filter factory goes by itself: it was created with KSCREATE_ITEM_FREEONSTOP.
void StopDevice(PKSDEVICE, PIRP) {}

// The camera may be pulled at any time.
NTSTATUS QueryCapabilities(PKSDEVICE, PIRP, PDEVICE_CAPABILITIES capabilities) {
    if (capabilities == nullptr)
        return STATUS_UNSUCCESSFUL;
    if (capabilities->Version == 1)
        capabilities->SurpriseRemovalOK = TRUE;
    return STATUS_SUCCESS;
}

// Power is left entirely to the class driver.
const KSDEVICE_DISPATCH kDeviceDispatch = {
    .Add = UvcDevice::Add,
    .Start = StartDevice,
    .Stop = StopDevice,
    .QueryCapabilities = QueryCapabilities,
};

// No static filter: the filter factory is made at device start, because its data ranges depend on the camera.
const KSDEVICE_DESCRIPTOR kDeviceDescriptor = {
    .Dispatch = &kDeviceDispatch,
};

} // namespace

} // namespace uvc

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath) {
    NTSTATUS status = KsInitializeDriver(driver, registryPath, &uvc::kDeviceDescriptor);

    // Composed and let go; the camera object composes the copy that is shown.
    WCHAR characters[100];
    UNICODE_STRING banner{.Length = 0, .MaximumLength = sizeof(characters), .Buffer = characters};
    static_cast<void>(uvc::AppendVersionBanner(&banner));
    return status;
}
