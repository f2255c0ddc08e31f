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
    for (UvcCamera *earlier : self->earlierCameras_)
        earlier->Destroy(kDestroyAndFree);
    self->allocations.Delete();
    self->~UvcDevice();
    ExFreePool(self);
}

NTSTATUS UvcDevice::Start() {
    if (device->Started)
        return STATUS_SUCCESS;

    // An application may have kept its filter open over a stop: no request of its finds a camera that is not ready.
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
        if (camera != nullptr)
            static_cast<void>(StreamStop(*camera)); // cannot fail
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

// Requests that come from now on find no camera.
UvcCamera *UvcDevice::Withdraw() {
    UvcCamera *withdrawn = camera;
    Publish<UvcCamera>(camera, nullptr);
    return withdrawn;
}

// The class driver need not have stopped the pin of a device that was stopped or pulled.
void UvcDevice::Retire() {
    UvcCamera *retired = Withdraw();
    if (retired == nullptr)
        return;
    static_cast<void>(StreamStop(*retired)); // cannot fail
    if (!NT_SUCCESS(earlierCameras_.Append(retired)))
        retired->Destroy(kDestroyAndFree); // no memory to remember it by
}

void UvcDevice::CompleteFrame(KSSTREAM_POINTER *frame, NTSTATUS status) {
    pin->CompleteFrame(frame, status);
}

KSSTREAM_POINTER *UvcDevice::AcquireFrame() {
    return pin->AcquireFrame();
}

} // namespace uvc
