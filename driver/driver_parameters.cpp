// The driver-parameter property set: 32-bit values, and a few blocks that the camera object reads and writes itself.
#include "camera/parameter.h"
#include "camera/uvc_camera.h"
#include "driver/property_router.h"
#include "driver/uvc_device.h"

namespace uvc {

namespace {

constexpr ULONG kGetAndSet = KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_SET;

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
    if (request.data == nullptr || request.inputLength < sizeof(value))
        return STATUS_NOT_IMPLEMENTED;
    RtlCopyMemory(&value, request.data, sizeof(value));
    return camera.SetParameter(request.property->Id, value);
}

NTSTATUS GetValue(UvcCamera &camera, PropertyRequest &request) {
    if (request.data == nullptr || request.outputLength < sizeof(ULONG))
        return STATUS_NOT_IMPLEMENTED;
    ULONG value = 0;
    NTSTATUS status = camera.GetParameter(request.property->Id, value);
    if (NT_SUCCESS(status)) {
        RtlCopyMemory(request.data, &value, sizeof(value));
        request.information = sizeof(value);
    }
    return status;
}

} // namespace

NTSTATUS HandleDriverParameter(UvcDevice &device, PropertyRequest &request) {
    if (device.camera == nullptr)
        return STATUS_DEVICE_NOT_CONNECTED;
    UvcCamera &camera = *device.camera;
    const ULONG id = request.property->Id;
    if (IsSupportQuery(request))
        return AnswerSupport(request, camera.IsParameterSupported(id) ? kGetAndSet : 0);
    if ((request.property->Flags & KSPROPERTY_TYPE_SET) != 0)
        return IsBlock(id) ? SetBlock(camera, request) : SetValue(camera, request);
    if ((request.property->Flags & KSPROPERTY_TYPE_GET) != 0)
        return IsBlock(id) ? GetBlock(camera, request) : GetValue(camera, request);
    return STATUS_NOT_IMPLEMENTED;
}

} // namespace uvc
