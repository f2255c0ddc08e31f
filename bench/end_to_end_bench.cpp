// Frames through everything there is: a free-running simulated camera, the bus, the driver, kernel streaming, an
// application that takes each frame and queues it again. Time is the wall's, as several threads share the work; the
// bound is one memcpy of the delivered bytes.
#include "bench/measure.h"
#include "bench/suites.h"
#include "host/cameras/catalogue.h"
#include "host/cameras/descriptors.h"
#include "host/client/computer.h"
#include "host/client/pin.h"
#include "imaging/image.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);

namespace bench {

namespace {

using host::cameras::SimulatedCamera;

constexpr ULONG kCapturePin = 0;
constexpr LONGLONG kFrameTimeoutMs = 10'000;
constexpr int kWarmUp = 10;
constexpr int kFrames = 200;
constexpr int kCopies = 25;

// A camera without conversion that has all the sizes, which no model has.
std::shared_ptr<SimulatedCamera> MakeDirectCamera() {
    static constexpr host::cameras::FrameInterval kRates[] = {{333333}};
    static constexpr host::cameras::FrameModel kFrameSizes[] = {
        {640, 480, kRates}, {1280, 960, kRates}, {2592, 1944, kRates}};
    static constexpr host::cameras::FormatModel kFormats[] = {{host::cameras::PixelFormat::Grey8, false, kFrameSizes}};
    host::cameras::CameraBody body;
    body.model = *host::cameras::FindModel("generic");
    body.model.formats = kFormats;
    body.model.sensorWidth = 2592;
    body.model.sensorHeight = 1944;
    body.model.payloadSize = 65536;
    body.device = BuildDeviceDescriptor(body.model);
    body.configuration = BuildConfigurationDescriptor(body.model, true);
    body.strings = {std::string(body.model.manufacturer), std::string(body.model.product),
                    std::string(body.model.serial)};
    return std::make_shared<SimulatedCamera>(std::move(body), host::cameras::CameraOptions{});
}

std::shared_ptr<SimulatedCamera> MakeWorkerCamera(Size size, const char *payload) {
    const std::string name = size.width == 2592 ? "sim:8205" : "sim:8201";
    std::string reason;
    return host::cameras::MakeCamera(name + ",payload=" + payload, reason);
}

bool Fits(const KS_BITMAPINFOHEADER &bitmap, Size size, std::uint32_t fourcc) {
    const bool rgb24 = fourcc == imaging::kFourCcRgb24;
    return bitmap.biWidth == static_cast<LONG>(size.width) &&
           std::abs(bitmap.biHeight) == static_cast<LONG>(size.height) &&
           (rgb24 ? bitmap.biCompression == 0 && bitmap.biBitCount == 24 : bitmap.biCompression == fourcc);
}

// A booted computer, its camera streaming.
class Stream {
  public:
    Stream(std::shared_ptr<SimulatedCamera> camera, Size size, std::uint32_t fourcc)
        : camera_(std::move(camera)), computer_(DriverEntry, {.runtime = {.clock = host::ClockKind::Real}}) {
        camera_->SetFreeRun(true);
        status_ = Open(size, fourcc);
    }

    NTSTATUS Status() const { return status_; }
    std::size_t FrameBytes() const { return frameBytes_; }

    // Takes one frame and queues its buffer again.
    bool TakeFrame() {
        host::client::Frame *frame = nullptr;
        status_ = pin_.NextFrame(&frame, kFrameTimeoutMs);
        if (status_ == STATUS_SUCCESS)
            status_ = frame->Status();
        camera_->GrantFrame();
        if (status_ == STATUS_SUCCESS)
            status_ = pin_.Queue(*frame);
        return status_ == STATUS_SUCCESS;
    }

