#include "tests/host/cameras/camera_harness.h"

#include <algorithm>

namespace host::cameras {
namespace {

// The extension unit of family C: 1 and 2 offsets, 3 binning.
std::uint32_t Value(SimulatedCamera &camera, std::uint8_t selector, std::uint8_t request = 0x81) {
    const std::uint16_t width = selector == 3 ? 1 : 2;
    return Little(Get(camera, 0xA1, request, static_cast<std::uint16_t>(selector << 8), 0x0300, width).value(), 0,
                  width);
}

bool SetValue(SimulatedCamera &camera, std::uint8_t selector, std::uint32_t value) {
    Bytes data{static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8)};
    data.resize(selector == 3 ? 1 : 2);
    return Set(camera, 0x21, 0x01, static_cast<std::uint16_t>(selector << 8), 0x0300, data);
}

TEST(Region, TakesOffsetsAndBinningThatFit) {
    // 8205: frames 1 (2592x1944), 2 (1296x972) and 3 (640x480); 8207: 1 (1600x1200) and 2 (800x600), no binning.
    const struct {
        const char *name;
        std::uint8_t frame;
        std::uint32_t binning; // to ask for; 0: leave it
        std::uint32_t x, y;
        std::uint32_t takenBinning, takenX, takenY, mostX, mostY;
    } kRows[] = {
        {"sim:8205", 1, 0, 0, 0, 1, 0, 0, 0, 0},
        {"sim:8205", 1, 4, 77, 77, 1, 0, 0, 0, 0}, // the whole sensor has no room
        {"sim:8205", 2, 0, 100, 50, 2, 0, 0, 0, 0},
        {"sim:8205", 2, 1, 101, 51, 1, 100, 50, 1296, 972},
        {"sim:8205", 2, 4, 0, 0, 2, 0, 0, 0, 0},
        {"sim:8205", 3, 0, 0xFFFF, 0xFFFF, 4, 32, 24, 32, 24},
        {"sim:8205", 3, 0, 31, 15, 4, 24, 8, 32, 24},
        {"sim:8205", 3, 2, 1311, 983, 2, 1308, 980, 1312, 984},
        {"sim:8205", 3, 1, 1951, 1463, 1, 1950, 1462, 1952, 1464},
        {"sim:8207", 1, 0, 500, 500, 1, 0, 0, 0, 0},
        {"sim:8207", 2, 0, 500, 333, 1, 500, 332, 800, 600},
    };
    for (const auto &row : kRows) {
        const auto camera = Make(row.name);
        ASSERT_TRUE(Configure(*camera));
        ASSERT_TRUE(Commit(*camera, 1, row.frame, 0));
        if (row.binning != 0) {
            ASSERT_TRUE(SetValue(*camera, 3, row.binning));
        }
        ASSERT_TRUE(SetValue(*camera, 1, row.x) && SetValue(*camera, 2, row.y));
        const std::string what =
            std::string(row.name) + " frame " + std::to_string(row.frame) + " at " + std::to_string(row.x);
        if (std::string_view(row.name) == "sim:8205") {
            EXPECT_EQ(Value(*camera, 3), row.takenBinning) << what;
        }
        EXPECT_EQ(Value(*camera, 1), row.takenX) << what;
        EXPECT_EQ(Value(*camera, 2), row.takenY) << what;
        EXPECT_EQ(Value(*camera, 1, 0x83), row.mostX) << what;
        EXPECT_EQ(Value(*camera, 2, 0x83), row.mostY) << what;
        EXPECT_EQ(Value(*camera, 1, 0x84), 2 * row.takenBinning) << what;
    }
    const auto camera = Make("sim:8205");
    ASSERT_TRUE(Configure(*camera));
    for (std::uint32_t wrong : {0u, 3u, 5u, 8u})
        EXPECT_FALSE(SetValue(*camera, 3, wrong)) << wrong;
    EXPECT_FALSE(Get(*Make("sim:8204"), 0xA1, 0x81, 0x0300, 0x0300, 1)) << "no such unit";
}

// A camera without offsets only tells its binning: that of the frame committed last.
TEST(Region, TellsWhatTheFrameSizeDecides) {
    const struct {
        const char *name;
        std::vector<std::uint32_t> binnings; // by frame index
    } kRows[] = {{"sim:8201", {2, 4, 1}}, {"sim:8202", {2, 4, 1}}, {"sim:8203", {1, 2}}, {"sim:8206", {1, 2}}};
    for (const auto &row : kRows) {
        const auto camera = Make(row.name);
        ASSERT_TRUE(Configure(*camera));
        EXPECT_EQ(Value(*camera, 3), row.binnings[0]) << row.name;
        EXPECT_EQ(Value(*camera, 3, 0x86), 1u) << "no bit for SET_CUR";
        for (std::uint8_t offset : {1, 2})
            EXPECT_FALSE(Get(*camera, 0xA1, 0x81, static_cast<std::uint16_t>(offset << 8), 0x0300, 2)) << row.name;
        for (std::size_t frame = row.binnings.size(); frame > 0; --frame) {
            ASSERT_TRUE(Commit(*camera, 1, static_cast<std::uint8_t>(frame), 0));
            for (std::uint32_t binning : {1u, 2u, 4u})
                EXPECT_FALSE(SetValue(*camera, 3, binning)) << row.name << " " << binning;
            EXPECT_EQ(Value(*camera, 3), row.binnings[frame - 1]) << row.name << " " << frame;
        }
    }
}

TEST(Region, OutlivesOnlyACommitThatLeavesItRoom) {
    const auto camera = Make("sim:8205");
    ASSERT_TRUE(Configure(*camera));
    ASSERT_TRUE(Commit(*camera, 1, 3, 0));
    ASSERT_TRUE(SetValue(*camera, 3, 1) && SetValue(*camera, 1, 700) && SetValue(*camera, 2, 10));
    ASSERT_TRUE(SetValue(*camera, 3, 2));
    EXPECT_EQ(Value(*camera, 1), 700u);
    EXPECT_EQ(Value(*camera, 2), 8u) << "to a multiple of 4";
    ReadFrame(*camera, 0);
    camera->ResetEndpoint(0x81);
    ReadFrame(*camera, 1'000'000);
    EXPECT_EQ(Value(*camera, 3), 2u) << "a stream that starts again without a commit";
    ASSERT_TRUE(Commit(*camera, 1, 3, 0));
    EXPECT_EQ(Value(*camera, 3), 4u);
    EXPECT_EQ(Value(*camera, 1), 32u);
    camera->ResetPort();
    ASSERT_TRUE(Configure(*camera));
    ASSERT_TRUE(Commit(*camera, 1, 3, 0));
    EXPECT_EQ(Value(*camera, 1), 0u);
}

// A frame at an offset is the same part of a frame of the whole sensor at that binning, pixel by pixel: so the colours,
// the defects and the blur are in their places, too.
TEST(Region, ShowsThatPartOfTheBinnedSensor) {
    for (const char *name : {"sim:8205,defects=300,sharp=480", "sim:8207,defects=300"}) {
        const auto camera = Make(name);
        const bool bins = std::string_view(name).starts_with("sim:8205");
        ASSERT_TRUE(Configure(*camera));
        const std::uint8_t small = bins ? 3 : 2;
        const std::uint32_t width = bins ? 640 : 800;
        for (std::uint32_t binning : {1u, 2u}) {
            if (!bins && binning > 1)
                continue;
            const Bytes whole = camera->ExpectedFrame(1, static_cast<std::uint8_t>(binning), 0);
            const std::uint32_t wholeWidth = camera->model().sensorWidth / binning;
            ASSERT_TRUE(Commit(*camera, 1, small, 0));
            ASSERT_TRUE((!bins || SetValue(*camera, 3, binning)) && SetValue(*camera, 1, 404) &&
                        SetValue(*camera, 2, 208));
            const Bytes part = ReadFrame(*camera, 0);
            EXPECT_EQ(part, camera->ExpectedFrame(1, small, 0));
            for (std::size_t y = 0; y < part.size() / width; ++y) {
                const auto *row = whole.data() + (y + 208 / binning) * wholeWidth + 404 / binning;
                ASSERT_TRUE(std::equal(row, row + width, part.data() + y * width))
                    << name << " " << binning << " " << y;
            }
        }
    }
}

TEST(Region, IsTheMiddleOfASensorWithoutOffsets) {
    const auto camera = Make("sim:8102"); // frames 2 and 3 are 800x600 and 640x480, both binned by 2
    const Bytes whole = camera->ExpectedFrame(1, 2, 0);
    const Bytes part = camera->ExpectedFrame(1, 3, 0);
    for (std::size_t y = 0; y < 480; ++y)
        ASSERT_TRUE(std::equal(part.data() + y * 640, part.data() + (y + 1) * 640, whole.data() + (y + 60) * 800 + 80));
}

TEST(Region, ShowsAfterTheLatency) {
    const auto camera = Make("sim:8207,latency=2");
    ASSERT_TRUE(Configure(*camera));
    ASSERT_TRUE(Commit(*camera, 1, 2, 333333));
    const Bytes before = ReadFrame(*camera, 0);
    ASSERT_TRUE(SetValue(*camera, 1, 100));
    for (int i = 1; i <= 4; ++i) {
        const Bytes frame = ReadFrame(*camera, 333333 * i);
        EXPECT_EQ(frame == before, i <= 2) << i;
        EXPECT_EQ(frame, camera->ExpectedFrame(1, 2, static_cast<std::uint64_t>(i))) << i;
    }
}

} // namespace
} // namespace host::cameras
