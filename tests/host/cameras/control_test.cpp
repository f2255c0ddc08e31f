#include "tests/host/cameras/camera_harness.h"

namespace host::cameras {
namespace {

constexpr std::uint8_t kCur = 0x81, kMin = 0x82, kMax = 0x83, kRes = 0x84, kLen = 0x85, kInfo = 0x86, kDef = 0x87;

std::optional<Bytes> Ask(SimulatedCamera &camera, std::uint8_t request, std::uint8_t entity, std::uint8_t selector,
                         std::uint16_t length) {
    return Get(camera, 0xA1, request, static_cast<std::uint16_t>(selector << 8),
               static_cast<std::uint16_t>(entity << 8), length);
}

bool Tell(SimulatedCamera &camera, std::uint8_t entity, std::uint8_t selector, Bytes data) {
    return Set(camera, 0x21, 0x01, static_cast<std::uint16_t>(selector << 8), static_cast<std::uint16_t>(entity << 8),
               std::move(data));
}

TEST(Negotiation, SettlesOnWhatThereIs) {
    // 8201: format 1 with frames 1 (640x480), 2 (320x240) and 3 (1280x960).
    const struct {
        std::uint8_t format, frame;
        std::uint32_t interval;
        std::uint8_t settledFrame;
        std::uint32_t settledInterval, frameSize;
    } kRows[] = {
        {1, 1, 333333, 1, 333333, 307200},       {1, 2, 333333, 2, 333333, 76800},   {1, 2, 1, 2, 62500, 76800},
        {1, 3, 0xFFFFFFFF, 3, 2000000, 1228800}, {1, 3, 149073, 3, 131578, 1228800}, {1, 3, 149200, 3, 166666, 1228800},
        {1, 3, 149122, 3, 131578, 1228800},      {9, 200, 0, 3, 333333, 1228800},    {0, 0, 333333, 1, 333333, 307200},
    };
    const auto camera = Make("sim:8201");
    ASSERT_TRUE(Configure(*camera));
    for (const auto &row : kRows) {
        ASSERT_TRUE(SetProbe(*camera, Block(row.format, row.frame, row.interval)));
        const Bytes probe = GetProbe(*camera);
        ASSERT_EQ(probe.size(), 34u);
        EXPECT_EQ(Little(probe, 0, 2), 1u) << "the hint comes back";
        EXPECT_EQ(probe[2], 1);
        EXPECT_EQ(probe[3], row.settledFrame) << row.interval;
        EXPECT_EQ(Little(probe, 4, 4), row.settledInterval) << row.interval;
        EXPECT_EQ(Little(probe, 18, 4), row.frameSize);
        EXPECT_EQ(Little(probe, 22, 4), 49152u);
        EXPECT_EQ(Little(probe, 26, 4), 10'000'000u);
        EXPECT_EQ((Bytes{probe[30], probe[31], probe[32], probe[33]}), (Bytes{3, 1, 1, 1}));
    }
    EXPECT_EQ(Little(GetProbe(*camera, kMin), 4, 4), 114942u);
    EXPECT_EQ(Little(GetProbe(*camera, kMax), 4, 4), 2000000u);
    EXPECT_EQ(Get(*camera, 0xA1, kLen, 0x0100, 1, 2), (Bytes{34, 0}));
    EXPECT_EQ(Get(*camera, 0xA1, kInfo, 0x0200, 1, 1), Bytes{3});
    EXPECT_FALSE(SetProbe(*camera, Bytes(25))) << "too short";
    EXPECT_TRUE(SetProbe(*camera, Bytes(26)));
    EXPECT_FALSE(Get(*camera, 0xA1, kCur, 0x0300, 1, 34)) << "no still images";
    EXPECT_FALSE(Set(*camera, 0x21, 0x01, 0x0200, 1, Block(1, 7, 333333))) << "commits only what it has";
}

TEST(Negotiation, RoundsAContinuousIntervalToItsStep) {
    const auto camera = Make("sim:8207");
    ASSERT_TRUE(Configure(*camera));
    const std::pair<std::uint32_t, std::uint32_t> kRows[] = {{333333, 333333}, {333338, 333343}, {333337, 333333},
                                                             {1, 333333},      {500006, 500003}, {4000000, 2000000}};
    for (const auto &[wanted, settled] : kRows) {
        ASSERT_TRUE(SetProbe(*camera, Block(1, 1, wanted)));
        EXPECT_EQ(Little(GetProbe(*camera), 4, 4), settled) << wanted;
    }
}

TEST(Negotiation, SecondLookShowsTheCommittedState) {
    const auto camera = Make("sim:8101");
    ASSERT_TRUE(Configure(*camera));
    const Bytes before = GetProbe(*camera);
    EXPECT_EQ(before[2], 1);
    EXPECT_EQ(before[3], 1);
    ASSERT_TRUE(Commit(*camera, 3, 2, 666666));
    EXPECT_EQ(camera->Counters().commits, 1u);
    const Bytes probe = GetProbe(*camera);
    EXPECT_EQ(probe, Get(*camera, 0xA1, kCur, 0x0200, 1, 34));
    EXPECT_EQ(Bytes(probe.begin() + 2, probe.begin() + 8), (Bytes{3, 2, 0x2A, 0x2C, 0x0A, 0}));
    EXPECT_EQ(GetProbe(*camera, kDef), before);
    camera->ResetPort();
    ASSERT_TRUE(Configure(*camera));
    EXPECT_EQ(GetProbe(*camera), before);
}

// Entities: 1 camera terminal, 2 processing unit, 3 extension unit.
TEST(Controls, AnswerWithTheirRange) {
    const struct {
        const char *camera;
        std::uint8_t entity, selector;
        Bytes minimum, maximum, usual;
    } kRows[] = {
        {"sim:generic", 1, 4, {1, 0, 0, 0}, {0x20, 0x4E, 0, 0}, {0x4D, 1, 0, 0}},
        {"sim:generic", 1, 6, {0, 0}, {0xE8, 3}, {0xF4, 1}},
        {"sim:generic", 2, 6, {0x30, 0xF8}, {0xD0, 7}, {0, 0}},
        {"sim:generic", 2, 12, {0, 0, 0, 0}, {0xFF, 3, 0xFF, 3}, {0, 1, 0, 1}},
        {"sim:8101", 3, 4, {0, 0, 0, 0}, {0xFF, 0, 0, 0}, {0x80, 0, 0, 0}},
        {"sim:8102", 2, 2, {0x01, 0xFF}, {0xFF, 0}, {0xF0, 0xFF}},
        {"sim:8204", 1, 4, {1, 0, 0, 0}, {0x88, 0x13, 0, 0}, {0x4D, 1, 0, 0}},
    };
    for (const auto &row : kRows) {
        const auto camera = Make(row.camera);
        ASSERT_TRUE(Configure(*camera));
        const auto size = static_cast<std::uint16_t>(row.minimum.size());
        const std::string what =
            std::string(row.camera) + " " + std::to_string(row.entity) + "." + std::to_string(row.selector);
        EXPECT_EQ(Ask(*camera, kLen, row.entity, row.selector, 2), (Bytes{static_cast<std::uint8_t>(size), 0})) << what;
        EXPECT_EQ(Ask(*camera, kInfo, row.entity, row.selector, 1), Bytes{3}) << what;
        EXPECT_EQ(Ask(*camera, kMin, row.entity, row.selector, size), row.minimum) << what;
        EXPECT_EQ(Ask(*camera, kMax, row.entity, row.selector, size), row.maximum) << what;
        EXPECT_EQ(Ask(*camera, kDef, row.entity, row.selector, size), row.usual) << what;
        EXPECT_EQ(Ask(*camera, kCur, row.entity, row.selector, size), row.usual) << what;
        EXPECT_EQ(Ask(*camera, kRes, row.entity, row.selector, size)->at(0), 1) << what;
        for (const Bytes &value : {row.minimum, row.maximum}) {
            EXPECT_TRUE(Tell(*camera, row.entity, row.selector, value)) << what;
            EXPECT_EQ(Ask(*camera, kCur, row.entity, row.selector, size), value) << what;
        }
        // One beyond the maximum.
        Bytes beyond = row.maximum;
        for (std::size_t i = 0; i < beyond.size() && ++beyond[i] == 0; ++i) {
        }
        EXPECT_FALSE(Tell(*camera, row.entity, row.selector, beyond)) << what;
        EXPECT_EQ(Ask(*camera, kCur, row.entity, row.selector, size), row.maximum) << what;
        EXPECT_EQ(Ask(*camera, kCur, 0, 2, 1), Bytes{0}) << "the last request went well";
    }
}

// What a driver must be ready for in the models' answers.
TEST(Controls, LackWhatTheModelSays) {
    const struct {
        const char *camera;
        std::uint8_t entity, selector;
        std::uint8_t request;
        std::optional<Bytes> answer; // nothing: a stall
    } kRows[] = {
        {"sim:generic", 1, 9, kInfo, Bytes{1}},
        {"sim:generic", 2, 1, kMin, {}},
        {"sim:generic", 2, 1, kMax, Bytes{4, 0}},
        {"sim:generic", 2, 14, kDef, {}},
        {"sim:generic", 2, 14, kRes, Bytes{1, 0}},
        {"sim:generic", 2, 15, kRes, {}},
        {"sim:8102", 3, 12, kLen, Bytes{12, 0}},
        {"sim:8102", 3, 12, kCur, Bytes{0, 0}},
        {"sim:8102", 3, 13, kLen, Bytes{0, 0}},
        {"sim:8102,stall=3:4,stall=1:4", 3, 4, kInfo, {}},
        {"sim:8102,stall=3:4,stall=1:4", 3, 4, kCur, {}},
        {"sim:8102,stall=3:4,stall=1:4", 1, 4, kCur, {}},
        {"sim:8102,stall=3:4,stall=1:4", 3, 4, kMax, Bytes{0xFF, 0, 0, 0}},
        {"sim:8102,stall=3:4,stall=1:4", 2, 4, kCur, Bytes{64, 0}},
    };
    for (const auto &row : kRows) {
        const auto camera = Make(row.camera);
        ASSERT_TRUE(Configure(*camera));
        EXPECT_EQ(Ask(*camera, row.request, row.entity, row.selector, 12), row.answer)
            << row.camera << " " << int{row.entity} << "." << int{row.selector} << " " << int{row.request};
    }
    const auto generic = Make("sim:generic");
    ASSERT_TRUE(Configure(*generic));
    EXPECT_FALSE(Tell(*generic, 1, 9, {50, 0})) << "read-only";
    EXPECT_EQ(Ask(*generic, kCur, 0, 2, 1), Bytes{7});
    EXPECT_EQ(Ask(*generic, kCur, 1, 9, 2), (Bytes{28, 0}));
    std::string reason;
    for (const char *wrong : {"", "3", "3:", ":4", "0:4", "3:256", "3:4:5"})
        EXPECT_EQ(MakeCamera(std::string("sim:8102,stall=") + wrong, reason), nullptr) << wrong;
}

TEST(Controls, StallAndSayWhy) {
    const auto camera = Make("sim:generic");
    ASSERT_TRUE(Configure(*camera));
    const struct {
        std::uint8_t request, entity, selector;
        Bytes data; // SET_CUR's
        int reason;
    } kRows[] = {
        {kMin, 1, 2, {}, 7},  // a choice of bits has no minimum
        {kMax, 1, 8, {}, 7},  // nor a switch a maximum
        {kRes, 2, 16, {}, 7}, //
        {0x88, 1, 4, {}, 7},  // no such request
        {kCur, 1, 5, {}, 6},  // not announced
        {kCur, 3, 1, {}, 5},  // no extension unit
        {0x01, 2, 11, {2}, 4}, {0x01, 1, 2, {4}, 4}, {0x01, 1, 2, {3}, 4}, {0x01, 1, 4, {1}, 7}, // too short
    };
    for (const auto &row : kRows) {
        const bool accepted = row.request == 0x01 ? Tell(*camera, row.entity, row.selector, row.data)
                                                  : Ask(*camera, row.request, row.entity, row.selector, 4).has_value();
        EXPECT_FALSE(accepted) << int{row.request} << " " << int{row.entity} << "." << int{row.selector};
        EXPECT_EQ(Ask(*camera, kCur, 0, 2, 1), Bytes{static_cast<std::uint8_t>(row.reason)})
            << int{row.request} << " " << int{row.entity} << "." << int{row.selector};
    }
    EXPECT_TRUE(Tell(*camera, 1, 2, {2}));
    EXPECT_EQ(Ask(*camera, kRes, 1, 2, 1), Bytes{3});

    const std::vector<ControlRecord> log = camera->ControlLog();
    ASSERT_GE(log.size(), 3u);
    const ControlRecord &last = log.back();
    EXPECT_EQ(last.setup.request, kRes);
    EXPECT_EQ(last.data, Bytes{3});
    EXPECT_FALSE(log[1].accepted);
    EXPECT_EQ(camera->Counters().controlRequests, log.size());
}

} // namespace
} // namespace host::cameras
