// The device-information property set: who made the camera, its serial number and its model. Strings are read from the
// device anew for every request.
#include "camera/banner.h"
#include "camera/device_names.h"
#include "camera/uvc_camera.h"
#include "driver/property_handlers.h"

namespace uvc {

namespace {

enum InformationId : ULONG {
    kVendorInformation = 100,
    kSerialInformation = 101,
    kModelInformation = 102,
    kInterfaceInformation = 103,
};

constexpr USHORT kTextBytes = 256;

// Of a vendor, or of our own interface.
struct TextBlock {
    KSPROPERTY property;
    ULONG number;
    char text[kTextBytes];
};
static_assert(sizeof(TextBlock) == 288);

struct SerialBlock {
    KSPROPERTY property;
    ULONGLONG serial;
    char product[kTextBytes];
};
static_assert(sizeof(SerialBlock) == 288);

struct ModelBlock {
    KSPROPERTY property;
    ULONG constants[2];
    ULONG productId;
    char version[kTextBytes];
};
static_assert(sizeof(ModelBlock) == 296);

// What clients have always been told.
constexpr ULONG kModelConstants[] = {5, 7};
constexpr ULONG kInterfaceNumber = 66;

// A text that cannot be converted leaves the zeroed field empty.
void WriteText(char (&field)[kTextBytes], const UNICODE_STRING &text) {
    ANSI_STRING ansi{.Length = 0, .MaximumLength = kTextBytes, .Buffer = field};
    if (!NT_SUCCESS(RtlUnicodeStringToAnsiString(&ansi, &text, FALSE)))
        field[0] = 0;
}

// A device string; empty when there is none.
struct DeviceString {
    DeviceString(const UsbDeviceLink &link, ULONG stringId) {
        if (!NT_SUCCESS(UsbGetDeviceString(link, stringId, &text)))
            text.Length = 0;
    }
    WCHAR characters[128]; // no string descriptor is longer
    UNICODE_STRING text{.Length = 0, .MaximumLength = sizeof(characters), .Buffer = characters};
};

NTSTATUS GetVendor(const UsbDeviceLink &link, PropertyRequest &request) {
    auto *block = StartAnswer<TextBlock>(request);
    if (block == nullptr)
        return STATUS_INVALID_PARAMETER;
    if (link.deviceDescriptor)
        block->number = link.deviceDescriptor->idVendor;
    WriteText(block->text, DeviceString(link, kManufacturerString).text);
    return STATUS_SUCCESS;
}

NTSTATUS GetSerial(const UsbDeviceLink &link, PropertyRequest &request) {
    auto *block = StartAnswer<SerialBlock>(request);
    if (block == nullptr)
        return STATUS_INVALID_PARAMETER;
    block->serial = SerialNumberOf(DeviceString(link, kSerialNumberString).text);
    WriteText(block->product, DeviceString(link, kProductString).text);
    return STATUS_SUCCESS;
}

NTSTATUS GetModel(const UsbDeviceLink &link, PropertyRequest &request) {
    auto *block = StartAnswer<ModelBlock>(request);
    if (block == nullptr)
        return STATUS_INVALID_PARAMETER;
    RtlCopyMemory(block->constants, kModelConstants, sizeof(kModelConstants));
    if (link.deviceDescriptor)
        block->productId = link.deviceDescriptor->idProduct;
    WriteText(block->version, kDriverVersion);
    return STATUS_SUCCESS;
}

NTSTATUS GetInterface(PropertyRequest &request) {
    auto *block = StartAnswer<TextBlock>(request);
    if (block == nullptr)
        return STATUS_INVALID_PARAMETER;
    block->number = kInterfaceNumber;
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS HandleDeviceInformation(UvcDevice &, UvcCamera &camera, PropertyRequest &request) {
    if (IsSupportQuery(request))
        return AnswerSupport(request, KSPROPERTY_TYPE_GET);
    if (!IsGet(request))
        return STATUS_NOT_IMPLEMENTED;
    switch (request.property->Id) {
    case kVendorInformation:
        return GetVendor(*camera.link, request);
    case kSerialInformation:
        return GetSerial(*camera.link, request);
    case kModelInformation:
        return GetModel(*camera.link, request);
    case kInterfaceInformation:
        return GetInterface(request);
    default:
        return STATUS_NOT_IMPLEMENTED;
    }
}

} // namespace uvc
