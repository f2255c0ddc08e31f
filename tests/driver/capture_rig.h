// A computer with the driver on one simulated camera, and an application that captures from it, in virtual time.
#pragma once

#include "host/cameras/catalogue.h"
#include "host/client/computer.h"
#include "host/client/pin.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);

namespace uvc::driver_test {

using host::client::BytesOf;

constexpr ULONG kPinId = 0;
constexpr LONGLONG kFrameTimeoutMs = 3000;

constexpr ULONG FourCc(const char (&text)[5]) {
    return static_cast<UCHAR>(text[0]) | static_cast<UCHAR>(text[1]) << 8 | static_cast<UCHAR>(text[2]) << 16 |
           static_cast<ULONG>(static_cast<UCHAR>(text[3])) << 24;
}

inline std::shared_ptr<host::cameras::SimulatedCamera> Camera(const std::string &text) {
    std::string reason;
    auto camera = host::cameras::MakeCamera(text, reason);
    EXPECT_TRUE(camera) << reason;
    if (camera)
        camera->SetFreeRun(true);
    return camera;
}

// The names of all simulated models, "sim:8101" and so on.
inline std::vector<std::string> ModelNames() {
    std::vector<std::string> names;
    for (const auto &camera : host::cameras::ListCameras())
        names.push_back(camera.name);
    return names;
}

// One application: a filter, a pin, its frames and a clock.
class Application {
  public:
    // STATUS_NO_SUCH_DEVICE without a filter.
    NTSTATUS OpenFilter() {
        std::vector<std::u16string> links;
        NTSTATUS status = host::client::FindCaptureFilters(links);
        if (!NT_SUCCESS(status))
            return status;
        return links.empty() ? STATUS_NO_SUCH_DEVICE : filter.Open(links.front());
    }

    std::vector<KS_DATARANGE_VIDEO> Ranges() {
        std::vector<KS_DATARANGE_VIDEO> ranges;
        EXPECT_EQ(filter.DataRanges(kPinId, ranges), STATUS_SUCCESS);
        return ranges;
    }

    NTSTATUS OpenPin(const KS_DATARANGE_VIDEO &range) {
        NTSTATUS status = filter.Intersect(kPinId, BytesOf(range), format);
        return NT_SUCCESS(status) ? pin.Open(filter, kPinId, format) : status;
    }

    const KS_VIDEOINFOHEADER &Info() const {
        return reinterpret_cast<const KS_DATAFORMAT_VIDEOINFOHEADER *>(format.data())->VideoInfoHeader;
    }

    // Claims the camera and queues `count` frames.
    NTSTATUS Pause(unsigned count = 4, bool withInfo = true) {
        NTSTATUS status = pin.SetState(KSSTATE_PAUSE);
        for (unsigned i = 0; i < count && NT_SUCCESS(status); ++i) {
            frames.push_back(std::make_unique<host::client::Frame>(Info().bmiHeader.biSizeImage, withInfo));
            status = pin.Queue(*frames.back());
        }
        return status;
    }

    NTSTATUS Run() {
        NTSTATUS status = Pause();
        return NT_SUCCESS(status) ? pin.SetState(KSSTATE_RUN) : status;
    }

    // The next frame that came back, or null after the time-out.
    host::client::Frame *Next() {
        host::client::Frame *frame = nullptr;
        return NT_SUCCESS(pin.NextFrame(&frame, kFrameTimeoutMs)) && frame != nullptr &&
                       frame->Status() != STATUS_PENDING
                   ? frame
                   : nullptr;
    }

    // Gives a frame back to the driver and a credit to the camera.
    void Return(host::client::Frame &frame, host::cameras::SimulatedCamera &camera) {
        camera.GrantFrame();
        EXPECT_EQ(pin.Queue(frame), STATUS_SUCCESS);
    }

    host::client::Filter filter;
    std::vector<std::uint8_t> format;
    std::vector<std::unique_ptr<host::client::Frame>> frames; // outlive the pin
    host::client::Pin pin;
    host::client::Clock clock; // closed before the pin
};

class Rig {
  public:
    explicit Rig(const std::string &text, host::client::ComputerOptions options = {})
        : camera(Camera(text)), computer(DriverEntry, std::move(options)), started(computer.PlugIn(camera)) {
        if (NT_SUCCESS(started))
            EXPECT_EQ(app.OpenFilter(), STATUS_SUCCESS);
    }

    std::shared_ptr<host::cameras::SimulatedCamera> camera;
    host::client::Computer computer;
    NTSTATUS started;
    Application app;
};

inline std::optional<KS_DATARANGE_VIDEO> FindRange(const std::vector<KS_DATARANGE_VIDEO> &ranges, ULONG fourCc,
                                                   LONG width = 0) {
    for (const KS_DATARANGE_VIDEO &range : ranges) {
        const KS_BITMAPINFOHEADER &bitmap = range.VideoInfoHeader.bmiHeader;
        if (bitmap.biCompression == fourCc && (width == 0 || bitmap.biWidth == width))
            return range;
    }
    return std::nullopt;
}

} // namespace uvc::driver_test
