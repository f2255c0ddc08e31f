#include "camera/uvc_camera.h"

#include "camera/banner.h"
#include "camera/descriptor_parser.h"
#include "camera/device_names.h"
#include "camera/parameter.h"
#include "imaging/processor_features.h"
#include "usb/frame_assembly.h"
#include "usb/uvc_request.h"

namespace uvc {

namespace {

// Puts a counted wide text into a zeroed buffer; a text that cannot be converted leaves it empty.
template <USHORT N> void ToAnsi(const UNICODE_STRING &wide, char (&text)[N]) {
    ANSI_STRING ansi{.Length = 0, .MaximumLength = N, .Buffer = text};
    if (!NT_SUCCESS(RtlUnicodeStringToAnsiString(&ansi, &wide, FALSE)))
        text[0] = 0;
}

constexpr USHORT kInfoTextBytes = 128;

// A device string of at most 64 characters, cut where it is longer; empty when there is none.
struct DeviceText {
    DeviceText(const UsbDeviceLink &link, ULONG stringId) {
        static_cast<void>(UsbGetDeviceString(link, stringId, &string));
    }
    WCHAR characters[kInfoTextBytes / sizeof(WCHAR)];
    UNICODE_STRING string{.Length = 0, .MaximumLength = sizeof(characters), .Buffer = characters};
};

} // namespace

UvcCamera::UvcCamera(PDEVICE_OBJECT device, FrameSink *frameSink) : sink(frameSink), workItemDevice(device) {
    parameters.processorMask = imaging::DetectProcessorFeatures();
    StreamInitialise(*this);

    WCHAR characters[sizeof(bannerText) - 1];
    UNICODE_STRING banner{.Length = 0, .MaximumLength = sizeof(characters), .Buffer = characters};
    static_cast<void>(AppendVersionBanner(&banner)); // it fits
    ToAnsi(banner, bannerText);

    if (void *block = PoolAllocateZeroed(NonPagedPool, sizeof(UsbDeviceLink), pool_tag::Context))
        link = new (PlaceInPool{block}) UsbDeviceLink(device);
}

UvcCamera::~UvcCamera() {
    if (link != nullptr) {
        link->~UsbDeviceLink();
        ExFreePoolWithTag(link, pool_tag::Context);
    }
}

void UvcCamera::Destroy(ULONG flags) {
    this->UvcCamera::~UvcCamera();
    Release(this, flags);
}

void UvcCamera::Release(void *camera, ULONG flags) {
    constexpr ULONG kFreeMemory = 1;
    if ((flags & kFreeMemory) != 0)
        ExFreePoolWithTag(camera, pool_tag::Context);
}

NTSTATUS UvcCamera::Initialise() {
    formatsReady = false;
    formats.Clear();
    providers_.Clear();
    descriptors.Reset();
    infoText[0] = 0;
    if (link == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;

    NTSTATUS status = UsbConfigureDevice(*link);
    if (!NT_SUCCESS(status))
        return status;

    descriptors = decltype(descriptors)::Allocate(PagedPool);
    if (!descriptors)
        return STATUS_INSUFFICIENT_RESOURCES;

    // A camera that does not answer leaves zeros.
    static_cast<void>(UvcStreamingRequest(*this, false, kGetCur, descriptors->committed));
    ParseDescriptors(link->ConfigurationBytes(), *descriptors);
    controls.Build(*this);

    status = CreateControls();
    if (NT_SUCCESS(status))
        status = BuildFormatList();
    if (NT_SUCCESS(status))
        ReadFirmwareRevision();
    return status;
}

void UvcCamera::ReadFirmwareRevision() {
    ULONG revision = 0;
    if (NT_SUCCESS(GetParameter(kFirmwareRevisionParameter, revision)))
        static_cast<void>(RtlStringCbPrintfA(infoText, sizeof(infoText), "firmware_rev=%d", revision));
}

void UvcCamera::GetCameraInfo(CameraInfo &info) {
    info = {};
    if (link->deviceDescriptor) {
        info.vendorId = link->deviceDescriptor->idVendor;
        info.productId = link->deviceDescriptor->idProduct;
    }
    ToAnsi(DeviceText(*link, kProductString).string, info.product);
    ToAnsi(DeviceText(*link, kManufacturerString).string, info.manufacturer);
    DeviceText serial(*link, kSerialNumberString);
    ToAnsi(serial.string, info.serialText);
    info.serial = SerialNumberOf(serial.string);
}

void UvcCamera::FillFamilyInfo(CameraInfo &info) {
    constexpr ULONG kFamilyInformation = 6;
    constexpr ULONG kSensorYuy2 = 4;
    constexpr ULONG kSensorBayer = 2;
    constexpr ULONG kSensorOther = 1;

    info.informationKind = kFamilyInformation;
    ULONG revision = 0;
    if (NT_SUCCESS(GetParameter(kFirmwareRevisionParameter, revision)))
        info.version |= static_cast<ULONGLONG>(revision) << 32;
    info.sensorCode = HasFormat(kSubtypeYuy2) ? kSensorYuy2 : HasFormat(kSubtypeBy8) ? kSensorBayer : kSensorOther;
}

NTSTATUS UvcCamera::CreateWorker() {
    return WorkerCreate(*this);
}

void UvcCamera::ResetStreamState() {}

void UvcCamera::OnCommitted(const KS_VIDEOINFOHEADER &) {}

ULONG UvcCamera::TransferSize() {
    return descriptors->committed.dwMaxPayloadTransferSize;
}

void UvcCamera::ConvertFrame(imaging::ImageDescriptor &, imaging::ImageDescriptor &, ULONG) {}

void UvcCamera::GetOutputFrame(FrameRecord &record) {
    uvc::GetOutputFrame(*this, record);
}

void UvcCamera::CompleteFrame(FrameRecord &record) {
    CompleteOutputFrame(*this, record);
}

void UvcCamera::DropFrame(FrameRecord &record, bool release) {
    DropOutputFrame(*this, record, release);
}

} // namespace uvc
