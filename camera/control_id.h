// Property ids of the private sets; those of the standard sets are the platform's KSPROPERTY_VIDEOPROCAMP and
// KSPROPERTY_CAMERACONTROL.
#pragma once

#include "platform/platform.h"

namespace uvc {

enum PrivateImageId : ULONG {
    kWhiteBalanceBlueId = 101,
    kWhiteBalanceRedId = 102,
    kExposureReferenceId = 106, // brightness that the exposure automatic wants
    kOnePushWhiteBalanceId = 107,
    kCameraExposureId = 109, // in units of 100 us
    kExternalTriggerId = 115,
    kRegisterId = 122,
    kRegisterPairId = 125,
    kExposureLimitId = 201, // of the exposure automatic
    kExposureLimitFollowsCameraId = 202,
    kFirstGeneralValueId = 203, // the first of three
    kSoftwareTriggerId = 213,
};

} // namespace uvc
