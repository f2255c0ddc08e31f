#include "tests/usb/stream_parts.h"
#include "usb/frame_assembly.h"
#include "usb/payload_header.h"

#include <optional>

namespace uvc::usb_test {
namespace {

constexpr bool kEnd = true;

// A payload whose bytes carry its ordinal in the script, from 1; without a header from 101, which is none by chance.
struct Piece {
    UCHAR fid;
    bool end;
    ULONG length;
    UCHAR headerLength = 2; // 0: none
    NTSTATUS status = STATUS_SUCCESS;
    ULONG room = 2; // of the buffer behind the payload
};

struct Outcome {
    ULONG delivered, dropped;
    UCHAR lastFid;
    ULONG noBuffer = 0;
};
struct Case {
    const char *name;
    std::vector<Piece> script;
    std::vector<std::string> events;
    Outcome outcome;
    bool discard = true;
};

class FrameAssemblyTest : public testing::Test {
  protected:
    template <class Camera>
    void Prepare(bool collecting, bool large, std::size_t frames = 3, NTSTATUS created = STATUS_SUCCESS) {
        sink.emplace(frames);
        camera = NewCamera<Camera>(nullptr, *sink);
        StreamState &stream = camera->stream;
        stream.collecting = collecting;
        stream.largePayloads = large;
        BuildSensorHeader(kSubtypeBy8, kWidth, kHeight, 8, 333333, stream.sensor);
        BuildSensorHeader(kSubtypeY800, kWidth, kHeight, 8, 333333, stream.output);
        if (collecting)
            EXPECT_EQ(FramePoolCreate(stream.pool, kFrameSize), STATUS_SUCCESS);
        EXPECT_EQ(camera->CreateWorker(), created);
        // A closed engine, which leaves the transfers that come back to it idle.
        engine = BulkEngineCreate(*camera, nullptr, nullptr, nullptr, OnBulkPayload, false);
        transfers.clear();
    }
    void Finish() {
        WorkerDestroy(*camera);
        camera->DropFrame(camera->stream.currentFrame, true);
        FramePoolDestroy(camera->stream.pool);
        BulkEngineDestroy(engine);
        for (auto &transfer : transfers)
            IoFreeIrp(transfer->irp);
        EXPECT_TRUE(sink->HasAllFrames());
        camera.reset();
    }

    NTSTATUS Feed(const Piece &piece, UCHAR ordinal) {
        auto transfer = std::make_unique<Transfer>();
        transfer->engine = engine;
        transfer->irp = IoAllocateIrp(1, FALSE);
        KeInitializeEvent(&transfer->done, NotificationEvent, FALSE);
        const ULONG length = piece.headerLength + piece.length;
        transfer->bytes.assign(length + piece.room,
                               piece.headerLength != 0 ? ordinal : static_cast<UCHAR>(100 + ordinal));
        transfer->buffer = transfer->bytes.data();
        transfer->size = length + piece.room;
        if (piece.headerLength > 0)
            transfer->buffer[0] = piece.headerLength;
        if (piece.headerLength > 1)
            transfer->buffer[1] = static_cast<UCHAR>(piece.fid | (piece.end ? 2 : 0) | 0xC0); // other bits do not count
        transfers.push_back(std::move(transfer));
        return OnBulkPayload(*engine, *transfers.back(), *camera, transfers.back()->buffer, length);
    }
    template <class Camera> void Run(const Case &c, bool collecting = false, bool large = false, int frames = 3) {
        SCOPED_TRACE(c.name);
        Prepare<Camera>(collecting, large, frames);
        camera->parameters.discardIncomplete = c.discard;
        UCHAR ordinal = 0;
        for (const Piece &piece : c.script) {
            EXPECT_EQ(Feed(piece, ++ordinal), piece.status) << "piece " << int{ordinal};
            // What the worker refuses is another test's matter.
            while (camera->stream.workerMode &&
                   (SharedLoad(camera->stream.worker.queued) != 0 || !sink->HasAllFrames()))
                SleepMs(1);
        }
        EXPECT_EQ(camera->stream.lastFid, c.outcome.lastFid);
        WorkerDestroy(*camera);
        EXPECT_EQ(sink->Events(), c.events);
        EXPECT_EQ(camera->stream.delivered, c.outcome.delivered);
        EXPECT_EQ(camera->stream.dropped, c.outcome.dropped);
        EXPECT_EQ(camera->stream.noBuffer, c.outcome.noBuffer);
        Finish();
    }

