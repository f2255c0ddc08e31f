// Other converters on the same images in the same run, one thread each, as far as they were found when this was built;
// and what every converter makes of the simulated chart.
#include "bench/conversion.h"
#include "host/cameras/sensor.h"
#include "imaging/conversion.h"

#ifdef UVC_PEER_OPENCV
#include <opencv2/imgproc.hpp>
#endif
#ifdef UVC_PEER_GSTREAMER
#include <gst/check/gstharness.h>
#endif
#ifdef UVC_PEER_LIBYUV
#include <libyuv.h>
#endif

#include <png.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <vector>

using namespace imaging;

namespace bench {

namespace {

struct Peer {
    const char *name; // no slash
    std::uint32_t fourcc;
    std::uint32_t pixelBytes;
    Bound bound;
    bool demosaics;
    Conversion convert;
    Conversion fetch; // brings the result to its destination; empty: it is there
};

#ifdef UVC_PEER_OPENCV
Peer OpenCvPeer(const char *name, int code, std::uint32_t fourcc, Bound bound) {
    const std::uint32_t pixelBytes = fourcc == kFourCcRgb24 ? 3 : 4;
    return {.name = name,
            .fourcc = fourcc,
            .pixelBytes = pixelBytes,
            .bound = bound,
            .demosaics = bound == Bound::kCopy,
            .convert = [code, pixelBytes](const ImageDescriptor &to, const ImageDescriptor &from) {
                const cv::Mat source(static_cast<int>(from.height), static_cast<int>(from.width), CV_8UC1, from.data);
                cv::Mat destination(static_cast<int>(to.height), static_cast<int>(to.width),
                                    CV_8UC(static_cast<int>(pixelBytes)), to.data);
                cv::cvtColor(source, destination, code);
            }};
}
#endif

#ifdef UVC_PEER_GSTREAMER
// The element alone: the harness calls it on the caller's thread.
class Bayer2Rgb {
  public:
    Bayer2Rgb() {
        gst_init(nullptr, nullptr);
        if (GstElement *element = gst_element_factory_make("bayer2rgb", nullptr)) {
            harness_ = gst_harness_new_with_element(element, "sink", "src");
            gst_object_unref(element);
        }
    }
    ~Bayer2Rgb() {
        Drop();
        if (harness_ != nullptr)
            gst_harness_teardown(harness_);
    }
    Bayer2Rgb(const Bayer2Rgb &) = delete;
    Bayer2Rgb &operator=(const Bayer2Rgb &) = delete;

    bool IsThere() const { return harness_ != nullptr; }

    void Convert(const ImageDescriptor &from) {
        if (width_ != from.width || height_ != from.height) {
            width_ = from.width;
            height_ = from.height;
            const std::string size =
                ",width=" + std::to_string(width_) + ",height=" + std::to_string(height_) + ",framerate=30/1";
            gst_harness_set_caps_str(harness_, ("video/x-bayer,format=bggr" + size).c_str(),
                                     ("video/x-raw,format=BGRx" + size).c_str());
        }
        Drop();
        converted_ =
            gst_harness_push_and_pull(harness_, gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, from.data,
                                                                            from.size, 0, from.size, nullptr, nullptr));
    }
    void Fetch(const ImageDescriptor &to) { gst_buffer_extract(converted_, 0, to.data, to.size); }

  private:
    void Drop() { gst_clear_buffer(&converted_); }

    GstHarness *harness_ = nullptr;
    GstBuffer *converted_ = nullptr;
    std::uint32_t width_ = 0;
    std::uint32_t height_ = 0;
};
#endif

std::vector<Peer> Peers() {
    std::vector<Peer> peers;
#ifdef UVC_PEER_OPENCV
    cv::setNumThreads(1);
    peers.push_back(OpenCvPeer("opencv_bilinear_rgb24", cv::COLOR_BayerBGGR2BGR, kFourCcRgb24, Bound::kCopy));
    peers.push_back(OpenCvPeer("opencv_edge_aware_rgb24", cv::COLOR_BayerBGGR2BGR_EA, kFourCcRgb24, Bound::kCopy));
    peers.push_back(OpenCvPeer("opencv_vng_rgb24", cv::COLOR_BayerBGGR2BGR_VNG, kFourCcRgb24, Bound::kCopy));
    peers.push_back(OpenCvPeer("opencv_bilinear_rgb32", cv::COLOR_BayerBGGR2BGRA, kFourCcRgb32, Bound::kCopy));
    peers.push_back(OpenCvPeer("opencv_grey_to_rgb24", cv::COLOR_GRAY2BGR, kFourCcRgb24, Bound::kReadOneWriteThree));
#endif
#ifdef UVC_PEER_GSTREAMER
    const auto bayer2Rgb = std::make_shared<Bayer2Rgb>();
    if (bayer2Rgb->IsThere())
        peers.push_back(
            {.name = "gstreamer_bayer2rgb_rgb32",
             .fourcc = kFourCcRgb32,
             .pixelBytes = 4,
             .bound = Bound::kCopy,
             .demosaics = true,
             .convert = [bayer2Rgb](const ImageDescriptor &, const ImageDescriptor &from) { bayer2Rgb->Convert(from); },
             .fetch = [bayer2Rgb](const ImageDescriptor &to, const ImageDescriptor &) { bayer2Rgb->Fetch(to); }});
#endif
#ifdef UVC_PEER_LIBYUV
    peers.push_back({.name = "libyuv_grey_to_rgb32",
                     .fourcc = kFourCcRgb32,
                     .pixelBytes = 4,
                     .bound = Bound::kCopy,
                     .demosaics = false,
                     .convert = [](const ImageDescriptor &to, const ImageDescriptor &from) {
                         libyuv::J400ToARGB(from.data, static_cast<int>(from.stride), to.data,
                                            static_cast<int>(to.stride), static_cast<int>(to.width),
                                            static_cast<int>(to.height));
                     }});
#endif
    return peers;
}

// The chart before a sensor without noise, at its default settings, in whose raw bytes nothing is lost but the colours
// that the filter holds back.
struct Chart {
    std::uint32_t width = 1280;
    std::uint32_t height = 960;
    host::cameras::Picture truth = host::cameras::DrawChart(width, height);
    host::cameras::FrameBytes mosaic;

