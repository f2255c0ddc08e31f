// The automatic exposure and gain: the state that requests and frames share, and the law of one step.
#pragma once

#include "platform/platform.h"

namespace uvc {

// Exposures are in the camera's units. Requests write the fields while frames are judged, so both sides go through
// SharedLoad and SharedStore.
struct ExposureState {
    LONG cameraMaximum = 20000;
    LONG minimum = 0;
    LONG maximum = 20000;
    LONG defaultValue = 333;
    LONG current = 333;
    bool automatic = true;
    LONG referenceMinimum = 0;
    LONG referenceMaximum = 255;
    LONG referenceDefault = 128;
    LONG reference = 128; // the mean brightness to reach
    LONG limitMinimum = 0;
    LONG limitMaximum = 20000;
    LONG limitDefault = 333;
    LONG autoMaximum = 333; // the longest exposure that the automatic sets
    bool limitFollowsCamera = true;
};

// Nothing until the camera turns out to offer gain.
struct GainState {
    LONG minimum = 0;
    LONG maximum = 0;
    LONG defaultValue = 0;
    LONG current = 0;
    bool automatic = false;
};

struct ExposureAndGain {
    LONG exposure;
    LONG gain;

    friend bool operator==(const ExposureAndGain &, const ExposureAndGain &) = default;
};

// What exposure and gain should become after a frame of this mean brightness: what they are, or a step towards the
// reference with one of them, of a third of the way. Neither is stored. Of both automatics a dark image raises the
// exposure first and a bright one lowers the gain first.
//
// Steps are rounded towards zero. So a short exposure may rest outside the dead band, where a third of the way is less
// than one unit, and an exposure or gain of 0 never leaves it; a camera's minimum of 1 or more avoids that.
// IRQL: <= DISPATCH_LEVEL. Lock: none.
ExposureAndGain ExposureStep(const ExposureState &exposure, const GainState &gain, ULONG mean);

} // namespace uvc
