// Control selectors of the entities that UVC defines (UVC 1.1, tables ).
#pragma once

#include "platform/platform.h"

namespace uvc {

enum CameraTerminalSelector : ULONG {
    kExposureTimeSelector = 4,
    kFocusSelector = 6,
    kFocusAutoSelector = 8,
    kIrisSelector = 9,
    kZoomSelector = 11,
    kRollSelector = 15,
    kExternalTriggerSelector = 17, // family C's
};

enum ProcessingUnitSelector : ULONG {
    kBacklightCompensationSelector = 1,
    kBrightnessSelector = 2,
    kContrastSelector = 3,
    kGainSelector = 4,
    kHueSelector = 6,
    kSaturationSelector = 7,
    kSharpnessSelector = 8,
    kGammaSelector = 9,
    kWhiteBalanceTemperatureSelector = 10,
    kWhiteBalanceComponentSelector = 12,
    kWhiteBalanceComponentAutoSelector = 13,
    kDigitalMultiplierSelector = 14,
    kDigitalMultiplierLimitSelector = 15,
    kHueAutoSelector = 16,
};

} // namespace uvc
