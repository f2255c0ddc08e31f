// The kernels by themselves, one thread: nanoseconds per pixel, and how much longer they take than copying as many
// bytes as they write. Kernel and copy take turns, so that whatever else the machine does meets both.
#include "bench/conversion.h"
#include "bench/measure.h"
#include "imaging/conversion.h"
#include "imaging/processor_features.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

using namespace imaging;

namespace bench {

namespace {

constexpr std::int16_t kMatrix[kMatrixCoefficients] = {90, -13, -13, -13, 90, -13, -13, -13, 90};
constexpr GainRecords kGains = {.blue = {.current = 85}, .red = {.current = 100}, .green = {.current = 64}};

void WriteThreeTimes(std::uint8_t *to, const std::uint8_t *from, std::size_t size) {
    using Bytes [[gnu::vector_size(16), gnu::aligned(1)]] = std::uint8_t;
    for (std::size_t i = 0; i + 16 <= size; i += 16) {
        const Bytes bytes = *reinterpret_cast<const Bytes *>(from + i);
        for (int copy = 0; copy < 3; ++copy)
            *reinterpret_cast<Bytes *>(to + 3 * i + 16 * copy) = bytes;
    }
}

// Measures a conversion of a noisy mosaic.
void Measure(benchmark::State &state, Size size, std::uint32_t fourcc, std::uint32_t pixelBytes, Bound bound,
             const Conversion &convert) {
    const std::size_t pixels = std::size_t{size.width} * size.height;
    std::vector<std::uint8_t> from(pixels);
    std::vector<std::uint8_t> to(pixels * pixelBytes);
    std::vector<std::uint8_t> copy(to.size());
    std::minstd_rand random(1);
    for (std::uint8_t &byte : from)
        byte = static_cast<std::uint8_t>(random() >> 8);
    const ImageDescriptor source{
        from.data(), static_cast<std::uint32_t>(pixels), kFourCcBayerGb, size.width, size.height, size.width};
    const ImageDescriptor destination{
        to.data(), static_cast<std::uint32_t>(to.size()), fourcc, size.width, size.height, size.width * pixelBytes};
    std::vector<double> kernel;
    std::vector<double> reference;
    for (auto _ : state) {
        kernel.push_back(Seconds([&] { convert(destination, source); }));
        reference.push_back(Seconds([&] {
            if (bound == Bound::kCopy)
                std::memcpy(copy.data(), to.data(), to.size());
            else
                WriteThreeTimes(copy.data(), from.data(), from.size());
        }));
        benchmark::ClobberMemory();
        state.SetIterationTime(kernel.back());
    }
    const double nanosecondsAPixel = 1e9 / static_cast<double>(pixels);
    state.counters["min_ns/px"] = *std::min_element(kernel.begin(), kernel.end()) * nanosecondsAPixel;
    state.counters["ns/px"] = Median(kernel) * nanosecondsAPixel;
    state.counters["bound_ns/px"] = Median(reference) * nanosecondsAPixel;
    state.counters["ratio"] = Median(kernel) / Median(reference);
}

} // namespace

void RegisterConversion(const std::string &name, Size size, std::uint32_t fourcc, std::uint32_t pixelBytes, Bound bound,
                        const Conversion &convert) {
    const std::string fullName = name + "/" + std::to_string(size.width) + "x" + std::to_string(size.height);
    benchmark::RegisterBenchmark(fullName.c_str(), [=](benchmark::State &state) {
        Measure(state, size, fourcc, pixelBytes, bound, convert);
    })->UseManualTime();
}

void RegisterImaging() {
    for (const Size size : kSizes) {
        for (const InstructionSet &set : kInstructionSets) {
            if ((DetectProcessorFeatures() & set.features) != set.features)
                continue;
            const std::uint32_t features = set.features << kFeatureShift;
            for (std::uint32_t mode = 0; mode < kModes; ++mode) {
                const bool rgb24 = (mode & kModeRgb24) != 0;
                RegisterConversion("demosaic/" + std::string(set.name) + "/mode" + std::to_string(mode), size,
                                   rgb24 ? kFourCcRgb24 : kFourCcRgb32, rgb24 ? 3 : 4, Bound::kCopy,
                                   [=](const ImageDescriptor &to, const ImageDescriptor &from) {
                                       ConvertColourFrame(to, from, kMatrix, kGains, (mode & 7) | features);
                                   });
            }
            for (const bool smooth : {false, true}) {
                const std::uint32_t flags = features | (smooth ? kSmooth : 0) | kOrientation;
                const std::string name = std::string(smooth ? "smooth_grey_to_" : "grey_to_");
                const auto convert = [=](const ImageDescriptor &to, const ImageDescriptor &from) {
                    ConvertMonoFrame(to, from, flags);
                };
                RegisterConversion(name + "rgb24/" + set.name, size, kFourCcRgb24, 3, Bound::kReadOneWriteThree,
                                   convert);
                if (smooth)
                    RegisterConversion(name + "grey/" + set.name, size, kFourCcGrey8, 1, Bound::kCopy, convert);
            }
        }
        for (const std::uint32_t flags : {0u, std::uint32_t{kOrientation}}) {
            RegisterConversion(
                flags == 0 ? "copy/straight" : "copy/flipped", size, kFourCcGrey8, 1, Bound::kCopy,
                [=](const ImageDescriptor &to, const ImageDescriptor &from) { ConvertMonoFrame(to, from, flags); });
        }
    }
}

} // namespace bench
