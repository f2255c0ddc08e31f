// Payloads into frames, as the completion of a bulk transfer does it: the driver's own routine on hand-made payloads,
// without a bus. Measured against one memcpy of each payload's bytes: what moving them once costs at least.
//
// The locks are the runtime's, which checks every one that is taken; a kernel's cost a few nanoseconds. The worker is
// always busy with the frame before, as it is when frames come fast: waking a sleeping thread is the system's work.
#include "bench/measure.h"
#include "bench/suites.h"
#include "camera/uvc_camera.h"
#include "host/executive/runtime.h"
#include "usb/frame_assembly.h"

#include <benchmark/benchmark.h>

#include <array>
#include <cstring>
#include <memory>
#include <string>

namespace bench {

namespace {

enum class Mode { kDirect, kCollecting, kWholeTransfers, kLargePayloads };

constexpr std::size_t kHeader = 12;
constexpr std::size_t kTransfers = 6; // as many as the driver keeps in flight
constexpr std::size_t kFrames = 3;

struct Setting {
    Mode mode;
    Size size;
    std::size_t transfer; // bytes; 0: as the mode has it

    std::size_t FrameBytes() const { return std::size_t{size.width} * size.height; }
    std::size_t TransferBytes() const {
        if (mode == Mode::kWholeTransfers)
            return kHeader + FrameBytes();
        if (mode == Mode::kLargePayloads)
            return FrameBytes() * 4 / 5; // a frame comes in two transfers
        return transfer;
    }
};

// An application that always has a frame queued. It holds up the worker that completes one until it is told to go on.
class Application final : public uvc::FrameSink {
  public:
    Application(std::size_t size, bool holdsWorker) : holdsWorker_(holdsWorker) {
        KeInitializeEvent(&arrived_, SynchronizationEvent, FALSE);
        KeInitializeEvent(&goOn_, SynchronizationEvent, FALSE);
        for (std::size_t i = 0; i < kFrames; ++i) {
            buffers_[i].resize(size);
            headers_[i] = {.FrameExtent = static_cast<ULONG>(size), .Data = buffers_[i].data()};
            pointers_[i] = {.StreamHeader = &headers_[i]};
        }
    }
    KSSTREAM_POINTER *AcquireFrame() override { return &pointers_[next_++ % kFrames]; }
    void CompleteFrame(KSSTREAM_POINTER *, NTSTATUS) override {
        if (!holdsWorker_)
            return;
        KeSetEvent(&arrived_, IO_NO_INCREMENT, FALSE);
        KeWaitForSingleObject(&goOn_, Executive, KernelMode, FALSE, nullptr);
    }

    void LetGoOn() { KeSetEvent(&goOn_, IO_NO_INCREMENT, FALSE); }
    void AwaitFrame() {
        if (holdsWorker_)
            KeWaitForSingleObject(&arrived_, Executive, KernelMode, FALSE, nullptr);
    }

  private:
    std::array<std::vector<UCHAR>, kFrames> buffers_;
    std::array<KSSTREAM_HEADER, kFrames> headers_{};
    std::array<KSSTREAM_POINTER, kFrames> pointers_{};
    std::size_t next_ = 0;
    const bool holdsWorker_;
    KEVENT arrived_;
    KEVENT goOn_;
};

// A camera whose stream has been started, with an engine that never was: transfers handed back to it stay idle.
class Assembly {
  public:
    explicit Assembly(const Setting &setting)
        : setting_(setting), application_(setting.FrameBytes(), setting.mode != Mode::kDirect),
          camera_(uvc::MakeCamera<uvc::UvcCamera>(nullptr, &application_)) {
        const auto width = static_cast<LONG>(setting.size.width);
        const auto height = static_cast<LONG>(setting.size.height);
        uvc::StreamState &stream = camera_->stream;
        stream.workerMode = setting.mode != Mode::kDirect;
        stream.collecting = setting.mode == Mode::kCollecting || setting.mode == Mode::kLargePayloads;
        stream.largePayloads = setting.mode == Mode::kLargePayloads;
        uvc::BuildSensorHeader(uvc::kSubtypeBy8, width, height, 8, 333333, stream.sensor);
        uvc::BuildSensorHeader(uvc::kSubtypeY800, width, height, 8, 333333, stream.output);
        if (stream.collecting)
            ready_ = NT_SUCCESS(uvc::FramePoolCreate(stream.pool, stream.sensor.bmiHeader.biSizeImage));
        ready_ = ready_ && NT_SUCCESS(camera_->CreateWorker());
        engine_ = uvc::BulkEngineCreate(*camera_, nullptr, nullptr, nullptr, uvc::OnBulkPayload, false);
        for (std::size_t i = 0; i < kTransfers; ++i) {
            // No byte of it is the length of a payload header.
            bytes_[i].assign(setting.TransferBytes(), 0x55);
            uvc::BulkTransfer &transfer = transfers_[i];
            transfer.engine = engine_;
            transfer.irp = IoAllocateIrp(1, FALSE);
            KeInitializeEvent(&transfer.done, NotificationEvent, FALSE);
            transfer.buffer = bytes_[i].data();
            transfer.size = static_cast<ULONG>(bytes_[i].size());
        }
        if (ready_) {
            Feed();
            application_.AwaitFrame();
        }
    }
    ~Assembly() {
        Finish();
        uvc::FramePoolDestroy(camera_->stream.pool);
        uvc::BulkEngineDestroy(engine_);
        for (uvc::BulkTransfer &transfer : transfers_)
            IoFreeIrp(transfer.irp);
        camera_->Destroy(1);
    }
    Assembly(const Assembly &) = delete;
    Assembly &operator=(const Assembly &) = delete;

