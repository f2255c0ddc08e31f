// The driver-parameter property set: 32-bit values, and a few blocks that the camera object reads and writes itself.
#include "camera/parameter.h"
#include "camera/uvc_camera.h"
#include "driver/property_handlers.h"

namespace uvc {

namespace {

constexpr ULONG kBlockLength = 8;

bool IsBlock(ULONG id) {
    return id == kPassThroughParameter || id == kCameraDescriptionParameter || id == kSensorColoursParameter;
}

ULONG Smaller(ULONG a, ULONG b) {
    return a < b ? a : b;
}

NTSTATUS SetBlock(UvcCamera &camera, PropertyRequest &request) {
    // The data is the caller's output buffer; the input length alone would let it be read beyond its end.
    const ULONG length = request.property->Id == kPassThroughParameter
                             ? Smaller(request.inputLength, request.outputLength)
                             : kBlockLength;
    return camera.SetParameterBlock(request.property->Id, static_cast<UCHAR *>(request.data), length);
}

NTSTATUS GetBlock(UvcCamera &camera, PropertyRequest &request) {
    // What precedes the instance data in the input is the property header.
    const ULONG instanceLength =
        request.inputLength > sizeof(KSPROPERTY) ? request.inputLength - static_cast<ULONG>(sizeof(KSPROPERTY)) : 0;
    return camera.GetParameterBlock(request.property->Id, static_cast<const UCHAR *>(request.instance), instanceLength,
                                    static_cast<UCHAR *>(request.data), request.outputLength, request.information);
}

NTSTATUS SetValue(UvcCamera &camera, PropertyRequest &request) {
    ULONG value = 0;
    const void *setting = SettingBuffer(request, sizeof(value));
    if (setting == nullptr)
        return STATUS_NOT_IMPLEMENTED;
    RtlCopyMemory(&value, setting, sizeof(value));
    return camera.SetParameter(request.property->Id, value);
}

NTSTATUS GetValue(UvcCamera &camera, PropertyRequest &request) {
    ULONG value = 0;
    void *answer = AnswerBuffer(request, sizeof(value));
    if (answer == nullptr)
        return STATUS_NOT_IMPLEMENTED;
    NTSTATUS status = camera.GetParameter(request.property->Id, value);
    if (NT_SUCCESS(status)) {
        RtlCopyMemory(answer, &value, sizeof(value));
        request.information = sizeof(value);
    }
    return status;
}

} // namespace

NTSTATUS HandleDriverParameter(UvcDevice &, UvcCamera &camera, PropertyRequest &request) {
    const ULONG id = request.property->Id;
    if (IsSupportQuery(request))
        return AnswerSupport(request, camera.IsParameterSupported(id) ? kGetAndSet : 0);
    if (IsSet(request))
        return IsBlock(id) ? SetBlock(camera, request) : SetValue(camera, request);
    if (IsGet(request))
        return IsBlock(id) ? GetBlock(camera, request) : GetValue(camera, request);
    return STATUS_NOT_IMPLEMENTED;
}

} // namespace uvc