  private:
    NTSTATUS Open(Size size, std::uint32_t fourcc) {
        NTSTATUS status = computer_.PlugIn(camera_);
        std::vector<std::u16string> links;
        if (NT_SUCCESS(status))
            status = host::client::FindCaptureFilters(links);
        if (NT_SUCCESS(status))
            status = links.empty() ? STATUS_NO_SUCH_DEVICE : filter_.Open(links.front());
        std::vector<KS_DATARANGE_VIDEO> ranges;
        if (NT_SUCCESS(status))
            status = filter_.DataRanges(kCapturePin, ranges);
        if (!NT_SUCCESS(status))
            return status;
        for (const KS_DATARANGE_VIDEO &range : ranges) {
            if (Fits(range.VideoInfoHeader.bmiHeader, size, fourcc))
                return Start(range);
        }
        return STATUS_NO_MATCH;
    }
    NTSTATUS Start(const KS_DATARANGE_VIDEO &range) {
        std::vector<std::uint8_t> format;
        NTSTATUS status = filter_.Intersect(kCapturePin, host::client::BytesOf(range), format);
        if (NT_SUCCESS(status))
            status = pin_.Open(filter_, kCapturePin, format);
        KSALLOCATOR_FRAMING_EX framing{};
        if (NT_SUCCESS(status))
            status = pin_.Framing(framing);
        if (NT_SUCCESS(status))
            status = pin_.SetState(KSSTATE_PAUSE);
        frameBytes_ = range.VideoInfoHeader.bmiHeader.biSizeImage;
        for (unsigned i = 0; i < framing.FramingItem[0].Frames && NT_SUCCESS(status); ++i) {
            frames_.push_back(std::make_unique<host::client::Frame>(frameBytes_));
            status = pin_.Queue(*frames_.back());
        }
        return NT_SUCCESS(status) ? pin_.SetState(KSSTATE_RUN) : status;
    }

    std::shared_ptr<SimulatedCamera> camera_;
    host::client::Computer computer_;
    host::client::Filter filter_;
    std::vector<std::unique_ptr<host::client::Frame>> frames_;
    host::client::Pin pin_;
    std::size_t frameBytes_ = 0;
    NTSTATUS status_;
};

void MeasureCopies(std::size_t size, std::vector<double> &seconds) {
    const std::vector<std::uint8_t> from(size, 1);
    std::vector<std::uint8_t> to(size);
    for (int i = 0; i < kCopies; ++i) {
        seconds.push_back(Seconds([&] { std::memcpy(to.data(), from.data(), size); }, WallTime));
        benchmark::ClobberMemory();
    }
}

void Measure(benchmark::State &state, std::shared_ptr<SimulatedCamera> camera, Size size, std::uint32_t fourcc) {
    Stream stream(std::move(camera), size, fourcc);
    bool streams = NT_SUCCESS(stream.Status());
    for (int i = 0; i < kWarmUp && streams; ++i)
        streams = stream.TakeFrame();
    std::vector<double> copies;
    MeasureCopies(stream.FrameBytes(), copies);
    std::vector<double> frames;
    while (streams && state.KeepRunning()) {
        frames.push_back(Seconds([&] { streams = stream.TakeFrame(); }, WallTime));
    }
    if (!streams) {
        state.SkipWithError(("the stream ended with status " + std::to_string(stream.Status())).c_str());
        return;
    }
    MeasureCopies(stream.FrameBytes(), copies);
    double total = 0;
    for (const double seconds : frames)
        total += seconds;
    const double mean = total / static_cast<double>(frames.size()); // frames come in bursts: no single time tells much
    state.counters["fps"] = 1 / mean;
    state.counters["MB/s"] = static_cast<double>(stream.FrameBytes()) / mean / 1e6;
    state.counters["ratio"] = mean / Median(copies);
}

template <class Make> void Register(const std::string &name, Size size, std::uint32_t fourcc, const Make &makeCamera) {
    const std::string text =
        "end_to_end/" + name + "/" + std::to_string(size.width) + "x" + std::to_string(size.height);
    benchmark::RegisterBenchmark(text.c_str(),
                                 [=](benchmark::State &state) { Measure(state, makeCamera(), size, fourcc); })
        ->Iterations(kFrames)
        ->UseRealTime();
}

} // namespace

void RegisterEndToEnd() {
    constexpr struct {
        const char *name;
        std::uint32_t fourcc;
    } kWorkerFormats[] = {{"BY8", imaging::kFourCcBayer8}, {"RGB24", imaging::kFourCcRgb24}};
    for (const Size size : kSizes) {
        Register("direct/Y800", size, imaging::kFourCcGrey8, MakeDirectCamera);
        for (const auto &format : kWorkerFormats) {
            Register(std::string("collecting/") + format.name, size, format.fourcc,
                     [size] { return MakeWorkerCamera(size, "65536"); });
            Register(std::string("whole_transfers/") + format.name, size, format.fourcc,
                     [size] { return MakeWorkerCamera(size, "frame"); });
        }
    }
}

} // namespace bench
