// Which vector instruction sets the processor has.
#pragma once

#include <cstdint>

namespace imaging {

enum ProcessorFeatures : std::uint32_t {
    kFeatureMmx = 1u << 0,
    kFeatureSse = 1u << 1,
    kFeatureSse2 = 1u << 2,
    kFeatureSse3 = 1u << 3,
    kFeatureSsse3 = 1u << 4,
    kFeatureSse41 = 1u << 5,
    kFeatureSse42 = 1u << 6,
};

// The processor's feature mask: asked once, cached from then on. Any IRQL. Lock: none.
std::uint32_t DetectProcessorFeatures();

} // namespace imaging
