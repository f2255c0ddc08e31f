// The driver-information property set. Its blocks are all answer: no property header stands in front.
#include "camera/uvc_camera.h"
#include "driver/property_handlers.h"

namespace uvc {

namespace {

enum InformationId : ULONG { kVersionInformation = 0, kCameraInformation = 1 };

struct VersionBlock {
    ULONG kind;
    ULONG reserved;
    ULONG buildWord;   // third number of the version in the upper half, fourth in the lower
    ULONG releaseWord; // first and second number
    WCHAR buildKind[64];
};
static_assert(sizeof(VersionBlock) == 144);

constexpr ULONG VersionWord(USHORT upper, USHORT lower) {
    return static_cast<ULONG>(upper) << 16 | lower;
}

// Version 2.1.5.616, as the banner has it.
constexpr VersionBlock kVersion = {
    .kind = 4, .buildWord = VersionWord(5, 616), .releaseWord = VersionWord(2, 1), .buildKind = L"fre"};
static_assert(kVersion.buildWord == 328296 && kVersion.releaseWord == 0x20001);

NTSTATUS Answer(PropertyRequest &request, const void *block, ULONG size) {
    void *answer = AnswerBuffer(request, size);
    if (answer == nullptr)
        return STATUS_INVALID_PARAMETER;
    RtlCopyMemory(answer, block, size);
    request.information = size;
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS HandleDriverInformation(UvcDevice &, UvcCamera &camera, PropertyRequest &request) {
    if (IsSupportQuery(request))
        return AnswerSupport(request, KSPROPERTY_TYPE_GET);
    if (!IsGet(request))
        return STATUS_NOT_IMPLEMENTED;
    switch (request.property->Id) {
    case kVersionInformation:
        return Answer(request, &kVersion, sizeof(kVersion));
    case kCameraInformation: {
        CameraInfo info{};
        if (AnswerBuffer(request, sizeof(info)) == nullptr)
            return STATUS_INVALID_PARAMETER; // without asking the camera for its strings
        camera.GetCameraInfo(info);
        return Answer(request, &info, sizeof(info));
    }
    default:
        return STATUS_NOT_IMPLEMENTED;
    }
}

} // namespace uvc