    struct Transfer : BulkTransfer {
        Transfer() : BulkTransfer{} {}
        std::vector<UCHAR> bytes;
    };
    host::Runtime runtime;
    std::optional<RecordingSink> sink;
    std::unique_ptr<UvcCamera, CameraDeleter> camera;
    BulkStreamEngine *engine = nullptr;
    std::vector<std::unique_ptr<Transfer>> transfers;
};

TEST(PayloadHeader, IsOfThreeLengthsAndWhole) {
    for (UCHAR header = 0; header < 14; ++header) {
        for (std::size_t total = 0; total < 16; ++total) {
            const std::vector<UCHAR> bytes(total, header); // the second byte, too: its low bits are FID and end
            const Payload payload = ParsePayload(bytes);
            const bool valid = (header == 2 || header == 6 || header == 12) && total >= header;
            EXPECT_EQ(payload.valid, valid) << int{header} << " of " << total;
            EXPECT_EQ(payload.data.size(), valid ? total - header : 0);
            EXPECT_EQ(payload.endOfFrame, valid && (header & 2) != 0);
        }
    }
}

// Between frames and inside them, with and without an end behind a complete frame.
std::vector<Piece> HeadersWithoutData() {
    return {{0, 0, 0}, {0, 0, 2000}, {0, 0, 0}, {0, kEnd, 2096}, {0, 0, 0}, {0, kEnd, 0}, {1, 0, 0}, {1, kEnd, 4096}};
}

TEST_F(FrameAssemblyTest, Direct) {
    const Case cases[] = {
        {"three payloads", {{0, 0, 1000}, {0, 0, 1000, 6}, {0, kEnd, 2096, 12}}, {"1*1000 2*1000 3*2096"}, {1, 0, 1}},
        {"the first FID is taken as it is", {{1, kEnd, 4096}, {0, kEnd, 4096}}, {"1*4096", "2*4096"}, {2, 0, 1}},
        {"nothing ended yet", {{1, 0, 4095}}, {}, {0, 0, 1}},
        {"too long is cut", {{0, kEnd, 5000}}, {"1*4096"}, {1, 0, 1}},
        {"a short frame's buffer is filled anew", {{0, kEnd, 4095}, {1, kEnd, 4096}}, {"lost", "2*4096"}, {1, 1, 0}},
        {"or delivered", {{0, kEnd, 4095}, {1, kEnd, 4096}}, {"1*4095 0*1", "2*4096"}, {2, 0, 0}, false},
        {"full without end is dropped, its rest ignored",
         {{0, 0, 4096}, {0, 0, 100}, {0, kEnd, 10}, {1, kEnd, 4096}},
         {"lost", "4*4096"},
         {1, 1, 0}},
        {"whatever the setting", {{0, 0, 4096}}, {"lost"}, {0, 1, 1}, false},
        {"FID changes end short frames",
         {{0, 0, 4000}, {1, 0, 4000}, {0, 0, 96}, {0, kEnd, 4000}},
         {"lost", "lost", "3*96 4*4000"},
         {1, 2, 1}},
        {"which are delivered on demand", {{0, 0, 4000}, {1, 0, 40}}, {"1*4000 0*96"}, {1, 0, 1}, false},
        {"an unexpected FID on an empty frame is ignored",
         {{0, kEnd, 4096}, {0, kEnd, 4096}, {0, kEnd, 4096}, {1, kEnd, 4096}},
         {"1*4096", "lost", "lost", "4*4096"},
         {2, 2, 0}},
        {"an end without data", {{0, kEnd, 0}}, {"lost"}, {0, 1, 1}},
        {"headers without data", HeadersWithoutData(), {"2*2000 4*2096", "8*4096"}, {2, 0, 0}},
        {"bad headers", {{0, kEnd, 4096, 1}, {0, kEnd, 4096, 3}, {0, 0, 1, 0}}, {}, {0, 0, kFidUnknown}},
    };
    for (const Case &c : cases)
        Run<UvcCamera>(c);
    Run<UvcCamera>({"no buffer", {{0, 0, 100}, {0, kEnd, 100}}, {"lost"}, {0, 0, 1, 2}}, false, false, 0);
    Run<UvcCamera>({"no buffer, no ends", {{0, 0, 9}, {0, 0, 9}, {1, 0, 9}, {0, 0, 9}}, {"lost", "lost"}, {0, 1, 0, 3}},
                   false, false, 0);
}

TEST_F(FrameAssemblyTest, WholeTransfers) {
    constexpr NTSTATUS kKept = STATUS_MORE_PROCESSING_REQUIRED;
    constexpr NTSTATUS kRetired = STATUS_CANCELLED;
    const Case cases[] = {
        {"an end is not needed", {{0, 0, 4096, 12, kKept}, {1, kEnd, 4096, 2, kKept}}, {"1*4096", "2*4096"}, {2, 0, 0}},
        {"longer is cut by the conversion", {{0, kEnd, 5000, 2, kKept}}, {"1*4096"}, {1, 0, 1}},
        {"short costs the transfer",
         {{0, kEnd, 4095, 2, kRetired}, {1, 0, 4096, 2, kKept}},
         {"lost", "2*4096"},
         {1, 1, 0}},
        {"a frame in two transfers is lost once",
         {{0, 0, 4000, 2, kRetired}, {0, 0, 96, 2, kRetired}, {1, 0, 4000, 2, kRetired}, {1, kEnd, 96, 2, kRetired}},
         {"lost", "lost"},
         {0, 2, 0}},
        {"headers without data",
         {{0, 0, 0, 2, kRetired}, {0, 0, 4096, 2, kKept}, {0, kEnd, 0, 2, kRetired}, {1, 0, 4096, 2, kKept}},
         {"2*4096", "4*4096"},
         {2, 0, 0}},
        {"a gap of two bytes is none", {{0, 0, 4094, 2, kKept}}, {"1*4096"}, {1, 0, 1}, false},
        {"but for one that the buffer lacks", {{0, 0, 4094, 2, kKept, 1}}, {"1*4032 0*64"}, {1, 0, 1}, false},
        {"a gap of three costs a row", {{0, 0, 4093, 2, kKept}}, {"1*4032 0*64"}, {1, 0, 1}, false},
        {"48 rows are converted", {{0, 0, 3073, 2, kKept}}, {"1*3072 0*1024"}, {1, 0, 1}, false},
        {"47 rows are not", {{0, 0, 3072, 2, kKept}}, {"0*4096"}, {1, 0, 1}, false},
        {"nothing at all", {{0, kEnd, 0, 2, kKept}}, {"0*4096"}, {1, 0, 1}, false},
    };
    for (const Case &c : cases)
        Run<WorkerCamera>(c);
    Run<WorkerCamera>({"no buffer", {{0, kEnd, 4096}}, {"lost"}, {0, 0, 1, 1}}, false, false, 0);
}

TEST_F(FrameAssemblyTest, Collecting) {
    const Case cases[] = {
        {"two payloads", {{0, 0, 2048}, {0, kEnd, 2048}}, {"1*2048 2*2048"}, {1, 0, 1}},
        {"full is the end", {{0, 0, 4096}, {1, 0, 4096}}, {"1*4096", "2*4096"}, {2, 0, 0}},
        {"too long is cut", {{0, 0, 4000}, {0, kEnd, 4000}}, {"1*4000 2*96"}, {1, 0, 1}},
        {"a short end shifts nothing",
         {{0, kEnd, 1000}, {1, 0, 96}, {1, kEnd, 4000}},
         {"lost", "2*96 3*4000"},
         {1, 1, 0}},
        {"a full frame that goes on is not lost as well",
         {{0, 0, 4096}, {0, 0, 100}, {0, kEnd, 10}, {1, kEnd, 4096}},
         {"1*4096", "4*4096"},
         {2, 0, 0}},
        {"headers without data", HeadersWithoutData(), {"2*2000 4*2096", "8*4096"}, {2, 0, 0}},
        {"or is delivered", {{0, kEnd, 4093}, {1, kEnd, 4096}}, {"1*4032 0*64", "2*4096"}, {2, 0, 0}, false},
        {"a FID change drops what was there",
         {{0, 0, 1000}, {1, 0, 96}, {1, kEnd, 4000}},
         {"lost", "2*96 3*4000"},
         {1, 1, 0}},
        {"an end of its own behind a full buffer",
         {{0, 0, 4096}, {0, kEnd, 0}, {1, 0, 96}, {1, kEnd, 4000}},
         {"1*4096", "3*96 4*4000"},
         {2, 0, 0}},
        {"likewise without discarding",
         {{0, 0, 4096}, {0, kEnd, 0}, {1, 0, 4096}},
         {"1*4096", "3*4096"},
         {2, 0, 0},
         false},
    };
    for (const Case &c : cases)
        Run<WorkerCamera>(c, true);
    Run<WorkerCamera>({"no buffer", {{0, 0, 4096}}, {"lost"}, {0, 0, 1, 1}}, true, false, 0);
}

TEST_F(FrameAssemblyTest, LargePayloads) {
    const Case cases[] = {
        {"two pieces", {{0, 0, 4000}, {0, 0, 96, 0}}, {"1*4000 102*96"}, {1, 0, kFidUnknown}},
        {"one piece", {{0, 0, 4096}}, {"1*4096"}, {1, 0, kFidUnknown}},
        {"a header begins anew",
         {{0, 0, 4000}, {0, 0, 4000}, {0, 0, 99, 0}},
         {"lost", "2*4000 103*96"},
         {1, 1, kFidUnknown}},
        {"data like a header spoil one frame, not two",
         {{0, 0, 4000, 2, STATUS_SUCCESS, 0}, {0, 0, 94}, {0, 0, 4096}},
         {"lost", "3*4096"},
         {1, 1, kFidUnknown}},
        {"the second piece ends the frame",
         {{0, 0, 100}, {0, 0, 100, 0}, {0, 0, 3896, 0}},
         {"lost"},
         {0, 1, kFidUnknown}},
        {"and is delivered on demand",
         {{0, 0, 4000}, {0, 0, 93, 0}},
         {"1*4000 102*32 0*64"},
         {1, 0, kFidUnknown},
         false},
        {"a piece without a beginning", {{0, 0, 4096, 0}}, {}, {0, 0, kFidUnknown}},
    };
    for (const Case &c : cases)
        Run<WorkerCamera>(c, true, true);
    Run<UvcCamera>({"nobody converts", {{0, 0, 4096}, {0, 0, 4096}}, {"lost", "lost"}, {0, 2, kFidUnknown}}, true,
                   true);
    Run<WorkerCamera>({"no buffer", {{0, 0, 4096}}, {"lost"}, {0, 0, kFidUnknown, 1}}, true, true, 0);
}

TEST_F(FrameAssemblyTest, TheWorkerHoldsTwoFramesAndRefusesAThird) {
    for (bool collecting : {false, true}) {
        Prepare<WorkerCamera>(collecting, false);
        auto &worker = static_cast<WorkerCamera &>(*camera);
        KeClearEvent(&worker.gate);
        const NTSTATUS taken = collecting ? STATUS_SUCCESS : STATUS_MORE_PROCESSING_REQUIRED;
        EXPECT_EQ(Feed({0, kEnd, 4096}, 1), taken);
        EXPECT_EQ(Feed({1, kEnd, 4096}, 2), taken);
        EXPECT_EQ(Feed({0, kEnd, 4096}, 3), STATUS_CANCELLED);
        KeSetEvent(&worker.gate, 0, FALSE);
        // A stop delivers what is queued.
        WorkerDestroy(*camera);
        EXPECT_EQ(sink->Events(), (std::vector<std::string>{"lost", "1*4096", "2*4096"}));
        EXPECT_EQ(camera->stream.dropped, 1u);
        Finish();
    }
}

TEST_F(FrameAssemblyTest, WithoutAThreadQueuedFramesAreCancelledAtTheEnd) {
    runtime.Arm(host::FaultPlan().FailNth(host::FaultSite::Thread, 1));
    Prepare<WorkerCamera>(true, false, 3, STATUS_INSUFFICIENT_RESOURCES);
    StreamWorker &worker = camera->stream.worker;
    EXPECT_EQ(Feed({0, kEnd, 4096}, 1), STATUS_SUCCESS);
    InterlockedExchange(&worker.stop, 1); // a stopped worker takes nothing more
    PoolBuffer *buffer = camera->stream.pool.buffers[0];
    EXPECT_EQ(WorkerQueue(*camera, buffer, buffer->data, kFrameSize), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(SharedLoad(worker.queued), 1);
    EXPECT_EQ(sink->Events(), (std::vector<std::string>{"cancelled"}));
    WorkerDestroy(*camera);
    EXPECT_EQ(sink->Events(), (std::vector<std::string>{"cancelled", "cancelled"}));
    EXPECT_EQ(camera->stream.dropped, 2u);
    Finish();
}

TEST_F(FrameAssemblyTest, PayloadsAreRefusedWhileStopping) {
    Prepare<UvcCamera>(false, false);
    camera->stream.stopping = 1;
    EXPECT_EQ(Feed({0, kEnd, 4096}, 1), STATUS_CANCELLED);
    EXPECT_EQ(Feed({0, kEnd, 4096, 3}, 1), STATUS_CANCELLED);
    EXPECT_EQ(Feed({0, false, 1, 0}, 1), STATUS_SUCCESS); // too short to be looked at
    Finish();
}

TEST_F(FrameAssemblyTest, TheRateIsTakenWhenMoreThanThreeSecondsAreOver) {
    Prepare<UvcCamera>(false, false);
    FrameRate &rate = camera->stream.rate;
    camera->parameters.statisticsOverlay = true;
    FrameRateRestart(rate, 0);
    auto frameAfterMs = [&, fid = UCHAR{0}](LONGLONG milliseconds) mutable {
        SleepMs(milliseconds);
        Feed({fid, kEnd, 4096}, 1);
        fid ^= 1;
    };
    for (int i = 0; i < 30; ++i)
        frameAfterMs(100);
    EXPECT_EQ(rate.hundredths, 0u); // exactly the period
    frameAfterMs(100);
    EXPECT_EQ(rate.hundredths, 31u * 100'000 / 3100);
    camera->parameters.measureFrameRate = false;
    frameAfterMs(10'000);
    EXPECT_EQ(rate.hundredths, 1000u);
    Finish();
}

} // namespace
} // namespace uvc::usb_test
