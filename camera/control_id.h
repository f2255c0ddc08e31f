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
    kOffsetXId = 118,
    kOffsetYId = 119,
    kRegisterId = 122,
    kAutofocusId = 124,
    kRegisterPairId = 125,
    kExposureLimitId = 201, // of the exposure automatic
    kExposureLimitFollowsCameraId = 202,
    kFirstGeneralValueId = 203, // the first of three
    kWhiteBalanceGreenId = 206,
    kSmoothingId = 210,
    kBinningId = 211,
    kGainsEnableId = 212,
    kSoftwareTriggerId = 213,
};

enum PrivateColourMatrixId : ULONG {
    kMatrixEnableId = 0,
    kFirstCoefficientId = 1, // the first of nine: red from red, green, blue, then green, then blue
    kConversionAlgorithmId = 10,
    kMatrixDefaultsId = 11,
    kBayerPatternId = 12,
    kDefectCorrectionId = 32,
    kDefectsId = 33, // lists by binning factor
    kDefectsBinned2Id = 34,
    kDefectsBinned4Id = 35,
};

} // namespace uvc
