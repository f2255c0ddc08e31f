#include "camera/balance_law.h"

namespace uvc {

using imaging::ColourGains;
using imaging::ColourMeans;
using imaging::ColourSamples;

namespace {

constexpr LONG kSmallestGain = imaging::kUnity;
constexpr LONG kLargestGain = 255;
constexpr ULONG kMostIterations = 20;
constexpr LONG kAgreement = 2; // means agree when all are nearer to their average than this

bool IsNear(LONG mean, LONG average) {
    return mean - average < kAgreement && average - mean < kAgreement;
}

LONG Nudged(LONG gain, LONG mean, LONG average) {
    if (mean > average && gain > kSmallestGain)
        return gain - 1;
    if (mean < average && gain < kLargestGain)
        return gain + 1;
    return gain;
}

// An application may have stored any gain.
ColourGains AtLeastUnity(const ColourGains &gains) {
    const auto raise = [](LONG gain) { return gain < kSmallestGain ? kSmallestGain : gain; };
    return {.red = raise(gains.red), .green = raise(gains.green), .blue = raise(gains.blue)};
}

ColourGains AtMostLargest(const ColourGains &gains) {
    const auto limit = [](LONG gain) { return gain > kLargestGain ? kLargestGain : gain; };
    return {.red = limit(gains.red), .green = limit(gains.green), .blue = limit(gains.blue)};
}

} // namespace

Balance BalanceStep(const ColourSamples &samples, const ColourGains &gains) {
    if (samples.count == 0)
        return {.gains = gains, .brightness = 0, .converged = false};
    Balance balance{.gains = AtLeastUnity(gains), .brightness = 0, .converged = false};
    for (ULONG iteration = 0; iteration < kMostIterations && !balance.converged; ++iteration) {
        const ColourMeans means = MeanColours(samples, balance.gains);
        const LONG average = (means.red + means.green + means.blue) / 3;
        balance.brightness = static_cast<ULONG>(Luminance(means));
        balance.converged = IsNear(means.red, average) && IsNear(means.green, average) && IsNear(means.blue, average);
        if (!balance.converged) {
            balance.gains = {.red = Nudged(balance.gains.red, means.red, average),
                             .green = Nudged(balance.gains.green, means.green, average),
                             .blue = Nudged(balance.gains.blue, means.blue, average)};
        }
    }
    balance.gains = AtMostLargest(balance.gains);
    return balance;
}

ULONG ColourBrightness(const ColourSamples &samples, const ColourGains &gains,
                       const SHORT (*matrix)[imaging::kMatrixCoefficients]) {
    const ColourMeans means = MeanColours(samples, gains);
    return static_cast<ULONG>(Luminance(matrix == nullptr ? means : CorrectMeans(means, *matrix)));
}

} // namespace uvc
