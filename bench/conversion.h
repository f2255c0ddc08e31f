// A conversion of a whole image, ours or somebody else's, as a benchmark.
#pragma once

#include "bench/suites.h"
#include "imaging/image.h"
#include "imaging/processor_features.h"

#include <functional>
#include <string>

namespace bench {

// What a conversion is measured against.
enum class Bound {
    kCopy,              // memcpy of the bytes that it writes
    kReadOneWriteThree, // 16 bytes in, three times 16 bytes out, nothing in between
};

using Conversion = std::function<void(const imaging::ImageDescriptor &to, const imaging::ImageDescriptor &from)>;

// `pixelBytes` and `fourcc` are the destination's; the source is a noisy mosaic.
void RegisterConversion(const std::string &name, Size size, std::uint32_t fourcc, std::uint32_t pixelBytes, Bound bound,
                        const Conversion &convert);

struct InstructionSet {
    const char *name;
    std::uint32_t features;
};

inline constexpr InstructionSet kInstructionSets[] = {
    {"scalar", 0}, {"sse2", imaging::kFeatureSse2}, {"sse4.1", imaging::kFeatureSse41}};

} // namespace bench
