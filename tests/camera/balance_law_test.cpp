#include "camera/balance_law.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

using namespace uvc;
using imaging::ColourGains;
using imaging::ColourMeans;
using imaging::ColourSamples;

namespace {

std::unique_ptr<ColourSamples> Samples(const std::vector<imaging::ColourSample> &list) {
    auto samples = std::make_unique<ColourSamples>();
    std::ranges::copy(list, samples->sample);
    samples->count = static_cast<std::uint32_t>(list.size());
    CountColours(*samples);
    return samples;
}

} // namespace

TEST(BalanceStep, MovesGainsTowardsTheAverage) {
    struct Case {
        imaging::ColourSample scene;
        ColourGains gains, want;
        ULONG brightness;
        bool converged;
    };
    for (const auto &[scene, gains, want, brightness, converged] : {
             Case{{100, 100, 100}, {64, 64, 64}, {64, 64, 64}, 99, true},
             {{100, 100, 101}, {64, 64, 64}, {64, 64, 64}, 99, true},
             // An average of 98: nobody moves, and the red channel is 2 away for ever.
             {{100, 98, 98}, {64, 64, 64}, {64, 64, 64}, 98, false},
             {{100, 100, 100}, {40, 64, 64}, {64, 64, 64}, 99, true},
             {{100, 100, 100}, {-5, 64, 64}, {64, 64, 64}, 99, true},
             {{100, 100, 100}, {300, 300, 300}, {255, 255, 255}, 254, true},
             {{100, 100, 100}, {84, 84, 84}, {84, 84, 84}, 130, true},
             // 20 steps and no further: black stays black.
             {{0, 200, 0}, {64, 64, 64}, {84, 64, 84}, 117, false},
             {{0, 0, 200}, {250, 64, 70}, {255, 84, 64}, 22, false},
         }) {
        const Balance balance = BalanceStep(*Samples({scene}), gains);
        EXPECT_EQ(balance.gains, want) << int{scene.red} << " " << int{scene.green} << " " << int{scene.blue};
        EXPECT_EQ(balance.brightness, brightness);
        EXPECT_EQ(balance.converged, converged);
    }
}

// Means of 90, 100, 111 before the first iteration; after six they are 98, 100, 102, after seven 99, 100, 100.
TEST(BalanceStep, LowersTheBrightAndRaisesTheDark) {
    const auto samples = Samples({{90, 100, 96}});
    const Balance balance = BalanceStep(*samples, {64, 64, 74});
    ASSERT_EQ(MeanColours(*samples, {64, 64, 74}), (ColourMeans{90, 100, 111}));
    EXPECT_TRUE(balance.converged);
    EXPECT_EQ(balance.gains, (ColourGains{71, 64, 67}));
    EXPECT_EQ(balance.brightness, static_cast<ULONG>(Luminance(MeanColours(*samples, balance.gains))));
}

TEST(BalanceStep, BrightnessIsThatBeforeTheLastMove) {
    const Balance balance = BalanceStep(*Samples({{40, 200, 200}}), {64, 64, 64});
    EXPECT_FALSE(balance.converged);
    EXPECT_EQ(balance.gains, (ColourGains{84, 64, 64}));
    EXPECT_EQ(balance.brightness, (76u * (40 * 83 / 64) + 150 * 200 + 29 * 200) / 256);
}

TEST(BalanceStep, WithoutSamplesThereIsNothingToBalance) {
    const Balance balance = BalanceStep(*Samples({}), {40, 64, 300});
    EXPECT_EQ(balance.gains, (ColourGains{40, 64, 300}));
    EXPECT_EQ(balance.brightness, 0u);
    EXPECT_FALSE(balance.converged);
}

TEST(ColourBrightness, IsTakenBehindTheMatrix) {
    constexpr SHORT kMatrix[9] = {90, -13, -13, -13, 90, -13, -13, -13, 90};
    const auto samples = Samples({{100, 50, 200}});
    EXPECT_EQ(ColourBrightness(*samples, {64, 64, 64}, nullptr), (7600u + 7500 + 5800) / 256);
    // Red 5750 / 64 = 89, green 600 / 64 = 9, blue 16050 / 64 = 250.
    EXPECT_EQ(ColourBrightness(*samples, {64, 64, 64}, &kMatrix), (76u * 89 + 150 * 9 + 29 * 250) / 256);
    EXPECT_EQ(ColourBrightness(*samples, {300, -1, 64}, nullptr), (76u * 255 + 29 * 200) / 256);
    EXPECT_EQ(ColourBrightness(*Samples({}), {64, 64, 64}, &kMatrix), 0u);
}
