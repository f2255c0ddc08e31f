#include "platform/shared_field.h"
#include "tests/usb/scripted_camera.h"
#include "usb/stream.h"

namespace uvc::usb_test {
namespace {

using Events = std::vector<std::string>;

class StreamTest : public testing::Test {
  protected:
    template <class Camera> Camera &Open(host::usb::PlugOptions options = {}, ULONG payloadSize = kFrameSize + 2) {
        on.emplace(std::move(options));
        on->device->probe.dwMaxPayloadTransferSize = payloadSize;
        camera = NewCamera<Camera>(on->pdo, sink);
        EXPECT_EQ(camera->Initialise(), STATUS_SUCCESS);
        EXPECT_EQ(camera->formats.Count(), 2u);
        on->device->TakeRequests();
        on->device->TakeLog();
        return static_cast<Camera &>(*camera);
    }
    void TearDown() override {
        camera.reset();
        on.reset();
    }
    const KS_VIDEOINFOHEADER &Format(ULONG index = 0) const { return camera->formats[index].range.VideoInfoHeader; }
    NTSTATUS Start(ULONG index = 0) { return StreamStart(*camera, Format(index)); }
    void Send(UCHAR fid, bool end, ULONG length, UCHAR fill) { on->device->SendPayload(fid, end, length, fill); }
    void SendFrame(UCHAR fid, UCHAR fill) { Send(fid, true, kFrameSize, fill); }

