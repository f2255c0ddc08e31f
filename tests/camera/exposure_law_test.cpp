#include "camera/exposure_law.h"

#include <gtest/gtest.h>

using namespace uvc;

namespace {

constexpr LONG kLongest = 0x7FFFFFFF;
constexpr LONG kMostNegative = -kLongest - 1;

struct Automatics {
    bool exposure;
    bool gain;
};

constexpr Automatics kExposureOnly{true, false};
constexpr Automatics kGainOnly{false, true};
constexpr Automatics kBoth{true, true};

struct Pair {
    ExposureState exposure;
    GainState gain;
};

Pair States(Automatics automatics, LONG exposure, LONG gain) {
    return {.exposure = {.current = exposure, .automatic = automatics.exposure},
            .gain = {.minimum = 8, .maximum = 63, .defaultValue = 8, .current = gain, .automatic = automatics.gain}};
}

} // namespace

TEST(ExposureStep, TakesAThirdOfTheWay) {
    struct Case {
        Automatics automatics;
        LONG exposure, gain;
        ULONG mean;
        ExposureAndGain want;
    };
    for (const auto &[automatics, exposure, gain, mean, want] : {
             // The dead band: 98 to 102 percent.
             Case{kBoth, 200, 20, 128, {200, 20}},
             {kBoth, 200, 20, 125, {200, 20}},
             {kBoth, 200, 20, 130, {200, 20}},
             {kExposureOnly, 200, 20, 124, {202, 20}},
             {kExposureOnly, 200, 20, 131, {198, 20}},
             // Exposure: to the minimum, to the limit, even when the image is dark.
             {kExposureOnly, 200, 20, 100, {218, 20}},
             {kExposureOnly, 1000, 20, 100, {333, 20}},
             {kExposureOnly, 1000, 20, 128, {1000, 20}},
             {kExposureOnly, 200, 20, 255, {166, 20}},
             {kExposureOnly, 3, 20, 0, {129, 20}}, // 12800 percent, a third of the way 4333
             {kExposureOnly, 1, 20, 255, {0, 20}},
             {kExposureOnly, 0, 20, 0, {0, 20}},
             {kExposureOnly, 50, 20, 122, {50, 20}}, // half a unit is no step
             // Gain: 94 percent is a step, less drops it to the floor.
             {kGainOnly, 200, 40, 100, {200, 43}},
             {kGainOnly, 200, 60, 100, {200, 63}},
             {kGainOnly, 200, 40, 154, {200, 37}},
             {kGainOnly, 200, 40, 156, {200, 37}},
             {kGainOnly, 200, 40, 157, {200, 8}},
             {kGainOnly, 200, 40, 200, {200, 8}},
             {kGainOnly, 200, 5, 154, {200, 8}},
             // Both: up exposure first, then gain; down gain first, then exposure.
             {kBoth, 200, 20, 100, {218, 20}},
             {kBoth, 333, 20, 100, {333, 21}},
             {kBoth, 333, 63, 100, {333, 63}},
             {kBoth, 200, 20, 200, {200, 8}},
             {kBoth, 200, 8, 200, {176, 8}},
             {kBoth, 400, 20, 100, {333, 20}},
             {{false, false}, 200, 20, 10, {200, 20}},
         }) {
        const Pair states = States(automatics, exposure, gain);
        EXPECT_EQ(ExposureStep(states.exposure, states.gain, mean), want)
            << automatics.exposure << automatics.gain << " exposure " << exposure << " gain " << gain << " mean "
            << mean;
    }
}

TEST(ExposureStep, BoundsAreAppliedInOrder) {
    Pair states = States(kBoth, 200, 20);
    states.exposure.minimum = 500; // above the limit of 333
    EXPECT_EQ(ExposureStep(states.exposure, states.gain, 100).exposure, 500);
    states = States(kGainOnly, 200, 20);
    states.gain.maximum = 5; // below the minimum of 8
    EXPECT_EQ(ExposureStep(states.exposure, states.gain, 100).gain, 5);
}

// Applications may store any value anywhere.
TEST(ExposureStep, SurvivesAnyStoredValue) {
    struct Case {
        LONG reference, current, limit;
        ULONG mean;
        LONG want;
    };
    for (const auto &[reference, current, limit, mean, want] : {
             Case{kLongest, kLongest, kLongest, 0, kLongest},
             {kLongest, 1, kLongest, 0, 715827883},
             {kLongest, kLongest, 333, 0, 333},
             {kLongest, kMostNegative, kLongest, 0, 0},
             {-1000, 200, kLongest, 128, 0},
             {kMostNegative, kMostNegative, kLongest, 1, kLongest},
             {255, 300000, kLongest, 0, 25698000},
             {128, kLongest, kLongest, 255, 1782411427},
             {128, 200, kMostNegative, 100, kMostNegative},
         }) {
        Pair states = States(kExposureOnly, current, 0);
        states.exposure.reference = reference;
        states.exposure.autoMaximum = limit;
        EXPECT_EQ(ExposureStep(states.exposure, states.gain, mean).exposure, want)
            << reference << " " << current << " " << limit << " " << mean;
    }
}