    bool IsReady() const { return ready_; }

    // Ends the worker; how many frames have been delivered.
    ULONG Finish() {
        application_.LetGoOn();
        uvc::WorkerDestroy(*camera_);
        return camera_->stream.delivered;
    }

    void Feed() {
        fid_ ^= 1;
        ForEachTransfer([this](uvc::BulkTransfer &transfer, std::size_t header, std::size_t length, bool last) {
            if (header != 0) {
                transfer.buffer[0] = kHeader;
                transfer.buffer[1] = static_cast<UCHAR>(0x80 | (last ? 2 : 0) | fid_);
            } else {
                transfer.buffer[0] = 0x55;
            }
            static_cast<void>(
                uvc::OnBulkPayload(*engine_, transfer, *camera_, transfer.buffer, static_cast<ULONG>(header + length)));
        });
    }
    // The worker completes the frame that it holds and takes up the one that was fed.
    void Advance() {
        application_.LetGoOn();
        application_.AwaitFrame();
    }

    void Copy(UCHAR *to) {
        ForEachTransfer([&to](uvc::BulkTransfer &transfer, std::size_t header, std::size_t length, bool) {
            std::memcpy(to, transfer.buffer + header, length);
            to += length;
        });
    }

  private:
    template <class Use> void ForEachTransfer(const Use &use) {
        std::size_t left = setting_.FrameBytes();
        for (std::size_t i = 0; left != 0; ++i) {
            uvc::BulkTransfer &transfer = transfers_[i % kTransfers];
            const std::size_t header = i == 0 || setting_.mode != Mode::kLargePayloads ? kHeader : 0;
            const std::size_t length = std::min(left, transfer.size - header);
            left -= length;
            use(transfer, header, length, left == 0);
        }
    }

    const Setting setting_;
    Application application_;
    uvc::UvcCamera *camera_;
    uvc::BulkStreamEngine *engine_ = nullptr;
    std::array<std::vector<UCHAR>, kTransfers> bytes_;
    std::array<uvc::BulkTransfer, kTransfers> transfers_{};
    UCHAR fid_ = 0;
    bool ready_ = true;
};

// Transfers complete at DISPATCH_LEVEL.
template <class Work> double SecondsAtDispatch(const Work &work) {
    KIRQL before;
    KeRaiseIrql(DISPATCH_LEVEL, &before);
    const double seconds = Seconds(work);
    KeLowerIrql(before);
    return seconds;
}

void Measure(benchmark::State &state, const Setting &setting) {
    const host::Runtime runtime({.clock = host::ClockKind::Real});
    Assembly assembly(setting);
    if (!assembly.IsReady()) {
        state.SkipWithError("no memory");
        return;
    }
    // As many destinations as the frames go to, so that both sides find them equally cold.
    std::vector<std::vector<UCHAR>> copies(setting.mode == Mode::kDirect ? kFrames : 1,
                                           std::vector<UCHAR>(setting.FrameBytes()));
    std::vector<double> assembled;
    std::vector<double> copied;
    ULONG frames = 0;
    for (auto _ : state) {
        UCHAR *copy = copies[frames % copies.size()].data();
        // Who comes second finds the payloads in the cache, so they take turns in that, too.
        const bool copyFirst = ++frames % 2 == 0;
        if (copyFirst)
            copied.push_back(SecondsAtDispatch([&] { assembly.Copy(copy); }));
        assembled.push_back(SecondsAtDispatch([&] { assembly.Feed(); }));
        state.SetIterationTime(assembled.back());
        assembly.Advance();
        if (!copyFirst)
            copied.push_back(SecondsAtDispatch([&] { assembly.Copy(copy); }));
        benchmark::ClobberMemory();
    }
    if (assembly.Finish() != frames + 1) // and the one that came first
        state.SkipWithError("frames were lost");
    const double payloads = static_cast<double>(setting.FrameBytes()) / static_cast<double>(setting.TransferBytes());
    const double whole = Median(assembled);
    const double bound = Median(copied);
    state.counters["ns/frame"] = whole * 1e9;
    state.counters["memcpy_ns/frame"] = bound * 1e9;
    state.counters["ratio"] = whole / bound;
    if (setting.mode != Mode::kWholeTransfers)
        state.counters["overhead_ns/transfer"] = (whole - bound) * 1e9 / std::max(payloads, 1.0);
}

void Register(const char *name, const Setting &setting) {
    const std::string text = "assembly/" + std::string(name) +
                             (setting.transfer == 0 ? "" : "/" + std::to_string(setting.transfer / 1024) + "K") + "/" +
                             std::to_string(setting.size.width) + "x" + std::to_string(setting.size.height);
    benchmark::RegisterBenchmark(text.c_str(), [setting](benchmark::State &state) {
        Measure(state, setting);
    })->UseManualTime();
}

} // namespace

void RegisterAssembly() {
    for (const Size size : kSizes) {
        for (const std::size_t transfer : {16384, 65536}) {
            Register("direct", {Mode::kDirect, size, transfer});
            Register("collecting", {Mode::kCollecting, size, transfer});
        }
        Register("whole_transfers", {Mode::kWholeTransfers, size, 0});
        Register("large_payloads", {Mode::kLargePayloads, size, 0});
    }
}

} // namespace bench
