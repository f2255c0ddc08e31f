#include "camera/exposure_law.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <deque>

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

namespace {

// Brightness in proportion to exposure times gain; a setting shows `delay` steps after it was sent.
struct Loop {
    Loop(Automatics automatics, double brightnessPerUnit, LONG exposure, LONG gain, ULONG delay)
        : states(States(automatics, exposure, gain)), brightness(brightnessPerUnit),
          sent(delay + 1, ExposureAndGain{exposure, gain}) {
        states.exposure.autoMaximum = 20000;
        states.exposure.minimum = 1;
    }

    ULONG Mean() const {
        const double mean = brightness * sent.front().exposure * sent.front().gain / 8;
        return mean > 255 ? 255 : static_cast<ULONG>(mean);
    }

    void Step() {
        const ExposureAndGain next = ExposureStep(states.exposure, states.gain, Mean());
        states.exposure.current = next.exposure;
        states.gain.current = next.gain;
        sent.pop_front();
        sent.push_back(next);
    }

    // Steps until nothing has changed for `quiet` steps; more than `most` if it never rests.
    ULONG StepsToRest(ULONG most) {
        ULONG rest = 0;
        for (ULONG step = 1; step <= 2 * most + 20; ++step) {
            const ExposureAndGain before = sent.back();
            Step();
            if (sent.back() != before)
                rest = step;
        }
        return rest;
    }

    Pair states;
    double brightness;
    std::deque<ExposureAndGain> sent;
};

} // namespace

TEST(ExposureLoop, ExposureAloneSettlesDespiteDelay) {
    struct Case {
        ULONG delay, mostSteps;
        LONG smallestWanted;
        ULONG lowestMean;
    };
    for (const auto &[delay, mostSteps, smallestWanted, lowestMean] :
         {Case{0, 16, 200, 125}, {0, 16, 64, 121}, {1, 17, 200, 121}, {2, 36, 200, 121}, {3, 80, 200, 121}}) {
        for (LONG wanted = smallestWanted; wanted < 2400; wanted = wanted * 9 / 8) {
            for (const auto &[numerator, denominator] : {std::pair{1, 8}, {8, 1}, {1, 2}, {3, 2}, {1, 1}}) {
                Loop loop(kExposureOnly, 128.0 / wanted, wanted * numerator / denominator, 8, delay);
                EXPECT_LE(loop.StepsToRest(mostSteps), mostSteps)
                    << wanted << " " << numerator << "/" << denominator << " delay " << delay;
                EXPECT_TRUE(loop.Mean() >= lowestMean && loop.Mean() <= 130) << wanted << " mean " << loop.Mean();
            }
        }
    }
}

TEST(ExposureLoop, ExposureAloneDoesNotOvershoot) {
    for (const LONG start : {50, 3200}) {
        Loop loop(kExposureOnly, 128.0 / 400, start, 8, 0);
        for (int step = 0; step < 20; ++step) {
            const LONG before = loop.sent.back().exposure;
            loop.Step();
            EXPECT_TRUE(start < 400 ? loop.sent.back().exposure >= before : loop.sent.back().exposure <= before);
        }
    }
}

// Dropping the gain to its floor needs the next measurement to show it: one step of delay and it drops and climbs for
// ever. Hence the interval between measurements.
TEST(ExposureLoop, GainSettlesOnlyWithoutDelay) {
    for (const LONG wanted : {40, 50, 60}) {
        for (const LONG start : {8, 20, 63}) {
            for (const Automatics automatics : {kGainOnly, kBoth}) {
                Loop loop(automatics, 128.0 / 20000 / wanted * 8, 20000, start, 0);
                EXPECT_LE(loop.StepsToRest(16), 16u) << wanted << " from " << start;
                EXPECT_TRUE(loop.Mean() >= 118 && loop.Mean() <= 130) << wanted << " mean " << loop.Mean();
            }
        }
    }
    Loop delayed(kGainOnly, 128.0 / 20000 / 40 * 8, 20000, 8, 1);
    EXPECT_GT(delayed.StepsToRest(200), 400u);
}
