#include "usb/video_format.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace uvc {
namespace {

TEST(VideoFormat, RatesFollowTheIntegerArithmetic) {
    struct Case {
        LONG width, height;
        USHORT bits;
        LONGLONG defaultInterval, minimumInterval;
        ULONG imageSize, bitsPerSecond, bitRate;
    };
    const Case cases[] = {
        {640, 480, 8, 333333, 333333, 307200, 73'728'000, 73'728'000},
        {640, 480, 24, 400000, 200000, 921600, 368'640'000, 184'320'000},
        {3, 3, 4, 333333, 333333, 4, 1080, 960},                                    // bytes are truncated, bits are not
        {2592, 1944, 32, 666666, 666666, 20'155'392, 2'418'647'040, 2'418'647'040}, // beyond 31 bits
        {10, 10, 8, 0, 0, 100, ULONG(8'000'000'000), ULONG(8'000'000'000)},         // an interval of 0 counts as 1
    };
    for (const Case &c : cases) {
        KS_DATARANGE_VIDEO range;
        BuildVideoRange(kSubtypeY800, c.width, c.height, c.bits, c.defaultInterval, c.minimumInterval, 2'000'000,
                        range);
        EXPECT_EQ(range.DataRange.SampleSize, c.imageSize);
        EXPECT_EQ(static_cast<ULONG>(range.ConfigCaps.MinBitsPerSecond), c.bitsPerSecond);
        EXPECT_EQ(range.ConfigCaps.MaxBitsPerSecond, range.ConfigCaps.MinBitsPerSecond);
        EXPECT_EQ(range.VideoInfoHeader.dwBitRate, c.bitRate);
        EXPECT_EQ(range.VideoInfoHeader.bmiHeader.biCompression, 0x30303859u);
        EXPECT_EQ(range.VideoInfoHeader.AvgTimePerFrame, std::max(c.defaultInterval, 1ll));
    }
    KS_VIDEOINFOHEADER sensor; // always counts 30 frames a second
    BuildSensorHeader(kSubtypeBy8, 640, 480, 8, 1'000'000, sensor);
    EXPECT_EQ(sensor.dwBitRate, 73'728'000u);
    EXPECT_EQ(sensor.rcTarget.right, 0);
    EXPECT_EQ(sensor.bmiHeader.biSizeImage, 307200u);
}

TEST(VideoFormat, ADerivedRecordKeepsIndexesLimitsAndSteps) {
    FormatRecord source{.formatIndex = 3, .frameIndex = 2};
    BuildVideoRange(kSubtypeBy8, 640, 480, 8, 333333, 166666, 666666, source.range);
    source.range.ConfigCaps.MinOutputSize = {64, 48};
    source.range.ConfigCaps.OutputGranularityX = 16;
    FormatRecord derived;
    DeriveFormatRecord(derived, source, kSubtypeRgb32, 32);
    EXPECT_EQ(derived.formatIndex, 3u);
    EXPECT_EQ(derived.frameIndex, 2u);
    const KS_VIDEO_STREAM_CONFIG_CAPS &caps = derived.range.ConfigCaps;
    EXPECT_TRUE(caps.MinOutputSize.cx == 64 && caps.MaxOutputSize.cx == 640 && caps.InputSize.cy == 480);
    EXPECT_TRUE(caps.OutputGranularityX == 16 && caps.OutputGranularityY == 1 && caps.CropAlignX == 1);
    EXPECT_TRUE(caps.MinFrameInterval == 166666 && caps.MaxFrameInterval == 666666);
    EXPECT_TRUE(derived.range.bFixedSizeSamples == 1 && derived.range.bTemporalCompression == 1);
    EXPECT_EQ(derived.range.VideoInfoHeader.rcTarget.bottom, 480);
    EXPECT_EQ(derived.range.VideoInfoHeader.bmiHeader.biSizeImage, 640u * 480 * 4);
    EXPECT_EQ(derived.range.VideoInfoHeader.bmiHeader.biCompression, 0u);
}

TEST(VideoFormat, MatchesByFormatSizeStepsAndRectangles) {
    KS_DATARANGE_VIDEO range;
    BuildVideoRange(kSubtypeRgb24, 640, 480, 24, 333333, 333333, 333333, range);
    range.ConfigCaps.MinOutputSize = {320, 240};
    range.ConfigCaps.OutputGranularityX = 16;
    range.ConfigCaps.OutputGranularityY = 8;
    struct Case {
        void (*change)(KS_VIDEOINFOHEADER &);
        bool matches;
    };
    const Case cases[] = {
        {[](auto &) {}, true},
        {[](auto &f) { f.bmiHeader.biHeight = -480; }, true},
        {[](auto &f) { f.bmiHeader.biWidth = 336; }, true},
        {[](auto &f) { f.bmiHeader.biWidth = 328; }, false},
        {[](auto &f) { f.bmiHeader.biWidth = 656; }, false},
        {[](auto &f) { f.bmiHeader.biWidth = 304; }, false},
        {[](auto &f) { f.bmiHeader.biHeight = 244; }, false},
        {[](auto &f) { f.bmiHeader.biHeight = static_cast<LONG>(0x80000000); }, false},
        {[](auto &f) { f.bmiHeader.biBitCount = 32; }, false},
        {[](auto &f) { f.bmiHeader.biCompression = 1; }, false},
        {[](auto &f) { f.rcTarget.right = 1; }, false},
        {[](auto &f) { f.rcSource = f.rcTarget = {}; }, true},
        {[](auto &f) { f.AvgTimePerFrame = 1; }, true},
    };
    for (const Case &c : cases) {
        KS_VIDEOINFOHEADER format = range.VideoInfoHeader;
        c.change(format);
        EXPECT_EQ(FormatMatchesRange(format, range), c.matches) << &c - cases;
    }
}

} // namespace
} // namespace uvc
