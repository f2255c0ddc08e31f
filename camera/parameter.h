// The driver parameters of the private parameter set, by their property id.
#pragma once

#include "platform/platform.h"

namespace uvc {

enum ParameterId : ULONG {
    kStatisticsOverlayParameter = 1,
    kDiscardIncompleteParameter = 2,
    kRestartLoaderParameter = 3,    // families A and B, set
    kFirmwareRevisionParameter = 4, // families, get
    kDeviceStatusParameter = 5,     // families A and B, get
    kPassThroughParameter = 6,      // a block: any class or vendor request
    kTransferCountParameter = 10,
    kUserRegisterParameter = 11, // families A and B, set
    kControlTimeoutParameter = 12,
    kStreamingModeParameter = 14,     // family C, colour cameras
    kCameraDescriptionParameter = 15, // family C, colour cameras, a block, get
    kFamilySwitchParameter = 16,      // family C
    kMeasureFrameRateParameter = 17,
    kZeroBuffersParameter = 18,
    kSensorColoursParameter = 19, // family C, colour cameras, a block, get
    kWriteUserDataParameter = 20, // family C, set: any value but 0
    kLoadUserDataParameter = 21,  // family C, set
    kDumpUserDataParameter = 22,  // family C, set
    kClearUserDataParameter = 23, // family C, set
    kCyclePortParameter = 24,     // set
    kIgnoredParameter = 25,
    kInstructionSetParameter = 26,
    kVendorRegisterParameter = 27, // family C
    kResetPortParameter = 28,      // set
};

} // namespace uvc