    Chart() {
        host::cameras::Sensor sensor(*host::cameras::FindModel("8201"), {});
        mosaic = sensor.Expose({host::cameras::PixelFormat::Bayer8, width, height, width * height}, {}, 0);
    }
};

bool WritePicture(const std::string &path, const Chart &chart, const std::vector<std::uint8_t> &rgb) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = chart.width;
    image.height = chart.height;
    image.format = PNG_FORMAT_RGB;
    if (png_image_write_to_file(&image, path.c_str(), 0, rgb.data(), 0, nullptr) != 0)
        return true;
    std::fprintf(stderr, "cannot write %s: %s\n", path.c_str(), image.message);
    return false;
}

constexpr int kLargestShift = 2;

// In dB, of the picture moved by `x` and `y` pixels against the truth, without a margin.
double SignalToNoise(const Chart &chart, const std::vector<std::uint8_t> &rgb, int x, int y) {
    double signal = 0;
    double noise = 0;
    for (int row = kLargestShift; row < static_cast<int>(chart.height) - kLargestShift; ++row) {
        const host::cameras::Rgb *truth = chart.truth.Row(static_cast<std::uint32_t>(row));
        const std::uint8_t *shown = rgb.data() + 3 * ((row + y) * static_cast<int>(chart.width) + x);
        for (int column = kLargestShift; column < static_cast<int>(chart.width) - kLargestShift; ++column) {
            const int wanted[3] = {truth[column].red, truth[column].green, truth[column].blue};
            for (int channel = 0; channel < 3; ++channel) {
                const int error = shown[3 * column + channel] - wanted[channel];
                signal += wanted[channel] * wanted[channel];
                noise += error * error;
            }
        }
    }
    return 10 * std::log10(signal / noise);
}

bool Show(const std::string &folder, const std::string &name, const Chart &chart, std::uint32_t fourcc,
          std::uint32_t pixelBytes, const Conversion &convert) {
    const std::size_t pixels = chart.truth.pixels.size();
    std::vector<std::uint8_t> from(*chart.mosaic);
    std::vector<std::uint8_t> to(pixels * pixelBytes);
    convert(
        {to.data(), static_cast<std::uint32_t>(to.size()), fourcc, chart.width, chart.height, chart.width * pixelBytes},
        {from.data(), static_cast<std::uint32_t>(pixels), kFourCcBayerBg, chart.width, chart.height, chart.width});
    std::vector<std::uint8_t> rgb;
    rgb.reserve(3 * pixels);
    for (std::size_t i = 0; i < pixels; ++i) {
        const std::uint8_t *pixel = to.data() + i * pixelBytes;
        rgb.insert(rgb.end(), {pixel[2], pixel[1], pixel[0]});
    }
    // A converter that moves the picture is forgiven: that is seldom seen, and it is told.
    double best = 0;
    int bestX = 0;
    int bestY = 0;
    for (int y = -kLargestShift; y <= kLargestShift; ++y) {
        for (int x = -kLargestShift; x <= kLargestShift; ++x) {
            const double ratio = SignalToNoise(chart, rgb, x, y);
            if (ratio > best) {
                best = ratio;
                bestX = x;
                bestY = y;
            }
        }
    }
    std::printf("%-28s %6.2f dB", name.c_str(), best);
    if (bestX != 0 || bestY != 0)
        std::printf("  (moved by %d, %d)", bestX, bestY);
    std::printf("\n");
    return WritePicture(folder + "/chart-" + name + ".png", chart, rgb);
}

} // namespace

void RegisterPeers() {
    for (const Peer &peer : Peers()) {
        for (const Size size : kSizes)
            RegisterConversion(std::string("peers/") + peer.name, size, peer.fourcc, peer.pixelBytes, peer.bound,
                               peer.convert);
    }
}

bool WriteChartPictures(const char *folder) {
    std::error_code ignored; // a folder that is not there shows when a picture is written
    std::filesystem::create_directories(folder, ignored);
    const Chart chart;
    std::printf("\nchart of %ux%u, signal to noise against the scene's true colours; pictures in %s/\n", chart.width,
                chart.height, folder);
    bool written = true;
    for (const InstructionSet &set : kInstructionSets) {
        if ((DetectProcessorFeatures() & set.features) != set.features)
            continue;
        for (const bool smooth : {false, true}) {
            const std::uint32_t flags = kOrientation | (smooth ? kSmooth : 0) | set.features << kFeatureShift;
            written &= Show(folder, std::string(set.name) + (smooth ? "-smooth" : ""), chart, kFourCcRgb24, 3,
                            [flags](const ImageDescriptor &to, const ImageDescriptor &from) {
                                ConvertColourFrame(to, from, {}, {}, flags);
                            });
        }
    }
    for (const Peer &peer : Peers()) {
        if (!peer.demosaics)
            continue;
        written &= Show(folder, peer.name, chart, peer.fourcc, peer.pixelBytes,
                        [&peer](const ImageDescriptor &to, const ImageDescriptor &from) {
                            peer.convert(to, from);
                            if (peer.fetch)
                                peer.fetch(to, from);
                        });
    }
    return written;
}

} // namespace bench
