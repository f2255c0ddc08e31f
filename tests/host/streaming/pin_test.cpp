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

TEST(StreamingPin, RefusedCreateFreesThePin) {
    Hooks hooks;
    hooks.pinCreate = [](PKSPIN pin, PIRP) {
        EXPECT_EQ(pin->DeviceState, KSSTATE_STOP);
        EXPECT_EQ(pin->Communication, KSPIN_COMMUNICATION_SINK);
        EXPECT_TRUE(pin->ConnectionIsExternal);
        return STATUS_DEVICE_BUSY;
    };
    Machine machine(std::move(hooks));
    OpenPin open(machine);
    EXPECT_EQ(open.status, STATUS_DEVICE_BUSY);
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

TEST(StreamingPin, StepsDownCannotBeRefused) {
    Hooks hooks;
    hooks.setState = [](PKSPIN, KSSTATE to, KSSTATE from) {
        return to == KSSTATE_ACQUIRE && from == KSSTATE_PAUSE ? STATUS_IO_DEVICE_ERROR : STATUS_SUCCESS;
    };
    Machine machine(std::move(hooks));
    OpenPin open(machine);
    ASSERT_EQ(open.pin.SetState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(open.pin.SetState(KSSTATE_STOP), STATUS_IO_DEVICE_ERROR);
    KSSTATE state = KSSTATE_RUN;
    EXPECT_EQ(open.pin.State(state), STATUS_SUCCESS);
    EXPECT_EQ(state, KSSTATE_STOP);
}

TEST(StreamingPin, FramesComeInOrderAndStamped) {
    Machine machine;
    Frame first(kFrameSize), second(kFrameSize, false), third(kFrameSize);
    OpenPin open(machine);
    ASSERT_EQ(open.status, STATUS_SUCCESS);
    host::client::Clock clock;
    ASSERT_EQ(clock.Open(open.pin), STATUS_SUCCESS);
    ASSERT_EQ(open.pin.AssignClock(&clock), STATUS_SUCCESS);
    EXPECT_EQ(open.pin.Queue(first), STATUS_INVALID_DEVICE_STATE) << "a stopped pin takes no frames";
    ASSERT_EQ(open.pin.SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    for (Frame *frame : {&first, &second, &third})
        ASSERT_EQ(open.pin.Queue(*frame), STATUS_SUCCESS);
    Frame *done = nullptr;
    EXPECT_EQ(open.pin.NextFrame(&done, 100), STATUS_TIMEOUT) << "nothing comes before the pin runs";
    ASSERT_EQ(open.pin.SetState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(open.pin.AssignClock(nullptr), STATUS_INVALID_DEVICE_STATE);

    LONGLONG number = 0;
    for (Frame *expected : {&first, &second, &third}) {
        ++number;
        ASSERT_EQ(open.pin.NextFrame(&done, 1000), STATUS_SUCCESS);
        ASSERT_EQ(done, expected);
        EXPECT_EQ(done->Status(), STATUS_SUCCESS);
        EXPECT_EQ(done->Information(), done->Header().Size);
        ASSERT_EQ(done->Data().size(), kFrameSize);
        EXPECT_EQ(done->Data().front(), number);
        EXPECT_EQ(done->Data().back(), number);
        EXPECT_EQ(done->Header().Data, done->Buffer().data()) << "the caller's own address";
        EXPECT_EQ(done->Header().Duration, kFrameInterval);
        EXPECT_EQ(done->Header().PresentationTime.Time, number * kFrameInterval) << "stream time begins at run";
        EXPECT_EQ(done->Header().OptionsFlags,
                  ULONG{KSSTREAM_HEADER_OPTIONSF_DURATIONVALID | KSSTREAM_HEADER_OPTIONSF_TIMEVALID});
        EXPECT_EQ(done->Info().PictureNumber, expected == &second ? 0 : number) << "a short header gets no more";
    }
    EXPECT_EQ(open.pin.NextFrame(&done), STATUS_NO_MORE_ENTRIES);

    LONGLONG time = 0, later = 0;
    EXPECT_EQ(open.pin.SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    EXPECT_EQ(clock.Time(time), STATUS_SUCCESS);
    open.pin.Queue(first);
    EXPECT_EQ(open.pin.NextFrame(&done, 50), STATUS_TIMEOUT);
    EXPECT_EQ(clock.Time(later), STATUS_SUCCESS);
    EXPECT_EQ(time, 3 * kFrameInterval);
    EXPECT_EQ(later, time) << "a paused stream has no time";
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

TEST(StreamingPin, FormatChangeIsTheDriversToTakeOrRefuse) {
    Hooks hooks;
    hooks.setFormat = [](PKSPIN pin, PKSDATAFORMAT old, const KSDATARANGE *) -> NTSTATUS {
        if (old == nullptr)
            return STATUS_SUCCESS;
        auto height = [](PKSDATAFORMAT format) {
            return reinterpret_cast<KS_DATAFORMAT_VIDEOINFOHEADER *>(format)->VideoInfoHeader.bmiHeader.biHeight;
        };
        return height(old) == -height(pin->ConnectionFormat) ? STATUS_SUCCESS : STATUS_INVALID_DEVICE_STATE;
    };
    Machine machine(std::move(hooks));
    OpenPin open(machine);
    ASSERT_EQ(open.pin.SetState(KSSTATE_RUN), STATUS_SUCCESS);
    auto format = GreyFormat();
    EXPECT_EQ(open.pin.SetFormat(BytesOf(format)), STATUS_INVALID_DEVICE_STATE);
    format.VideoInfoHeader.bmiHeader.biHeight = -kHeight;
    EXPECT_EQ(open.pin.SetFormat(BytesOf(format)), STATUS_SUCCESS);
    auto wider = format;
    wider.VideoInfoHeader.bmiHeader.biHeight = 7;
    EXPECT_EQ(open.pin.SetFormat(BytesOf(wider)), STATUS_INVALID_DEVICE_STATE);
    std::vector<std::uint8_t> current;
    EXPECT_EQ(open.pin.Format(current), STATUS_SUCCESS);
    EXPECT_EQ(std::memcmp(current.data(), &format, sizeof(format)), 0) << "a refused format leaves the old one";
    wider.DataFormat.FormatSize = 8;
    EXPECT_EQ(open.pin.SetFormat(BytesOf(wider)), STATUS_INVALID_BUFFER_SIZE);
    ++format.DataFormat.SubFormat.Data1;
    EXPECT_EQ(open.pin.SetFormat(BytesOf(format)), STATUS_NO_MATCH);
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

TEST(StreamingPin, ClosedHandleGivesItsFramesBack) {
    Machine machine;
    OpenPin open(machine);
    ASSERT_EQ(open.pin.SetState(KSSTATE_RUN), STATUS_SUCCESS);
    std::vector<std::uint8_t> buffer(kFrameSize);
    KSSTREAM_HEADER header{.Size = sizeof(header), .FrameExtent = kFrameSize, .Data = buffer.data()};
    IO_STATUS_BLOCK ioStatus{};
    EXPECT_EQ(ZwDeviceIoControlFile(open.pin.Handle(), nullptr, nullptr, nullptr, &ioStatus, IOCTL_KS_READ_STREAM,
                                    nullptr, 0, &header, sizeof(header)),
              STATUS_PENDING);
    machine.TakeLog();
    static_cast<host::client::KsFile &>(open.pin).Close();
    EXPECT_EQ(machine.TakeLog(), (Log{"state 3>2", "state 2>1", "state 1>0", "pin close"}));
    EXPECT_EQ(ioStatus.Status, STATUS_CANCELLED);
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
        EXPECT_EQ(KsStreamPointerAdvance(edge), STATUS_DEVICE_NOT_READY) << "the last frame";
        KsStreamPointerUnlock(edge, FALSE);
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

TEST(StreamingPin, UnpluggedPinIsOnlyGoodForClosing) {
    Machine machine;
    std::u16string link = machine.Link();
    Frame frame(kFrameSize);
    OpenPin open(machine);
    host::client::Clock clock;
    ASSERT_EQ(clock.Open(open.pin), STATUS_SUCCESS);
    ASSERT_EQ(open.pin.AssignClock(&clock), STATUS_SUCCESS);
    ASSERT_EQ(open.pin.SetState(KSSTATE_RUN), STATUS_SUCCESS);
    ASSERT_EQ(open.pin.Queue(frame), STATUS_SUCCESS);
    machine.Unplug();
    Frame *done = nullptr;
    ASSERT_EQ(open.pin.NextFrame(&done, 0), STATUS_SUCCESS);
    EXPECT_EQ(open.pin.Queue(frame), STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_EQ(open.pin.SetState(KSSTATE_RUN), STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_EQ(open.pin.SetState(KSSTATE_STOP), STATUS_SUCCESS);
    host::client::Filter again;
    EXPECT_FALSE(NT_SUCCESS(again.Open(link)));
    EXPECT_NE(machine.Pdo()->AttachedDevice, nullptr) << "open files keep the device";
    clock.Close();
    open.pin.Close();
    open.filter.Close();
    EXPECT_EQ(machine.Pdo()->AttachedDevice, nullptr) << "gone with the last of them";
    ASSERT_EQ(machine.StartStack(), STATUS_SUCCESS);
    EXPECT_EQ(again.Open(machine.Link()), STATUS_SUCCESS);
}

} // namespace
} // namespace streaming_test
