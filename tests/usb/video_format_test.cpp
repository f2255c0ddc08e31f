#include "usb/video_format.h"

#include <gtest/gtest.h>

namespace uvc {
namespace {

TEST(VideoFormat, RatesFollowTheIntegerArithmetic) {
    struct Case {
        LONG width, height;
        USHORT bits;
        LONGLONG defaultInterval, minimumInterval;
        ULONG imageSize;
        LONG bitsPerSecond;
        ULONG bitRate;
    };
    const Case cases[] = {
        {640, 480, 8, 333333, 333333, 307200, 73'728'000, 73'728'000},
        {640, 480, 24, 400000, 200000, 921600, 368'640'000, 184'320'000},
        {3, 3, 4, 333333, 333333, 4, 1080, 960}, // bytes are truncated, bits are not
        // Beyond 32 bits the low half stays: 2592 x 1944 x 32 at 15 frames/s.
        {2592, 1944, 32, 666666, 666666, 20'155'392, static_cast<LONG>(2'418'647'040u), 2'418'647'040u},
        {10, 10, 8, 0, 0, 100, static_cast<LONG>(8'000'000'000u), static_cast<ULONG>(8'000'000'000)}, // 0 counts as 1
    };
    for (const Case &c : cases) {
        KS_DATARANGE_VIDEO range;
        BuildVideoRange(kSubtypeY800, c.width, c.height, c.bits, c.defaultInterval, c.minimumInterval, 2'000'000,
                        range);
        EXPECT_EQ(range.DataRange.SampleSize, c.imageSize);
        EXPECT_EQ(range.ConfigCaps.MinBitsPerSecond, c.bitsPerSecond) << c.width;
        EXPECT_EQ(range.ConfigCaps.MaxBitsPerSecond, c.bitsPerSecond);
        EXPECT_EQ(range.VideoInfoHeader.dwBitRate, c.bitRate) << c.width;
        EXPECT_EQ(range.VideoInfoHeader.bmiHeader.biSizeImage, c.imageSize);
        EXPECT_EQ(range.VideoInfoHeader.AvgTimePerFrame, std::max(c.defaultInterval, 1ll));
    }
}

TEST(VideoFormat, CompressionIsTheFourccExceptForRgb) {
    EXPECT_EQ(CompressionOf(kSubtypeRgb24), 0u);
    EXPECT_EQ(CompressionOf(kSubtypeRgb32), 0u);
    EXPECT_EQ(CompressionOf(kSubtypeY800), 0x30303859u);
    EXPECT_EQ(CompressionOf(kSubtypeBy8), 0x20385942u);
    EXPECT_EQ(CompressionOf(kSubtypeYuy2), 0x32595559u);
}

TEST(VideoFormat, ARangeIsOfOneSize) {
    KS_DATARANGE_VIDEO range;
    BuildVideoRange(kSubtypeRgb24, 320, 240, 24, 333333, 166666, 666666, range);
    EXPECT_EQ(range.DataRange.FormatSize, 296u);
    EXPECT_EQ(range.DataRange.Flags, 0u);
    EXPECT_EQ(range.bFixedSizeSamples, 1);
    EXPECT_EQ(range.bTemporalCompression, 1);
    const KS_VIDEO_STREAM_CONFIG_CAPS &caps = range.ConfigCaps;
    for (const SIZE &size :
         {caps.InputSize, caps.MinCroppingSize, caps.MaxCroppingSize, caps.MinOutputSize, caps.MaxOutputSize})
        EXPECT_TRUE(size.cx == 320 && size.cy == 240);
    for (int step : {caps.CropGranularityX, caps.CropGranularityY, caps.CropAlignX, caps.CropAlignY,
                     caps.OutputGranularityX, caps.OutputGranularityY})
        EXPECT_EQ(step, 1);
    EXPECT_EQ(caps.MinFrameInterval, 166666);
    EXPECT_EQ(caps.MaxFrameInterval, 666666);
    const KS_VIDEOINFOHEADER &header = range.VideoInfoHeader;
    EXPECT_TRUE(header.rcSource.right == 320 && header.rcTarget.bottom == 240);
    EXPECT_EQ(header.bmiHeader.biSize, 40u);
    EXPECT_EQ(header.bmiHeader.biPlanes, 1);
    EXPECT_EQ(header.bmiHeader.biHeight, 240);
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
    EXPECT_EQ(derived.range.ConfigCaps.MinOutputSize.cx, 64);
    EXPECT_EQ(derived.range.ConfigCaps.OutputGranularityX, 16);
    EXPECT_EQ(derived.range.ConfigCaps.InputSize.cx, 640);
    EXPECT_EQ(derived.range.ConfigCaps.MaxFrameInterval, 666666);
    EXPECT_EQ(derived.range.VideoInfoHeader.bmiHeader.biSizeImage, 640u * 480 * 4);
    EXPECT_EQ(derived.range.VideoInfoHeader.bmiHeader.biCompression, 0u);
}

TEST(VideoFormat, TheSensorHeaderCountsThirtyFramesASecond) {
    KS_VIDEOINFOHEADER header;
    BuildSensorHeader(kSubtypeBy8, 640, 480, 8, 1'000'000, header);
    EXPECT_EQ(header.dwBitRate, 73'728'000u);
    EXPECT_EQ(header.AvgTimePerFrame, 1'000'000);
    EXPECT_EQ(header.rcTarget.right, 0);
    EXPECT_EQ(header.bmiHeader.biSizeImage, 307200u);
}

TEST(VideoFormat, MatchesByFormatSizeStepsAndRectangles) {
    KS_DATARANGE_VIDEO range;
    BuildVideoRange(kSubtypeRgb32, 640, 480, 32, 333333, 333333, 333333, range);
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
        {[](auto &f) { f.bmiHeader.biHeight = 232; }, false},
        {[](auto &f) { f.bmiHeader.biHeight = static_cast<LONG>(0x80000000); }, false},
        {[](auto &f) { f.bmiHeader.biBitCount = 24; }, false},
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
