// What is measured and mended in an image before its conversion, as a share of the plainest conversion of the same
// image: the best set's demosaic to 24 bits, without gains, matrix and smoothing. The two take turns.
#include "bench/measure.h"
#include "bench/suites.h"
#include "camera/balance_law.h"
#include "imaging/brightness.h"
#include "imaging/colour_samples.h"
#include "imaging/conversion.h"
#include "imaging/defect_pixels.h"
#include "imaging/processor_features.h"
#include "imaging/sharpness.h"

#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

using namespace imaging;

namespace bench {

namespace {

constexpr Size kSize = {2592, 1944};
constexpr std::uint32_t kPixels = kSize.width * kSize.height;

using Work = void (*)(const ImageDescriptor &image);

// A noisy mosaic under reddish light, which balancing does not finish with in one step.
std::vector<std::uint8_t> Mosaic() {
    std::vector<std::uint8_t> mosaic(kPixels);
    std::minstd_rand random(1);
    for (std::uint32_t i = 0; i < kPixels; ++i) {
        const bool red = i % kSize.width % 2 == 0 && i / kSize.width % 2 == 1;
        mosaic[i] = static_cast<std::uint8_t>((random() >> 8) % (red ? 256 : 100));
    }
    return mosaic;
}

DefectPixelList Defects(std::uint32_t count) {
    DefectPixelList list{.count = count};
    std::minstd_rand random(2);
    for (DefectPixel &pixel : list.pixels)
        pixel = {static_cast<std::uint16_t>(random() % kSize.width),
                 static_cast<std::uint16_t>(random() % kSize.height)};
    return list;
}

template <std::uint32_t kCount> void Correct(const ImageDescriptor &image) {
    static const DefectPixelList list = Defects(kCount);
    CorrectDefects(image, list, 0, 0);
}

void JudgeColours(const ImageDescriptor &image) {
    static ColourSamples samples;
    SampleColours(image, samples);
    const uvc::Balance balance = uvc::BalanceStep(samples, {64, 64, 64});
    benchmark::DoNotOptimize(balance);
}

void JudgeGrey(const ImageDescriptor &image) {
    std::uint32_t mean = 0;
    MeasureBrightness(image, mean);
    benchmark::DoNotOptimize(mean);
}

void ScanTiles(const ImageDescriptor &image) {
    Region region{};
    ChooseRegion(image, region);
    benchmark::DoNotOptimize(region);
}

void ScoreTile(const ImageDescriptor &image) {
    benchmark::DoNotOptimize(SharpnessScore(image, {1232, 908, 128, 128}));
}

void Measure(benchmark::State &state, Work work) {
    std::vector<std::uint8_t> mosaic = Mosaic();
    std::vector<std::uint8_t> picture(std::size_t{kPixels} * 3);
    const ImageDescriptor source{mosaic.data(), kPixels, kFourCcBayerGb, kSize.width, kSize.height, kSize.width};
    const ImageDescriptor destination{picture.data(), kPixels * 3,  kFourCcRgb24,
                                      kSize.width,    kSize.height, kSize.width * 3};
    const std::uint32_t flags = DetectProcessorFeatures() << kFeatureShift;
    constexpr std::int16_t kNoMatrix[kMatrixCoefficients] = {};
    std::vector<double> demosaic;
    std::vector<double> judged;
    for (auto _ : state) {
        demosaic.push_back(Seconds([&] { ConvertColourFrame(destination, source, kNoMatrix, {}, flags); }));
        judged.push_back(Seconds([&] { work(source); }));
        benchmark::ClobberMemory();
        state.SetIterationTime(judged.back());
    }
    state.counters["us"] = Median(judged) * 1e6;
    state.counters["demosaic_us"] = Median(demosaic) * 1e6;
    state.counters["ratio"] = Median(judged) / Median(demosaic);
}

} // namespace

void RegisterAutomatics() {
    constexpr struct {
        const char *name;
        Work work;
    } kWorks[] = {
        {"defects/100", Correct<100>},  {"defects/256", Correct<256>},      {"statistics/colour", JudgeColours},
        {"statistics/grey", JudgeGrey}, {"autofocus/tile_scan", ScanTiles}, {"autofocus/one_score", ScoreTile},
    };
    for (const auto &[name, work] : kWorks) {
        const std::string fullName = std::string("automatics/") + name;
        benchmark::RegisterBenchmark(fullName.c_str(), [work = work](benchmark::State &state) { Measure(state, work); })
            ->UseManualTime()
            ->Iterations(200);
    }
}

} // namespace bench
