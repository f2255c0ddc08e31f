#include "driver/uvc_device.h"

#include "camera/device_names.h"
#include "camera/model_table.h"
#include "camera/uvc_camera.h"
#include "driver/capture_pin.h"
#include "driver/device_descriptors.h"
#include "platform/lock.h"
#include "usb/usb_request.h"

namespace uvc {

namespace {

constexpr ULONG kNameCharacters = 100;
WCHAR kReferenceString[] = L"GLOBAL"; // the class driver's prototype takes it unconst

constexpr ULONG kDestroyAndFree = 1;

} // namespace

NTSTATUS UvcDevice::Add(KSDEVICE *device) {
    void *block = PoolAllocateZeroed(NonPagedPool, sizeof(UvcDevice), pool_tag::Context);
    if (block == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    auto *context = new (PlaceInPool{block}) UvcDevice(device);
    context->allocations.Initialise();

    NTSTATUS status;
    {
        KsDeviceGuard guard(device);
        status = KsAddItemToObjectBag(device->Bag, context, Free);
    }
    if (!NT_SUCCESS(status)) {
        Free(context);
        return status;
    }
    device->Context = context;
    return status;
}

void UvcDevice::Free(void *context) {
    auto *self = static_cast<UvcDevice *>(context);
    self->allocations.Delete();
    for (UvcCamera *earlier : self->earlierCameras_)
        earlier->Destroy(kDestroyAndFree);
    self->DestroyCamera();
    self->earlierCameras_.Clear();
    ExFreePool(self);
}

NTSTATUS UvcDevice::Start() {
    if (device->Started)
        return STATUS_SUCCESS;

    NTSTATUS status = IdentifyCamera();
    if (!NT_SUCCESS(status))
        return status;

    status = camera->Initialise();
    if (!NT_SUCCESS(status)) {
        DestroyCamera();
        return status;
    }

    KSFILTER_DESCRIPTOR *filterDescriptor = nullptr;
    status = BuildDeviceDescriptors(*this, filterDescriptor);
    if (!NT_SUCCESS(status))
        return status;

    KsDeviceGuard guard(device);
    return KsCreateFilterFactory(device->FunctionalDeviceObject, filterDescriptor, kReferenceString, nullptr,
                                 KSCREATE_ITEM_FREEONSTOP, nullptr, nullptr, nullptr);
}

// When the device descriptor cannot be read, the camera of an earlier start serves on.
NTSTATUS UvcDevice::IdentifyCamera() {
    USB_DEVICE_DESCRIPTOR descriptor{};
    if (NT_SUCCESS(UsbGetDeviceDescriptor(device->PhysicalDeviceObject, &descriptor))) {
        StoreNames(descriptor);
        const ModelTableEntry *model = FindModel(descriptor.idProduct);
        auto factory = model != nullptr ? model->factory : MakeCamera<UvcCamera>;
        ReplaceCamera(factory(device->PhysicalDeviceObject, this));
    }
    return camera != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

// The names are for people who look into the registry; a camera without them works as well.
void UvcDevice::StoreNames(const USB_DEVICE_DESCRIPTOR &descriptor) {
    WCHAR productText[kNameCharacters];
    WCHAR manufacturerText[kNameCharacters];
    UNICODE_STRING product{.Length = 0, .MaximumLength = sizeof(productText), .Buffer = productText};
    UNICODE_STRING manufacturer{.Length = 0, .MaximumLength = sizeof(manufacturerText), .Buffer = manufacturerText};

    // Index 0 says that the device has no such string.
    auto read = [this](UCHAR index, UNICODE_STRING &text) {
        return index != 0 && NT_SUCCESS(UsbGetStringDescriptor(device->PhysicalDeviceObject, index, &text));
    };
    bool haveProduct = read(descriptor.iProduct, product);
    bool haveManufacturer = read(descriptor.iManufacturer, manufacturer);
    if (haveProduct || haveManufacturer)
        static_cast<void>(StoreDeviceNames(device->PhysicalDeviceObject, manufacturer, product));
}

void UvcDevice::ReplaceCamera(UvcCamera *replacement) {
    if (camera != nullptr && !NT_SUCCESS(earlierCameras_.Append(camera)))
        camera->Destroy(kDestroyAndFree); // no memory to remember it by
    camera = replacement;
}

void UvcDevice::DestroyCamera() {
    if (camera != nullptr)
        camera->Destroy(kDestroyAndFree);
    camera = nullptr;
}

void UvcDevice::CompleteFrame(KSSTREAM_POINTER *frame, NTSTATUS status) {
    pin->CompleteFrame(frame, status);
}

KSSTREAM_POINTER *UvcDevice::AcquireFrame() {
    return pin->AcquireFrame();
}

} // namespace uvc
