// The automatic white balance: the law of one step, and the brightness it leaves to the automatic exposure.
#pragma once

#include "imaging/colour_samples.h"
#include "platform/platform.h"

namespace uvc {

struct Balance {
    imaging::ColourGains gains;
    ULONG brightness; // luminance of the last means that were looked at
    bool converged;   // the means differ from their average by less than 2
};

// Moves each gain by at most 20 within 64 to 255, until the means of the channels agree; a gain below 64 counts as 64.
// Gains never attenuate, so the brightest channel of a cast image stays where it is and the others stop at the
// truncated average: means such as 100, 98, 98 are as balanced as they get and yet do not count as converged. Without
// samples there is nothing to balance or measure: the gains as they are, a brightness of 0, not converged. IRQL: <=
// DISPATCH_LEVEL. Lock: none.
Balance BalanceStep(const imaging::ColourSamples &samples, const imaging::ColourGains &gains);

// The luminance of the means with these gains, after the matrix unless that is null. 0 without samples.
// IRQL: <= DISPATCH_LEVEL. Lock: none.
ULONG ColourBrightness(const imaging::ColourSamples &samples, const imaging::ColourGains &gains,
                       const SHORT (*matrix)[imaging::kMatrixCoefficients]);

} // namespace uvc
