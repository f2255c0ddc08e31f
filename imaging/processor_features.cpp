#include "imaging/processor_features.h"

#include <atomic>
#include <cpuid.h>

namespace imaging {
namespace {

struct FeatureSource {
    std::uint32_t feature;
    bool inEcx; // else in EDX
    std::uint32_t bit;
};

// CPUID leaf 1.
constexpr FeatureSource kFeatureSources[] = {
    {.feature = kFeatureMmx, .inEcx = false, .bit = 23},  {.feature = kFeatureSse, .inEcx = false, .bit = 25},
    {.feature = kFeatureSse2, .inEcx = false, .bit = 26}, {.feature = kFeatureSse3, .inEcx = true, .bit = 0},
    {.feature = kFeatureSsse3, .inEcx = true, .bit = 9},  {.feature = kFeatureSse41, .inEcx = true, .bit = 19},
    {.feature = kFeatureSse42, .inEcx = true, .bit = 20},
};

// Never a feature, so that a processor without any is asked only once as well.
constexpr std::uint32_t kDetected = 1u << 31;

constinit std::atomic<std::uint32_t> cachedFeatures{0};

std::uint32_t AskProcessor() {
    std::uint32_t eax = 0;
    std::uint32_t ebx = 0;
    std::uint32_t ecx = 0;
    std::uint32_t edx = 0;
    __cpuid(1, eax, ebx, ecx, edx);
    std::uint32_t features = 0;
    for (const FeatureSource &source : kFeatureSources) {
        if (((source.inEcx ? ecx : edx) >> source.bit & 1) != 0)
            features |= source.feature;
    }
    return features;
}

} // namespace

std::uint32_t DetectProcessorFeatures() {
    // Two threads may both ask: they get the same answer, and the one word is flag and mask together.
    std::uint32_t cached = cachedFeatures.load(std::memory_order_relaxed);
    if ((cached & kDetected) == 0) {
        cached = AskProcessor() | kDetected;
        cachedFeatures.store(cached, std::memory_order_relaxed);
    }
    return cached & ~kDetected;
}

} // namespace imaging
