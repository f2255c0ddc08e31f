#include "tests/host/cameras/camera_harness.h"

#include <atomic>
#include <thread>

namespace host::cameras {
namespace {

using usb::Ticks;
using usb::TransferStatus;

TEST(Stream, HeadersAndPayloadSizes) {
    const struct {
        const char *options;
        std::size_t header;
        std::uint8_t info; // without FID and EOF
        std::size_t payloads;
        std::size_t last;
    } kRows[] = {
        // 320 x 240 Y800: 76800 bytes
        {"header=2,payload=frame", 2, 0x80, 1, 76802},
        {"header=6,payload=frame", 6, 0x84, 1, 76806},
        {"header=12,payload=frame", 12, 0x8C, 1, 76812},
        {"header=12,payload=4108", 12, 0x8C, 19, 12 + 76800 - 18 * 4096},
        {"header=2,payload=38402", 2, 0x80, 2, 38402},
        {"header=2,payload=1000000", 2, 0x80, 1, 76802},
    };
    for (const auto &row : kRows) {
        const auto camera = Make(std::string("sim:generic,") + row.options);
        ASSERT_TRUE(Configure(*camera));
        ASSERT_TRUE(Commit(*camera, 2, 2, 333333));
        const std::size_t size = camera->CommittedFormat().maxPayloadSize;
        bool fid = false;
        for (int frame = 0; frame < 2; ++frame) {
            for (std::size_t i = 0; i < row.payloads; ++i) {
                const Payload payload = ReadPayload(*camera, size, 333333 * frame);
                ASSERT_TRUE(payload.Ok()) << row.options;
                EXPECT_EQ(payload.bytes[0], row.header);
                EXPECT_EQ(payload.bytes[1] & 0xFC, row.info);
                EXPECT_EQ(payload.bytes.size(), i + 1 == row.payloads ? row.last : size) << row.options;
                EXPECT_EQ(payload.EndOfFrame(), i + 1 == row.payloads) << row.options;
                if (frame == 0 && i == 0)
                    fid = payload.Fid();
                EXPECT_EQ(payload.Fid(), fid != (frame == 1));
                if (row.header == 12) {
                    EXPECT_EQ(Little(payload.bytes, 2, 4), 333333u * static_cast<unsigned>(frame));
                }
            }
        }
    }
}

TEST(Stream, CanLeaveOutEofAndKeepFid) {
    const auto camera = Make("sim:generic,eof=off,fid=stuck,payload=frame");
    ASSERT_TRUE(Configure(*camera));
    for (int frame = 0; frame < 3; ++frame)
        EXPECT_EQ(ReadPayload(*camera, 1 << 20, 333333 * frame).bytes.at(1) & 3, 0);
}

// 76800 bytes in payloads of 40472: the second is 36352 = 71 x 512 long, so that only an empty packet can end it.
TEST(Stream, EndsAPayloadOfWholePacketsByAnEmptyOne) {
    const auto camera = Make("sim:generic,payload=40472");
    ASSERT_TRUE(Configure(*camera));
    ASSERT_TRUE(Commit(*camera, 2, 2, 333333));
    EXPECT_EQ(ReadPayload(*camera, 512, 0).transfers, 80u);
    const Payload last = ReadPayload(*camera, 512, 0);
    EXPECT_EQ(last.bytes.size(), 36352u);
    EXPECT_EQ(last.transfers, 72u);
    EXPECT_EQ(last.result.length, 0u);
    EXPECT_EQ(ReadPayload(*camera, 512, 0).result.status, TransferStatus::NotYet);

    ReadPayload(*camera, 65536, 333333);
    EXPECT_EQ(ReadPayload(*camera, 65536, 333333).transfers, 1u) << "a longer buffer sees the short transfer itself";
}

TEST(Stream, BabblesIntoABufferThatCutsAPacket) {
    const auto camera = Make("sim:generic");
    ASSERT_TRUE(Configure(*camera));
    EXPECT_EQ(ReadPayload(*camera, 1000, 0).result.status, TransferStatus::Babble);
    camera->ResetEndpoint(0x81);
    EXPECT_EQ(ReadFrame(*camera, 333333), camera->ExpectedFrame(1, 1, 1));
}

TEST(Stream, KeepsTheCommittedPace) {
    const auto camera = Make("sim:generic,payload=frame,mark=on");
    ASSERT_TRUE(Configure(*camera));
    ASSERT_TRUE(Commit(*camera, 2, 2, 400000));
    constexpr Ticks kStart = 5'000'000;
    const struct {
        Ticks at;
        int number;            // of the frame that comes; -1: none yet
        std::uint64_t dropped; // in all
    } kRows[] = {
        {0, 0, 0},       {1, -1, 0},      {399999, -1, 0},  {400000, 1, 0},  {1199999, 2, 0},
        {1200000, 3, 0}, {3200000, 8, 4}, {3599999, -1, 4}, {3600001, 9, 4},
    };
    for (const auto &row : kRows) {
        const Payload payload = ReadPayload(*camera, 1 << 20, kStart + row.at);
        ASSERT_EQ(payload.Ok(), row.number >= 0) << row.at;
        EXPECT_EQ(camera->Counters().framesDropped, row.dropped) << row.at;
        if (row.number >= 0) {
            EXPECT_EQ(Bytes(payload.bytes.begin() + 12, payload.bytes.end()),
                      camera->ExpectedFrame(2, 2, static_cast<std::uint64_t>(row.number)))
                << row.at;
        } else {
            EXPECT_EQ(payload.result.notBefore, kStart + (row.at / 400000 + 1) * 400000) << row.at;
        }
    }
    EXPECT_EQ(camera->Counters().framesStarted, 6u);
}

TEST(Stream, FreeRunsOnCredits) {
    const auto camera = Make("sim:8202,mark=on");
    std::atomic<int> wakes = 0;
    camera->SetWake([&wakes] { ++wakes; });
    ASSERT_TRUE(Configure(*camera));
    camera->SetFreeRun(true);
    wakes = 0;
    EXPECT_EQ(ReadFrame(*camera, 100), camera->ExpectedFrame(1, 1, 0));
    EXPECT_EQ(ReadFrame(*camera, 100), camera->ExpectedFrame(1, 1, 1));
    const Payload none = ReadPayload(*camera, 1 << 20, 101);
    EXPECT_EQ(none.result.status, TransferStatus::NotYet);
    EXPECT_EQ(none.result.notBefore, 100 + 2'500'000);

    std::thread([&camera] { camera->GrantFrame(); }).join();
    EXPECT_EQ(wakes, 1);
    EXPECT_EQ(ReadFrame(*camera, 102), camera->ExpectedFrame(1, 1, 2));
    EXPECT_TRUE(ReadFrame(*camera, 102 + 2'499'999).empty());
    EXPECT_EQ(ReadFrame(*camera, 102 + 2'500'000), camera->ExpectedFrame(1, 1, 3)) << "a credit counts as lost";
    EXPECT_TRUE(ReadFrame(*camera, 102 + 2'500'001).empty());
    EXPECT_EQ(camera->Counters().framesDropped, 0u);

    // Back to the interval of 333333, counted from the last frame.
    camera->SetFreeRun(false);
    const Ticks last = 102 + 2'500'000;
    EXPECT_TRUE(ReadFrame(*camera, last + 333332).empty());
    EXPECT_EQ(ReadFrame(*camera, last + 333333), camera->ExpectedFrame(1, 1, 4));
}

TEST(Stream, ResetOfThePipeForgetsHalfAFrame) {
    const auto camera = Make("sim:generic,mark=on");
    ASSERT_TRUE(Configure(*camera));
    camera->SetFreeRun(true);
    const Payload first = ReadPayload(*camera, 32768, 0);
    Bytes part(512);
    camera->BulkIn(0x81, part, 0);
    camera->ResetEndpoint(0x81);
    EXPECT_EQ(camera->Counters().framesAbandoned, 1u);
    const Payload next = ReadPayload(*camera, 32768, 0);
    EXPECT_EQ(next.bytes[0], 12);
    EXPECT_NE(next.Fid(), first.Fid());
    EXPECT_TRUE(std::equal(next.bytes.begin() + 12, next.bytes.end(), camera->ExpectedFrame(1, 1, 1).begin()));
    // Both credits are back: what the host held before the reset is gone.
    camera->ResetEndpoint(0x81);
    EXPECT_FALSE(ReadFrame(*camera, 0).empty());
    EXPECT_FALSE(ReadFrame(*camera, 0).empty());
    EXPECT_TRUE(ReadFrame(*camera, 0).empty());
}

// A host that finds the camera in the state it wants neither probes nor commits.
TEST(Stream, StreamsTheProbedStateWithoutACommit) {
    const auto camera = Make("sim:8201");
    ASSERT_TRUE(Configure(*camera));
    EXPECT_EQ(ReadFrame(*camera, 0), camera->ExpectedFrame(1, 1, 0)) << "the default";
    ASSERT_TRUE(SetProbe(*camera, Block(1, 2, 125000)));
    EXPECT_EQ(ReadFrame(*camera, 333333), camera->ExpectedFrame(1, 1, 1)) << "a running stream goes on";
    camera->ResetEndpoint(0x81);
    EXPECT_EQ(ReadFrame(*camera, 800000), camera->ExpectedFrame(1, 2, 0));
    EXPECT_EQ(camera->CommittedFormat().interval, 125000u);
    EXPECT_EQ(camera->Counters().commits, 0u);
}

TEST(Stream, ServesTestsFromOtherThreads) {
    const auto camera = Make("sim:8202,noise=2");
    ASSERT_TRUE(Configure(*camera));
    ASSERT_TRUE(Commit(*camera, 1, 2, 62500));
    camera->SetFreeRun(true);
    std::atomic<bool> stop = false;
    std::thread tester([&] {
        while (!stop) {
            camera->GrantFrame();
            camera->ExpectedFrame(1, 2, 1);
            camera->Counters();
            camera->ControlLog();
        }
    });
    for (std::uint64_t number = 0, tries = 0; number < 20 && tries < 1'000'000; ++tries) {
        const Bytes frame = ReadFrame(*camera, 0);
        if (frame.empty()) {
            std::this_thread::yield();
            continue;
        }
        EXPECT_TRUE(frame == camera->ExpectedFrame(1, 2, number)) << number;
        ++number;
    }
    stop = true;
    tester.join();
    EXPECT_GE(camera->Counters().framesStarted, 20u);
}

} // namespace
} // namespace host::cameras
