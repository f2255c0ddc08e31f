#include "camera/exposure_law.h"
#include "platform/shared_field.h"

namespace uvc {

namespace {

constexpr LONGLONG kDeadBandLow = 98; // percent of the measured brightness
constexpr LONGLONG kDeadBandHigh = 102;
constexpr LONGLONG kSlightlyBright = 94; // a factor below it drops the gain to its floor in one step

// value * percent / 100 towards zero. Applications may store any reference, limit and gain, with which the product
// itself does not fit into 64 bits.
LONGLONG Scale(LONG value, LONGLONG percent) {
    return value / 100 * percent + value % 100 * percent / 100;
}

// The minimum holds even against a limit below it.
LONG ScaledExposure(const ExposureState &exposure, LONGLONG factor) {
    const LONGLONG scaled = Scale(SharedLoad(exposure.current), factor);
    const LONG minimum = SharedLoad(exposure.minimum);
    const LONG limit = SharedLoad(exposure.autoMaximum);
    return scaled < minimum ? minimum : scaled > limit ? limit : static_cast<LONG>(scaled);
}

LONG ScaledGain(const GainState &gain, LONGLONG factor) {
    const LONGLONG minimum = SharedLoad(gain.minimum);
    const LONGLONG maximum = SharedLoad(gain.maximum);
    LONGLONG scaled = factor < kSlightlyBright ? minimum : Scale(SharedLoad(gain.current), factor);
    if (scaled < minimum)
        scaled = minimum;
    return static_cast<LONG>(scaled > maximum ? maximum : scaled);
}

} // namespace

ExposureAndGain ExposureStep(const ExposureState &exposure, const GainState &gain, ULONG mean) {
    const ExposureAndGain now{.exposure = SharedLoad(exposure.current), .gain = SharedLoad(gain.current)};
    const LONGLONG wanted = LONGLONG{SharedLoad(exposure.reference)} * 100 / (mean == 0 ? 1 : mean);
    if (wanted >= kDeadBandLow && wanted <= kDeadBandHigh)
        return now;

    const LONGLONG factor = (wanted + 200) / 3;
    const bool exposureAutomatic = SharedLoad(exposure.automatic);
    const bool gainAutomatic = SharedLoad(gain.automatic);
    const ExposureAndGain scaled{.exposure = exposureAutomatic ? ScaledExposure(exposure, factor) : now.exposure,
                                 .gain = gainAutomatic ? ScaledGain(gain, factor) : now.gain};
    if (scaled.gain >= now.gain && scaled.exposure != now.exposure)
        return {.exposure = scaled.exposure, .gain = now.gain};
    return {.exposure = now.exposure, .gain = scaled.gain};
}

} // namespace uvc
