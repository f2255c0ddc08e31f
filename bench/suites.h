// What can be measured. Each registers its benchmarks; the names begin with the suite's.
#pragma once

#include <cstdint>

namespace bench {

struct Size {
    std::uint32_t width;
    std::uint32_t height;
};

inline constexpr Size kSizes[] = {{640, 480}, {1280, 960}, {2592, 1944}};

void RegisterImaging();
void RegisterAutomatics();
void RegisterAssembly();
void RegisterEndToEnd();

// Other converters, as far as they were found when this was built.
void RegisterPeers();

// The simulated chart, mosaicked and converted by each instruction set and each peer, as PNGs into `folder`, with their
// signal-to-noise ratios on stdout. False when one could not be written.
bool WriteChartPictures(const char *folder);

} // namespace bench
