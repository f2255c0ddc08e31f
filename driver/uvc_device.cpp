#include "driver/uvc_device.h"

#include "camera/device_names.h"
#include "camera/model_table.h"
#include "camera/uvc_camera.h"
#include "driver/capture_pin.h"
#include "driver/device_descriptors.h"
#include "driver/saved_settings.h"
#include "platform/lock.h"
#include "platform/shared_field.h"
#include "usb/usb_request.h"

namespace uvc {

namespace {

constexpr ULONG kNameCharacters = 100;
constexpr WCHAR kReferenceString[] = L"GLOBAL";

constexpr ULONG kDestroyAndFree = 1;

} // namespace

NTSTATUS UvcDevice::Add(KSDEVICE *device) {
    void *block = PoolAllocateZeroed(NonPagedPool, sizeof(UvcDevice), pool_tag::Context);
    if (block == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    auto *context = new (PlaceInPool{block}) UvcDevice(device);
    context->allocations.Initialise();
    KeInitializeSpinLock(&context->pinLock);
    RundownInitialise(context->cameraUses_);

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
    self->allocations.FreeBlocks();
    self->Retire();
    while (UvcCamera *earlier = self->earlierCameras_) {
        self->earlierCameras_ = earlier->earlier;
        earlier->Destroy(kDestroyAndFree);
    }
    self->allocations.Delete();
    self->~UvcDevice();
    ExFreePool(self);
}

NTSTATUS UvcDevice::Start() {
    if (device->Started)
        return STATUS_SUCCESS;

    UvcCamera *candidate = IdentifyCamera();
    if (candidate == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    candidate->workItemDevice = device->FunctionalDeviceObject;
    NTSTATUS status = candidate->Initialise();
    if (!NT_SUCCESS(status)) {
        candidate->Destroy(kDestroyAndFree);
        return status;
    }
    Publish(camera, candidate);
    RundownOpen(cameraUses_);

    KSFILTER_DESCRIPTOR *filterDescriptor = nullptr;
    status = BuildDeviceDescriptors(*this, filterDescriptor);
    if (!NT_SUCCESS(status))
        return status;

    {
        // The class driver calls this without its device mutex, which filter factories need.
        KsDeviceGuard guard(device);
        status = KsCreateFilterFactory(device->FunctionalDeviceObject, filterDescriptor,
                                       const_cast<WCHAR *>(kReferenceString), nullptr, KSCREATE_ITEM_FREEONSTOP,
                                       nullptr, nullptr, nullptr);
    }
    if (NT_SUCCESS(status))
        ReplaySettings(*this);
    return status;
}

// The camera to initialise. When the device descriptor cannot be read, that of an earlier start serves on.
UvcCamera *UvcDevice::IdentifyCamera() {
    USB_DEVICE_DESCRIPTOR descriptor{};
    if (!NT_SUCCESS(UsbGetDeviceDescriptor(device->PhysicalDeviceObject, &descriptor))) {
        return Withdraw();
    }
    StoreNames(descriptor);
    Retire();
    const ModelTableEntry *model = FindModel(descriptor.idProduct);
    auto factory = model != nullptr ? model->factory : MakeCamera<UvcCamera>;
    return factory(device->PhysicalDeviceObject, this);
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

// An application may have kept filter and pin open over a stop: its requests find no camera from now on, and none is
// left in the camera. The class driver need not have stopped the pin of a device that was stopped or pulled.
UvcCamera *UvcDevice::Withdraw() {
    RundownClose(cameraUses_);
    UvcCamera *withdrawn = camera;
    Publish<UvcCamera>(camera, nullptr);
    if (withdrawn != nullptr)
        static_cast<void>(StreamStop(*withdrawn)); // cannot fail
    return withdrawn;
}

void UvcDevice::Retire() {
    UvcCamera *retired = Withdraw();
    if (retired == nullptr)
        return;
    retired->earlier = earlierCameras_;
    earlierCameras_ = retired;
}

UvcCamera *UvcDevice::EnterCamera() {
    return RundownEnter(cameraUses_) ? ReadPublished(camera) : nullptr;
}

void UvcDevice::LeaveCamera() {
    RundownLeave(cameraUses_);
}

void UvcDevice::CompleteFrame(KSSTREAM_POINTER *frame, NTSTATUS status) {
    pin->CompleteFrame(frame, status);
}

KSSTREAM_POINTER *UvcDevice::AcquireFrame() {
    return pin->AcquireFrame();
}

} // namespace uvc
