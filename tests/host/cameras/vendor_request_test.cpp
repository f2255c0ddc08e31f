#include "tests/host/cameras/camera_harness.h"

#include <atomic>

namespace host::cameras {
namespace {

constexpr std::uint8_t kOut = 0x40, kIn = 0xC0;

TEST(VendorRequests, ByFamily) {
    const struct {
        std::uint8_t type, request;
        std::uint16_t value, index, length;
        const char *answer; // by generic, 8101, 8102, 8201: y or -
    } kRows[] = {
        {kIn, 0x16, 0, 0, 2, "-yyy"},  {kIn, 0x17, 0, 0, 2, "-yy-"},       {kOut, 0x19, 0, 0, 4, "-yy-"},
        {kOut, 0x19, 0, 0, 3, "----"}, {kIn, 0x20, 0, 0, 8, "--yy"},       {kOut, 0x21, 1, 2, 1, "---y"},
        {kOut, 0x21, 1, 2, 0, "----"}, {kOut, 0x22, 6, 0, 0, "---y"},      {kOut, 0x22, 9, 0, 0, "----"},
        {kIn, 0x16, 1, 0, 2, "----"},  {kIn, 0x16, 0, 1, 2, "----"},       {kOut, 0x16, 0, 0, 2, "----"},
        {0xC1, 0x16, 0, 0, 2, "----"}, {kOut, 0x42, 0xB0C4, 0, 0, "----"}, {kOut, 0x42, 0xB0C4, 0x2E71, 0, "-yy-"},
        {kIn, 0x18, 0, 0, 2, "----"},
    };
    const char *const kNames[] = {"sim:generic", "sim:8101", "sim:8102", "sim:8201"};
    for (std::size_t i = 0; i < 4; ++i) {
        const auto camera = Make(kNames[i]);
        ASSERT_TRUE(Configure(*camera));
        for (const auto &row : kRows) {
            const bool accepted =
                (row.type & 0x80) != 0
                    ? Get(*camera, row.type, row.request, row.value, row.index, row.length).has_value()
                    : Set(*camera, row.type, row.request, row.value, row.index, Bytes(row.length));
            EXPECT_EQ(accepted, row.answer[i] == 'y') << kNames[i] << " " << int{row.request} << " " << row.value;
        }
    }
}

TEST(VendorRequests, AnswerAndAct) {
    const auto description = [](const char *name) { return Get(*Make(name), 0xC0, 0x20, 0, 0, 8).value_or(Bytes{}); };
    EXPECT_EQ(description("sim:8102"), (Bytes{1, 0x09, 3, 0, 0x40, 6, 0xB0, 4}));
    EXPECT_EQ(description("sim:8202"), (Bytes{1, 0x2C, 0, 0, 0, 5, 0xC0, 3}));
    EXPECT_EQ(description("sim:8205"), (Bytes{1, 0x3F, 2, 0, 0x20, 0x0A, 0x98, 7}));
    EXPECT_EQ(Get(*Make("sim:8101"), 0xC0, 0x16, 0, 0, 2), (Bytes{0x23, 1}));
    EXPECT_EQ(Get(*Make("sim:8207"), 0xC0, 0x16, 0, 0, 2), (Bytes{0, 0}));

    // Code 7 at width 320 is an interval of 62500; it lasts until the next commit.
    const auto camera = Make("sim:8201");
    ASSERT_TRUE(Configure(*camera));
    ASSERT_TRUE(Commit(*camera, 1, 2, 333333));
    ASSERT_TRUE(Set(*camera, 0x40, 0x22, 7, 0));
    EXPECT_FALSE(ReadFrame(*camera, 0).empty());
    EXPECT_TRUE(ReadFrame(*camera, 62499).empty());
    EXPECT_FALSE(ReadFrame(*camera, 62500).empty());
    EXPECT_EQ(camera->CommittedFormat().interval, 62500u);
    EXPECT_EQ(Little(GetProbe(*camera), 4, 4), 333333u);
    // A host that starts again probes, finds nothing to commit, and resets the pipe.
    ASSERT_TRUE(SetProbe(*camera, Block(1, 2, 333332)));
    camera->ResetEndpoint(0x81);
    EXPECT_FALSE(ReadFrame(*camera, 1'000'000).empty());
    EXPECT_FALSE(ReadFrame(*camera, 1'062'500).empty());
    ASSERT_TRUE(Commit(*camera, 1, 2, 333333));
    EXPECT_EQ(camera->CommittedFormat().interval, 333333u);

    const auto restarted = Make("sim:8101");
    ASSERT_TRUE(Configure(*restarted));
    ReadFrame(*restarted, 0);
    EXPECT_EQ(Get(*restarted, 0xC0, 0x17, 0, 0, 2), (Bytes{1, 0}));
    ASSERT_TRUE(Set(*restarted, 0x40, 0x42, 0xB0C4, 0x2E71));
    EXPECT_EQ(Get(*restarted, 0x80, 8, 0, 0, 1), Bytes{0}) << "not configured";
    EXPECT_EQ(Get(*restarted, 0xC0, 0x17, 0, 0, 2), (Bytes{0, 0}));
}

Bytes ReadStore(SimulatedCamera &camera) {
    Bytes all;
    for (std::uint16_t offset = 0; offset < 16384; offset += 1024) {
        const Bytes part = Get(camera, kIn, 0x24, offset, 0, 1024).value_or(Bytes{});
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

TEST(VendorRequests, OfTheFeaturesStallAtTheirLimits) {
    const struct {
        std::uint8_t type, request;
        std::uint16_t value, index, length;
        const char *answer; // by 8201 (store, registers), 8203 (store), 8207 (neither), 8102: y or -
    } kRows[] = {
        {kOut, 0x23, 0, 0, 0, "yyy-"},        {kOut, 0x23, 1, 0, 0, "----"},        {kOut, 0x23, 0, 1, 0, "----"},
        {kOut, 0x23, 0, 0, 1, "----"},        {kIn, 0x23, 0, 0, 1, "----"},         {kIn, 0x24, 0, 0, 1, "yy--"},
        {kIn, 0x24, 0, 0, 1024, "yy--"},      {kIn, 0x24, 0, 0, 1025, "----"},      {kIn, 0x24, 0, 0, 0, "----"},
        {kIn, 0x24, 0, 1, 1, "----"},         {kIn, 0x24, 15360, 0, 1024, "yy--"},  {kIn, 0x24, 15361, 0, 1024, "----"},
        {kIn, 0x24, 16383, 0, 1, "yy--"},     {kIn, 0x24, 16384, 0, 1, "----"},     {kIn, 0x24, 0xFFFF, 0, 1, "----"},
        {kOut, 0x25, 15360, 0, 1024, "yy--"}, {kOut, 0x25, 15361, 0, 1024, "----"}, {kOut, 0x25, 0, 0, 0, "----"},
        {kOut, 0x25, 0, 0, 1025, "----"},     {kOut, 0x25, 16383, 0, 2, "----"},    {kOut, 0x25, 0, 1, 1, "----"},
        {kOut, 0x26, 0, 0, 0, "yy--"},        {kOut, 0x26, 1, 0, 0, "----"},        {kOut, 0x26, 0, 0, 1, "----"},
        {kIn, 0x27, 0, 15, 4, "y---"},        {kIn, 0x27, 0, 16, 4, "----"},        {kIn, 0x27, 1, 0, 4, "----"},
        {kOut, 0x28, 0, 15, 4, "y---"},       {kOut, 0x28, 0, 16, 4, "----"},       {kOut, 0x28, 0, 0, 3, "----"},
        {kOut, 0x28, 1, 0, 4, "----"},        {kOut, 0x29, 0, 0, 0, "----"},
    };
    const char *const kNames[] = {"sim:8201", "sim:8203", "sim:8207", "sim:8102"};
    for (std::size_t i = 0; i < 4; ++i) {
        const auto camera = Make(kNames[i]);
        ASSERT_TRUE(Configure(*camera));
        for (const auto &row : kRows) {
            const auto got = Get(*camera, row.type, row.request, row.value, row.index, row.length);
            EXPECT_EQ(got.has_value(), row.answer[i] == 'y')
                << kNames[i] << " " << int{row.request} << " " << row.value << " " << row.index << " " << row.length;
            if (got) {
                EXPECT_EQ(got->size(), row.length);
            }
        }
    }
}

// What the frames show and what the lists name must be the same pixels, at each binning.
TEST(UserData, IsShippedWithTheDefectsAsTheSensorShowsThem) {
    for (const char *name : {"sim:8205", "sim:8202"}) {
        const auto camera = Make(std::string(name) + ",defects=90,seed=4");
        const auto clean = Make(std::string(name) + ",seed=4");
        const Bytes store = ReadStore(*camera);
        EXPECT_EQ(Bytes(store.begin(), store.begin() + 8), (Bytes{'U', 'D', 'S', 'T', 1, 0, 3, 0}));
        std::size_t at = 16;
        for (int list = 0; list < 3; ++list) {
            const std::size_t binning = Little(store, at, 2);
            const std::size_t count = Little(store, at + 2, 2);
            at += 4;
            StreamFrame size;
            for (const StreamFrame &frame : camera->Function().formats[0].frames)
                if (camera->model().sensorWidth / frame.width == static_cast<int>(binning))
                    size = frame;
            const Bytes shown = camera->ExpectedFrame(1, size.index, 0);
            const Bytes wanted = clean->ExpectedFrame(1, size.index, 0);
            std::vector<bool> listed(shown.size());
            for (std::size_t i = 0; i < count; ++i, at += 4) {
                const std::size_t x = Little(store, at, 2);
                const std::size_t y = Little(store, at + 2, 2);
                if (x >= size.width || y >= size.height)
                    continue;
                EXPECT_FALSE(listed[y * size.width + x]) << "named twice";
                listed[y * size.width + x] = true;
                EXPECT_TRUE(shown[y * size.width + x] == 0 || shown[y * size.width + x] == 255);
            }
            for (std::size_t i = 0; i < shown.size(); ++i) {
                if (!listed[i]) {
                    ASSERT_EQ(shown[i], wanted[i]) << name << " binning " << binning << " pixel " << i;
                }
            }
            EXPECT_GE(count, 80u);
            EXPECT_LE(count, 90u);
        }
        EXPECT_EQ(Little(store, 8, 4), at - 16) << "the length of all lists";
    }
    EXPECT_EQ(Make("sim:8202,defects=600")->UserData()[18] | Make("sim:8202,defects=600")->UserData()[19] << 8, 256);
    EXPECT_FALSE(Get(*Make("sim:8207,defects=5"), kIn, 0x24, 0, 0, 4));
}

TEST(Trigger, EachRequestMakesOneExposure) {
    const struct {
        const char *name;
        std::uint16_t entity, selector;
    } kRows[] = {{"sim:8202,mark=on,latency=0", 1, 17}, {"sim:8101,mark=on,latency=0", 3, 5}};
    for (const auto &row : kRows) {
        const auto camera = Make(row.name);
        std::atomic<int> wakes = 0;
        camera->SetWake([&wakes] { ++wakes; });
        ASSERT_TRUE(Configure(*camera));
        const auto control = [&](std::uint16_t selector, std::uint8_t value, usb::Ticks now) {
            Bytes data{value};
            const auto at = [](std::uint16_t number) { return static_cast<std::uint16_t>(number << 8); };
            return camera->Control({0x21, 1, at(selector), at(row.entity), 1}, data, now).status ==
                   usb::TransferStatus::Ok;
        };
        const auto pull = [&](usb::Ticks now) {
            return row.entity == 1 ? camera->Control({0x40, 0x23, 0, 0, 0}, {}, now).status == usb::TransferStatus::Ok
                                   : control(15, 1, now);
        };
        ASSERT_TRUE(pull(0));
        EXPECT_FALSE(ReadFrame(*camera, 0).empty());
        EXPECT_TRUE(ReadFrame(*camera, 1).empty()) << "without the external trigger nothing is triggered";

        ASSERT_TRUE(control(row.selector, 1, 1000));
        const usb::TransferResult none = ReadPayload(*camera, 1 << 20, 5'000'000).result;
        EXPECT_EQ(none.status, usb::TransferStatus::NotYet);
        EXPECT_EQ(none.notBefore, usb::kNever);
        wakes = 0;
        ASSERT_TRUE(pull(5'000'001));
        ASSERT_TRUE(pull(5'000'002));
        EXPECT_EQ(wakes, 2);
        for (std::uint64_t number : {1u, 2u})
            EXPECT_EQ(ReadFrame(*camera, 5'000'003), camera->ExpectedFrame(1, 1, number)) << row.name << number;
        EXPECT_TRUE(ReadFrame(*camera, 9'000'000).empty());
        EXPECT_EQ(camera->Counters().framesDropped, 0u) << "nothing was exposed in the meantime";

        // Off again: the sensor's own pace, from now on; a trigger that nobody took is forgotten.
        ASSERT_TRUE(pull(9'000'000));
        wakes = 0;
        ASSERT_TRUE(control(row.selector, 0, 9'100'000));
        EXPECT_EQ(wakes, 1);
        EXPECT_EQ(ReadFrame(*camera, 9'100'000), camera->ExpectedFrame(1, 1, 3));
        EXPECT_TRUE(ReadFrame(*camera, 9'100'001).empty());
        EXPECT_EQ(ReadFrame(*camera, 9'100'000 + 333'333), camera->ExpectedFrame(1, 1, 4));
        EXPECT_EQ(camera->Counters().framesDropped, 0u);
    }
}

} // namespace
} // namespace host::cameras
