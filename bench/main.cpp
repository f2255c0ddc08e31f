// Kernels, assembly of frames, the whole stack: each measured as a ratio to a bound in the same run. Takes the options
// of Google Benchmark, and --peers.
#include "bench/measure.h"
#include "bench/suites.h"
#include "imaging/processor_features.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace {

std::string ProcessorName() {
    std::ifstream info("/proc/cpuinfo");
    for (std::string line; std::getline(info, line);) {
        if (line.starts_with("model name"))
            return line.substr(line.find(':') + 2);
    }
    return "unknown";
}

double CopyGigabytesPerSecond(std::size_t size) {
    const std::vector<unsigned char> from(size, 1);
    std::vector<unsigned char> to(size);
    std::vector<double> seconds;
    for (int i = 0; i < 50; ++i) {
        seconds.push_back(bench::Seconds([&] { std::memcpy(to.data(), from.data(), size); }));
        benchmark::ClobberMemory();
    }
    return static_cast<double>(size) / bench::Median(seconds) / 1e9;
}

// On stderr: stdout is the measurements', also as JSON or CSV.
void PrintMachine() {
    double load = 0; // of the last minute
    getloadavg(&load, 1);
    const std::uint32_t features = imaging::DetectProcessorFeatures();
    std::fprintf(stderr, "processor  %s;%s%s\n", ProcessorName().c_str(),
                 (features & imaging::kFeatureSse2) != 0 ? " sse2" : "",
                 (features & imaging::kFeatureSse41) != 0 ? " sse4.1" : "");
    std::fprintf(stderr, "load       %.1f (other programs that run lengthen wall times)\n", load);
    for (const bench::Size size : bench::kSizes)
        std::fprintf(stderr, "memcpy     %.1f GB/s of %ux%u bytes\n",
                     CopyGigabytesPerSecond(std::size_t{size.width} * size.height), size.width, size.height);
}

} // namespace

int main(int argc, char **argv) {
    bool peers = false;
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        if (std::string_view(argv[i]) == "--peers")
            peers = true;
        else
            argv[kept++] = argv[i];
    }
    argc = kept;
    argv[argc] = nullptr;

    bench::RegisterImaging();
    bench::RegisterAutomatics();
    bench::RegisterAssembly();
    bench::RegisterEndToEnd();
    if (peers)
        bench::RegisterPeers();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    PrintMachine();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return bench::WriteChartPictures("out") ? 0 : 1;
}
