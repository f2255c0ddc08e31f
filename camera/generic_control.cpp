// Handlers that serve a control by nothing but UVC requests.
#include "camera/control.h"
#include "camera/control_id.h"
#include "camera/exposure_value.h"
#include "camera/uvc_camera.h"
#include "platform/shared_field.h"

namespace uvc {

namespace {

// A control's raw value as the property tells it, and the raw value that a property's value asks for.
using DecodeValue = LONG (*)(const ControlRequest &request, const UvcControl &control, ULONGLONG raw);
using EncodeValue = ULONGLONG (*)(const ControlRequest &request, const UvcControl &control, LONG value);

NTSTATUS GetDecoded(const ControlRequest &request, DecodeValue decode, DecodeValue decodeResolution) {
    UvcControl *value = request.controls[0];
    UvcControl *automatic = request.controls[1];
    if (!CanAnswerControl(request) || (value == nullptr && automatic == nullptr))
        return STATUS_NOT_IMPLEMENTED;

    ControlAnswer answer{.flags = 0,
                         .capabilities = (value != nullptr ? ULONG{kControlManual} : 0) |
                                         (automatic != nullptr ? ULONG{kControlAutomatic} : 0)};
    if (value != nullptr) {
        // What the camera did not tell is 0, in the property's unit.
        if (value->rangeValid) {
            answer.minimum = decode(request, *value, value->minimum);
            answer.maximum = decode(request, *value, value->maximum);
        }
        if (value->defaultValid)
            answer.defaultValue = decode(request, *value, value->defaultValue);
        if (value->resolutionValid)
            answer.resolution = decodeResolution(request, *value, value->resolution);
    }
    NTSTATUS status = STATUS_SUCCESS;
    if (request.kind != kControlRange) {
        ULONGLONG raw = 0;
        if (value != nullptr) {
            status = UvcReadControl(request.camera, *value, raw);
            if (NT_SUCCESS(status)) {
                answer.value = decode(request, *value, raw);
                answer.flags = kControlManual;
            }
        }
        // The last request decides, whatever became of the value.
        if (automatic != nullptr) {
            status = UvcReadControl(request.camera, *automatic, raw);
            if (NT_SUCCESS(status) && raw != 0)
                answer.flags = kControlAutomatic;
        }
    }
    return NT_SUCCESS(status) ? AnswerControl(request, answer) : status;
}

NTSTATUS SetEncoded(const ControlRequest &request, EncodeValue encode) {
    ControlSetting setting;
    NTSTATUS status = ReadControlSetting(request, setting);
    if (UvcControl *value = request.controls[0])
        status = UvcWriteControl(request.camera, *value, encode(request, *value, setting.value));
    if (UvcControl *automatic = request.controls[1])
        status = UvcWriteControl(request.camera, *automatic, setting.flags & kControlAutomatic);
    return status;
}

LONG DecodeNumber(const ControlRequest &, const UvcControl &control, ULONGLONG raw) {
    return UvcControlNumber(control, raw);
}

ULONGLONG EncodeNumber(const ControlRequest &, const UvcControl &, LONG value) {
    return static_cast<ULONGLONG>(LONGLONG{value});
}

LONG DecodeExposure(const ControlRequest &, const UvcControl &control, ULONGLONG raw) {
    return ExposureValue(UvcControlNumber(control, raw));
}

ULONGLONG EncodeExposure(const ControlRequest &, const UvcControl &, LONG value) {
    return static_cast<ULONG>(ExposureUnits(value));
}

// Where a component lies in the white-balance component control: blue in the first half, red in the second
// (UVC 1.1, section 4.2.2.3.11).
struct Half {
    ULONG shift;
    ULONGLONG mask; // of the half when it is shifted down; 0 for a size that has no halves
};

Half HalfOf(const ControlRequest &request, const UvcControl &control) {
    if (control.size != 2 && control.size != 4 && control.size != 8)
        return {.shift = 0, .mask = 0};
    const ULONG bits = control.size * 8 / 2;
    return {.shift = request.item.propertyId == kWhiteBalanceRedId ? bits : 0, .mask = (1ull << bits) - 1};
}

LONG DecodeHalf(const ControlRequest &request, const UvcControl &control, ULONGLONG raw) {
    const Half half = HalfOf(request, control);
    return static_cast<LONG>(raw >> half.shift & half.mask);
}

// The other half stays as it was read or written last.
ULONGLONG EncodeHalf(const ControlRequest &request, const UvcControl &control, LONG value) {
    const Half half = HalfOf(request, control);
    const ULONGLONG others = SharedLoad(control.current) & ~(half.mask << half.shift);
    return others | (static_cast<ULONG>(value) & half.mask) << half.shift;
}

} // namespace

NTSTATUS GetGenericControl(const ControlRequest &request) {
    return GetDecoded(request, DecodeNumber, DecodeNumber);
}

NTSTATUS SetGenericControl(const ControlRequest &request) {
    return SetEncoded(request, EncodeNumber);
}

NTSTATUS GetExposureControl(const ControlRequest &request) {
    return GetDecoded(request, DecodeExposure, DecodeNumber);
}

NTSTATUS SetExposureControl(const ControlRequest &request) {
    return SetEncoded(request, EncodeExposure);
}

NTSTATUS GetWhiteBalanceComponent(const ControlRequest &request) {
    return GetDecoded(request, DecodeHalf, DecodeHalf);
}

NTSTATUS SetWhiteBalanceComponent(const ControlRequest &request) {
    return SetEncoded(request, EncodeHalf);
}

} // namespace uvc