    host::Runtime runtime;
    RecordingSink sink;
    std::optional<ScriptedBus> on;
    std::unique_ptr<UvcCamera, CameraDeleter> camera;
};

TEST_F(StreamTest, NegotiatesOnlyWhatIsNeeded) {
    constexpr NTSTATUS kInvalid = STATUS_INVALID_PARAMETER;
    const char *const kAll = "get probe, set probe, get probe, set commit, get commit";
    Open<UvcCamera>();
    ScriptedCamera &device = *on->device;
    KS_VIDEOINFOHEADER format = Format();
    const auto negotiate = [&](NTSTATUS status, const char *requests) {
        EXPECT_EQ(UvcNegotiateStream(*camera, format), status) << requests;
        EXPECT_EQ(device.TakeRequests(), requests);
    };
    negotiate(STATUS_SUCCESS, kAll);
    EXPECT_EQ(+device.commit.bmHint, 1);
    EXPECT_EQ(device.commit.bFormatIndex, 1);
    EXPECT_EQ(device.commit.bFrameIndex, 1);
    EXPECT_EQ(+device.commit.dwFrameInterval, kInterval);
    EXPECT_EQ(+camera->descriptors->committed.dwMaxPayloadTransferSize, kFrameSize + 2);
    EXPECT_EQ(camera->stream.sensor.bmiHeader.biSizeImage, kFrameSize);
    EXPECT_EQ(camera->stream.output.AvgTimePerFrame, kInterval);
    negotiate(STATUS_SUCCESS, "get probe"); // the camera is in the wanted state

    camera->parameters.forceNegotiation = true;
    negotiate(STATUS_SUCCESS, kAll);
    camera->parameters.forceNegotiation = false;
    format = Format(1);
    negotiate(STATUS_SUCCESS, kAll);
    EXPECT_EQ(camera->stream.sensor.bmiHeader.biWidth, 2 * kWidth);

    // A camera that rounds the interval is probed every time, but committed only when that changes something.
    device.onProbe = [](ProbeCommitBlock &block) { block.dwFrameInterval = 400'000; };
    negotiate(STATUS_SUCCESS, "get probe");
    format.AvgTimePerFrame = 350'000;
    negotiate(STATUS_SUCCESS, kAll);
    negotiate(STATUS_SUCCESS, "get probe, set probe, get probe");
    EXPECT_EQ(+camera->descriptors->committed.dwFrameInterval, 400'000u);

    device.onProbe = [](ProbeCommitBlock &block) { block.bFrameIndex = 1; };
    format.AvgTimePerFrame = 360'000;
    negotiate(kInvalid, "get probe, set probe, get probe");
    device.onProbe = {};
    for (auto [name, status, requests] :
         {std::tuple{"get probe", kInvalid, "get probe"},
          {"set probe", kInvalid, "get probe, set probe"},
          {"set commit", STATUS_UNSUCCESSFUL, "get probe, set probe, get probe, set commit"},
          {"get commit", STATUS_UNSUCCESSFUL, kAll}}) {
        device.failing = {{name, TransferStatus::Stall}};
        device.probe.bFrameIndex = 1;
        negotiate(status, requests);
        device.failing.clear();
    }
    format.bmiHeader.biWidth = 63;
    negotiate(kInvalid, "");
}

TEST_F(StreamTest, WithoutAStreamingPipeNothingIsAsked) {
    Open<UvcCamera>();
    static_cast<void>(UsbStoreInterfaceInformation(*camera->link, kStreamingInterface, nullptr));
    EXPECT_EQ(Start(), STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_EQ(on->device->TakeRequests(), "");
}

TEST(StreamSizes, DecideHowFramesAreAssembled) {
    struct Case {
        ULONG payload, pipeLimit, ntVersion, transferSize;
        bool large, collecting, collectingWithWorker;
    };
    const Case cases[] = {
        {kFrameSize + 2, 0x400000, 0x06010000, kFrameSize + 2, false, false, false},
        {kFrameSize, 0x400000, 0x06010000, kFrameSize, false, false, false},
        {kFrameSize - 1, 0x400000, 0x06010000, kFrameSize - 1, false, false, true},
        {8192, 8192, 0x06010000, 8192, false, false, false},
        {8193, 8192, 0x06010000, 8192, true, true, true},
        {0x310000, 0x400000, 0x05010000, 0x310000, false, false, false},
        {0x310001, 0x400000, 0x05010000, 0x310000, true, true, true},
        {0, 0x400000, 0x06010000, 0, false, false, true},
        {0x310000, 0, 0x06010000, 0x310000, false, false, false},
        {0x310001, 0, 0x06010000, 0x310000, true, true, true},
        {0x310001, USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE, 0x06010000, 0x310000, true, true, true},
    };
    for (const Case &c : cases) {
        for (bool worker : {false, true}) {
            SCOPED_TRACE(std::to_string(&c - cases) + (worker ? ", worker" : ""));
            host::Runtime runtime(host::RuntimeOptions{.ntVersion = c.ntVersion});
            RecordingSink sink;
            ScriptedBus on(host::usb::PlugOptions{.maximumTransferSize = c.pipeLimit});
            on.device->probe.dwMaxPayloadTransferSize = c.payload;
            auto camera = NewCamera<UvcCamera>(on.pdo, sink);
            camera->stream.workerMode = worker;
            ASSERT_EQ(camera->Initialise(), STATUS_SUCCESS);
            ASSERT_EQ(StreamStart(*camera, camera->formats[0].range.VideoInfoHeader), STATUS_SUCCESS);
            EXPECT_EQ(camera->stream.transferSize, c.transferSize);
            EXPECT_EQ(camera->stream.largePayloads, c.large);
            EXPECT_EQ(camera->stream.collecting, worker ? c.collectingWithWorker : c.collecting);
            EXPECT_EQ(camera->stream.engine->transfers[0].size, c.transferSize != 0 ? c.transferSize : 4096);
            StreamStop(*camera);
        }
    }
}

TEST_F(StreamTest, PauseKeepsCountersAndPoolButNoPartialFrame) {
    for (bool worker : {false, true}) {
        if (worker)
            Open<WorkerCamera>({}, 2050); // collects two payloads to a frame
        else
            Open<UvcCamera>({}, 2050);
        const std::size_t before = sink.Events().size();
        EXPECT_EQ(StreamPause(*camera, true), STATUS_SUCCESS); // nothing to pause
        ASSERT_EQ(Start(), STATUS_SUCCESS);
        const auto sendFrame = [&](UCHAR fid, UCHAR fill) {
            Send(fid, false, 2048, fill);
            Send(fid, true, 2048, fill);
        };
        sendFrame(0, 1);
        Send(1, false, 1000, 2);
        on->device->Ring();
        sink.AwaitEvents(before + 1);
        const auto hasPartialFrame = [&] {
            SpinLockGuard guard(camera->stream.frameLock);
            return worker ? FramePoolIsFilling(camera->stream.pool) : camera->stream.currentFrame.frame != nullptr;
        };
        // The worker counts a frame only after the sink has it.
        while (!hasPartialFrame() || SharedLoad(camera->stream.delivered) == 0)
            SleepMs(1);
        EXPECT_EQ(StreamPause(*camera, true), STATUS_SUCCESS);
        EXPECT_EQ(StreamPause(*camera, true), STATUS_SUCCESS);
        EXPECT_EQ(camera->stream.lastFid, kFidUnknown);
        EXPECT_EQ(camera->stream.delivered, 1u);
        EXPECT_TRUE(sink.HasAllFrames()); // an application may wait for the one that was being filled

        EXPECT_EQ(StreamPause(*camera, false), STATUS_SUCCESS);
        EXPECT_EQ(StreamPause(*camera, false), STATUS_SUCCESS);
        sendFrame(1, 3);
        sendFrame(0, 4);
        on->device->Ring();
        const Events expected =
            worker ? Events{"1*4096", "3*4096", "4*4096"} : Events{"1*4096", "cancelled", "3*4096", "4*4096"};
        sink.AwaitEvents(before + expected.size());
        StreamStop(*camera);
        const Events events = sink.Events();
        EXPECT_EQ(Events(events.begin() + static_cast<std::ptrdiff_t>(before), events.end()), expected);
        EXPECT_EQ(camera->stream.delivered, 3u);
        EXPECT_EQ(camera->stream.dropped, worker ? 0u : 1u);
        TearDown();
    }
}

TEST_F(StreamTest, AStartOfAStreamingCameraBeginsAnew) {
    Open<WorkerCamera>();
    ASSERT_EQ(Start(), STATUS_SUCCESS);
    StreamPause(*camera, true);
    ASSERT_EQ(Start(), STATUS_SUCCESS);
    SendFrame(0, 1);
    on->device->Ring();
    sink.AwaitEvents(1);
    StreamState &stream = camera->stream;
    for (ULONG *counter : {&stream.dropped, &stream.noBuffer, &stream.rate.hundredths})
        SharedStore(*counter, 7u);
    ASSERT_EQ(Start(), STATUS_SUCCESS);
    for (ULONG *counter : {&stream.delivered, &stream.dropped, &stream.noBuffer, &stream.rate.hundredths})
        EXPECT_EQ(SharedLoad(*counter), 0u) << counter - &stream.dropped;
    StreamStop(*camera);
}

TEST_F(StreamTest, StopDeliversWhatTheWorkerHolds) {
    for (ULONG payload : {kFrameSize + 2, kFrameSize / 2 + 2}) { // whole transfers, collecting
        auto &worker = Open<WorkerCamera>({}, payload);
        const std::size_t before = sink.Events().size();
        ASSERT_EQ(Start(), STATUS_SUCCESS);
        KeClearEvent(&worker.gate);
        for (UCHAR frame = 0; frame < 2; ++frame) {
            for (ULONG sent = 0; sent < kFrameSize; sent += payload - 2)
                Send(frame, sent + payload - 2 == kFrameSize, payload - 2, frame + 1);
        }
        on->device->Ring();
        while (SharedLoad(camera->stream.worker.queued) != 2)
            SleepMs(1);
        host::AttachedThread opener("opener", [&] {
            SleepMs(300);
            KeSetEvent(&worker.gate, 0, FALSE);
        });
        EXPECT_EQ(StreamStop(*camera), STATUS_SUCCESS);
        EXPECT_EQ(sink.Events().size(), before + 2);
        EXPECT_EQ(sink.Events().back(), "2*4096");
        EXPECT_EQ(camera->stream.delivered, 2u);
        EXPECT_TRUE(sink.HasAllFrames());
        opener.Join();
        TearDown();
    }
}

TEST_F(StreamTest, AnUnpluggedCameraStopsAtOnce) {
    for (bool paused : {false, true}) {
        Open<WorkerCamera>();
        ASSERT_EQ(Start(), STATUS_SUCCESS);
        if (paused)
            StreamPause(*camera, true);
        on->Unplug();
        const host::Ticks start = runtime.Now();
        EXPECT_EQ(StreamPause(*camera, true), STATUS_SUCCESS); // the transfers are gone, whatever the abort says
        EXPECT_FALSE(NT_SUCCESS(StreamPause(*camera, false)));
        EXPECT_EQ(StreamStop(*camera), STATUS_SUCCESS);
        EXPECT_EQ(runtime.Now(), start);
        EXPECT_FALSE(NT_SUCCESS(Start()));
        TearDown();
    }
}

TEST_F(StreamTest, AFaultAnywhereLeavesNothingBehind) {
    for (bool worker : {false, true}) {
        if (worker)
            Open<WorkerCamera>({}, kFrameSize / 2 + 2);
        else
            Open<UvcCamera>({}, kFrameSize / 2 + 2);
        camera->parameters.forceNegotiation = true;
        const std::uint64_t blocks = runtime.OutstandingPool().blocks;
        const auto attempt = [&] {
            const NTSTATUS status = Start();
            if (NT_SUCCESS(status)) {
                Send(0, false, kFrameSize / 2, 1);
                Send(0, true, kFrameSize / 2, 1);
                on->device->Ring();
                SleepMs(2500);
                StreamPause(*camera, true);
                static_cast<void>(StreamPause(*camera, false));
            }
            StreamStop(*camera);
            const bool dealt = DisarmFaults();
            EXPECT_TRUE(dealt || NT_SUCCESS(status)) << std::hex << status;
            EXPECT_EQ(runtime.OutstandingPool().blocks, blocks);
            EXPECT_TRUE(sink.HasAllFrames());
            EXPECT_FALSE(camera->stream.streaming);

            // What is left in the camera's queue goes, and the next stream is as good as any.
            on->device->Forget();
            const std::size_t before = sink.Events().size();
            EXPECT_EQ(Start(), STATUS_SUCCESS);
            Send(0, false, kFrameSize / 2, 9);
            Send(0, true, kFrameSize / 2, 9);
            on->device->Ring();
            sink.AwaitEvents(before + 1);
            StreamStop(*camera);
            EXPECT_EQ(sink.Events().back(), "9*4096");
            return dealt;
        };
        using enum host::FaultSite;
        for (host::FaultSite site : {PoolAllocation, Irp, Mdl, WorkItem, Thread})
            SweepFaults(site, attempt);
        using enum host::TransferFault;
        for (host::TransferFault fault : {Stall, Hang, Short, Babble, Delay})
            SweepFaults(fault, attempt);
        TearDown();
    }
}

} // namespace
} // namespace uvc::usb_test
