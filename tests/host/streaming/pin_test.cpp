// Pins: connection, format, states, frames, and the ways a stream ends.
#include "host/executive/file.h"
#include "tests/host/streaming/test_driver.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>

namespace streaming_test {
namespace {

using host::client::BytesOf;
using host::client::Frame;
using host::client::Pin;
using Log = std::vector<std::string>;

TEST(StreamingPin, FormatIsJudgedBeforeCreate) {
    Machine machine;
    machine.TakeLog();
    OpenPin open(machine);
    ASSERT_EQ(open.status, STATUS_SUCCESS);
    EXPECT_EQ(machine.TakeLog(), (Log{"filter create", "format first with the filter's context", "pin create"}));

    KSALLOCATOR_FRAMING_EX framing{};
    EXPECT_EQ(open.pin.Framing(framing), STATUS_SUCCESS);
    EXPECT_EQ(framing.FramingItem[0].Frames, 5u) << "the driver's own edit of the descriptor";
    std::vector<std::uint8_t> format;
    EXPECT_EQ(open.pin.Format(format), STATUS_SUCCESS);
    auto given = GreyFormat();
    ASSERT_EQ(format.size(), sizeof(given));
    EXPECT_EQ(std::memcmp(format.data(), &given, sizeof(given)), 0);

    Pin second;
    EXPECT_EQ(second.Open(open.filter, 0, BytesOf(given)), STATUS_CONNECTION_REFUSED);
    host::client::Filter otherFilter;
    ASSERT_EQ(otherFilter.Open(machine.Link()), STATUS_SUCCESS);
    EXPECT_EQ(second.Open(otherFilter, 0, BytesOf(given)), STATUS_SUCCESS) << "instances count per filter";
    second.Close();
    open.pin.Close();
    EXPECT_EQ(second.Open(open.filter, 0, BytesOf(given)), STATUS_SUCCESS);
}

TEST(StreamingPin, BadConnectionsAreRefused) {
    struct Case {
        const char *what;
        ULONG pinId;
        void (*change)(KS_DATAFORMAT_VIDEOINFOHEADER &);
        NTSTATUS status;
    };
    const Case cases[] = {
        {"no such pin", 1, [](KS_DATAFORMAT_VIDEOINFOHEADER &) {}, STATUS_INVALID_PARAMETER},
        {"size beyond the bytes", 0, [](KS_DATAFORMAT_VIDEOINFOHEADER &f) { f.DataFormat.FormatSize += 8; },
         STATUS_INVALID_BUFFER_SIZE},
        {"size below a format", 0, [](KS_DATAFORMAT_VIDEOINFOHEADER &f) { f.DataFormat.FormatSize = 63; },
         STATUS_INVALID_BUFFER_SIZE},
        {"no range", 0, [](KS_DATAFORMAT_VIDEOINFOHEADER &f) { ++f.DataFormat.SubFormat.Data1; }, STATUS_NO_MATCH},
        {"driver refuses", 0, [](KS_DATAFORMAT_VIDEOINFOHEADER &f) { ++f.VideoInfoHeader.bmiHeader.biWidth; },
         STATUS_NO_MATCH},
    };
    Machine machine;
    host::client::Filter filter;
    ASSERT_EQ(filter.Open(machine.Link()), STATUS_SUCCESS);
    for (const Case &test : cases) {
        SCOPED_TRACE(test.what);
        auto format = GreyFormat();
        test.change(format);
        Pin pin;
        EXPECT_EQ(pin.Open(filter, test.pinId, BytesOf(format)), test.status);
    }
}

TEST(StreamingPin, StatesAreWalkedInSteps) {
    static bool refuseRun;
    refuseRun = false;
    Hooks hooks;
    hooks.setState = [](PKSPIN pin, KSSTATE to, KSSTATE from) {
        EXPECT_EQ(pin->DeviceState, from);
        return to == KSSTATE_RUN && refuseRun ? STATUS_IO_DEVICE_ERROR : STATUS_SUCCESS;
    };
    Machine machine(std::move(hooks));
    OpenPin open(machine);
    ASSERT_EQ(open.status, STATUS_SUCCESS);
    machine.TakeLog();
    KSSTATE state = KSSTATE_STOP;

    EXPECT_EQ(open.pin.SetState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(machine.TakeLog(), (Log{"state 0>1", "state 1>2", "state 2>3"}));
    EXPECT_EQ(open.pin.SetState(KSSTATE_ACQUIRE), STATUS_SUCCESS);
    EXPECT_EQ(machine.TakeLog(), (Log{"state 3>2", "state 2>1"}));
    EXPECT_EQ(open.pin.SetState(KSSTATE_ACQUIRE), STATUS_SUCCESS);
    EXPECT_EQ(machine.TakeLog(), Log{});
    refuseRun = true;
    EXPECT_EQ(open.pin.SetState(KSSTATE_RUN), STATUS_IO_DEVICE_ERROR);
    EXPECT_EQ(open.pin.State(state), STATUS_SUCCESS);
    EXPECT_EQ(state, KSSTATE_PAUSE) << "stays where it got to";
    EXPECT_EQ(open.pin.SetState(static_cast<KSSTATE>(4)), STATUS_INVALID_PARAMETER);
    machine.TakeLog();
    open.pin.Close();
    EXPECT_EQ(machine.TakeLog(), (Log{"state 2>1", "state 1>0", "pin close"}));
}

TEST(StreamingPin, SeveralFramesInOneRequest) {
    Machine machine;
    Frame last(kFrameSize);
    OpenPin open(machine);
    ASSERT_EQ(open.pin.SetState(KSSTATE_RUN), STATUS_SUCCESS);
    std::vector<std::uint8_t> buffers(2 * kFrameSize);
    KSSTREAM_HEADER headers[2] = {};
    for (int i = 0; i < 2; ++i) {
        headers[i] = {.Size = sizeof(KSSTREAM_HEADER), .FrameExtent = kFrameSize, .Data = &buffers[i * kFrameSize]};
    }
    auto read = [&](ULONG size, IO_STATUS_BLOCK &ioStatus) {
        return ZwDeviceIoControlFile(open.pin.Handle(), nullptr, nullptr, nullptr, &ioStatus, IOCTL_KS_READ_STREAM,
                                     nullptr, 0, headers, size);
    };
    IO_STATUS_BLOCK ioStatus{};
    EXPECT_EQ(read(sizeof(headers[0]) - 1, ioStatus), STATUS_INVALID_BUFFER_SIZE);
    EXPECT_EQ(read(sizeof(headers) - 8, ioStatus), STATUS_INVALID_BUFFER_SIZE);
    headers[1].Size = 60;
    EXPECT_EQ(read(sizeof(headers), ioStatus), STATUS_INVALID_BUFFER_SIZE) << "sizes are multiples of 8";
    headers[1].Size = sizeof(KSSTREAM_HEADER);
    headers[1].Data = reinterpret_cast<void *>(std::uintptr_t{0x20'0040});
    EXPECT_EQ(read(sizeof(headers), ioStatus), STATUS_ACCESS_VIOLATION);
    headers[1].Data = &buffers[kFrameSize];
    EXPECT_EQ(read(sizeof(headers), ioStatus), STATUS_PENDING);

    Frame *done = nullptr;
    ASSERT_EQ(open.pin.Queue(last), STATUS_SUCCESS);
    ASSERT_EQ(open.pin.NextFrame(&done), STATUS_SUCCESS);
    EXPECT_EQ(ioStatus.Status, STATUS_SUCCESS);
    EXPECT_EQ(ioStatus.Information, sizeof(headers));
    EXPECT_EQ(headers[0].DataUsed, kFrameSize);
    EXPECT_EQ(headers[1].DataUsed, kFrameSize);
    EXPECT_EQ(buffers[kFrameSize - 1] + 1, buffers[kFrameSize]);
}

// The ways in which queued frames come back unfilled.
TEST(StreamingPin, QueuedFramesComeBackWhenTheStreamEnds) {
    struct Case {
        const char *what;
        void (*end)(Machine &, OpenPin &);
    };
    const Case cases[] = {
        {"cancelled", [](Machine &, OpenPin &open) { host::CancelFileIo(open.pin.Handle()); }},
        {"stopped", [](Machine &, OpenPin &open) { open.pin.SetState(KSSTATE_STOP); }},
        {"unplugged", [](Machine &machine, OpenPin &) { machine.Unplug(); }},
        {"device stopped", [](Machine &machine, OpenPin &) { host::StopDeviceStack(machine.Pdo()); }},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.what);
        Machine machine;
        Frame first(kFrameSize), second(kFrameSize);
        OpenPin open(machine);
        ASSERT_EQ(open.pin.SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
        ASSERT_EQ(open.pin.Queue(first), STATUS_SUCCESS);
        ASSERT_EQ(open.pin.Queue(second), STATUS_SUCCESS);
        test.end(machine, open);
        for (Frame *expected : {&first, &second}) {
            Frame *done = nullptr;
            ASSERT_EQ(open.pin.NextFrame(&done, 0), STATUS_SUCCESS);
            EXPECT_EQ(done, expected);
            EXPECT_EQ(done->Status(), STATUS_CANCELLED);
            EXPECT_TRUE(done->Data().empty());
        }
    }
}

// A frame that the driver holds is given back by the driver, whatever its sender wishes meanwhile.
TEST(StreamingPin, CancelWaitsForAClone) {
    static PKSSTREAM_POINTER held;
    held = nullptr;
    Hooks hooks;
    hooks.process = [](PKSPIN pin) {
        PKSSTREAM_POINTER edge = KsPinGetLeadingEdgeStreamPointer(pin, KSSTREAM_POINTER_STATE_LOCKED);
        EXPECT_EQ(KsStreamPointerClone(edge, nullptr, 16, &held), STATUS_SUCCESS);
        std::memset(held->Context, 0x77, 16);
        EXPECT_EQ(held->OffsetOut.Count, kFrameSize);
        EXPECT_EQ(held->Offset, &held->OffsetOut);
        EXPECT_EQ(KsStreamPointerAdvance(edge), STATUS_DEVICE_NOT_READY) << "the last frame, and the lock is lost";
        return STATUS_PENDING;
    };
    Machine machine(std::move(hooks));
    Frame frame(kFrameSize);
    OpenPin open(machine);
    ASSERT_EQ(open.pin.SetState(KSSTATE_RUN), STATUS_SUCCESS);
    ASSERT_EQ(open.pin.Queue(frame), STATUS_SUCCESS);
    ASSERT_NE(held, nullptr);
    host::CancelFileIo(open.pin.Handle());
    Frame *done = nullptr;
    EXPECT_EQ(open.pin.NextFrame(&done, 100), STATUS_TIMEOUT);
    EXPECT_EQ(KsStreamPointerSetStatusCode(held, STATUS_IO_DEVICE_ERROR), STATUS_SUCCESS);
    KIRQL level;
    KeRaiseIrql(DISPATCH_LEVEL, &level);
    KsStreamPointerDelete(held);
    KeLowerIrql(level);
    ASSERT_EQ(open.pin.NextFrame(&done, 0), STATUS_SUCCESS);
    EXPECT_EQ(done->Status(), STATUS_CANCELLED) << "the first failure counts";
}

// Sender, producer and canceller meet on the same requests: each comes back once, filled or cancelled.
TEST(StreamingPin, CancelRacesWithDelivery) {
    Machine machine;
    std::vector<std::unique_ptr<Frame>> frames(8);
    for (auto &frame : frames)
        frame = std::make_unique<Frame>(kFrameSize);
    OpenPin open(machine);
    ASSERT_EQ(open.pin.SetState(KSSTATE_RUN), STATUS_SUCCESS);
    for (int round = 0; round < 50; ++round) {
        for (auto &frame : frames)
            ASSERT_EQ(open.pin.Queue(*frame), STATUS_SUCCESS);
        host::AttachedThread canceller("canceller", [&] {
            Sleep(20); // when the second frame is due
            host::CancelFileIo(open.pin.Handle());
        });
        int filled = 0;
        for (auto &expected : frames) {
            Frame *done = nullptr;
            ASSERT_EQ(open.pin.NextFrame(&done), STATUS_SUCCESS);
            ASSERT_EQ(done, expected.get());
            EXPECT_TRUE(done->Status() == STATUS_SUCCESS || done->Status() == STATUS_CANCELLED);
            filled += done->Status() == STATUS_SUCCESS ? 1 : 0;
        }
        EXPECT_EQ(frames[0]->Status(), STATUS_SUCCESS);
        EXPECT_LE(filled, 3); // those due at once, after 10 ms and, against the canceller, after 20 ms
        canceller.Join();
    }
}

// The process routine is called for the step into RUN and for a frame at an exhausted queue; after STATUS_PENDING not
// again until the driver asks, then for as long as it takes frames.
TEST(StreamingPin, ProcessingIsTriggeredByFramesAndByTheDriver) {
    static PKSPIN ksPin;
    static std::atomic<int> calls;
    static std::atomic<bool> take;
    calls = 0;
    take = false;
    Hooks hooks;
    hooks.pinCreate = [](PKSPIN pin, PIRP) {
        ksPin = pin;
        return STATUS_SUCCESS;
    };
    hooks.setState = [](PKSPIN, KSSTATE, KSSTATE) { return STATUS_ALERTED; }; // a success that starts no thread
    hooks.process = [](PKSPIN pin) {
        ++calls;
        if (!take)
            return STATUS_PENDING;
        KsStreamPointerUnlock(KsPinGetLeadingEdgeStreamPointer(pin, KSSTREAM_POINTER_STATE_LOCKED), TRUE);
        return STATUS_SUCCESS;
    };
    Machine machine(std::move(hooks));
    Frame frames[] = {Frame(kFrameSize), Frame(kFrameSize), Frame(kFrameSize)};
    OpenPin open(machine);
    Frame *done = nullptr;
    auto attempt = [](bool atDispatch) {
        KIRQL level = PASSIVE_LEVEL;
        if (atDispatch)
            KeRaiseIrql(DISPATCH_LEVEL, &level);
        KsPinAttemptProcessing(ksPin, atDispatch);
        if (atDispatch)
            KeLowerIrql(level);
    };

    open.pin.SetState(KSSTATE_PAUSE);
    open.pin.Queue(frames[0]);
    attempt(false);
    EXPECT_EQ(calls, 0) << "not before it runs";
    open.pin.SetState(KSSTATE_RUN);
    EXPECT_EQ(calls, 1);
    open.pin.Queue(frames[1]);
    EXPECT_EQ(calls, 1) << "the queue was not exhausted";
    take = true;
    attempt(true);
    ASSERT_EQ(open.pin.NextFrame(&done, 1000), STATUS_SUCCESS);
    ASSERT_EQ(open.pin.NextFrame(&done, 1000), STATUS_SUCCESS);
    Sleep(1); // virtual time moves when the work item has nothing left to do
    EXPECT_EQ(calls, 3);
    take = false;
    open.pin.Queue(frames[2]);
    EXPECT_EQ(calls, 4);
}

} // namespace
} // namespace streaming_test
