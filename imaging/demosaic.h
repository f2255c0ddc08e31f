// Bayer mosaic to RGB. A row kernel turns one mosaic row into one row of pixels; which of the 48 kernels (16 modes in
// three instruction sets) is chosen once per frame, and nothing below that choice branches on an option per pixel.
#pragma once

#include "imaging/image.h"

namespace imaging {

// The colours of a row at its even and odd columns.
enum class BayerPhase : std::uint32_t { kBlueGreen, kGreenBlue, kGreenRed, kRedGreen };

inline constexpr std::uint32_t kPhases = 4;

// The phase of the rows above and below a row.
constexpr BayerPhase PartnerPhase(BayerPhase phase) {
    constexpr BayerPhase kPartners[kPhases] = {BayerPhase::kGreenRed, BayerPhase::kRedGreen, BayerPhase::kBlueGreen,
                                               BayerPhase::kGreenBlue};
    return kPartners[static_cast<std::uint32_t>(phase)];
}

constexpr bool StartsWithGreen(BayerPhase phase) {
    return phase == BayerPhase::kGreenBlue || phase == BayerPhase::kGreenRed;
}

constexpr bool IsBlueRow(BayerPhase phase) {
    return phase == BayerPhase::kBlueGreen || phase == BayerPhase::kGreenBlue;
}

// The phase of row 0 of a source image; unknown codes count as green-blue.
BayerPhase PhaseOfFourCc(std::uint32_t fourcc);

// What a kernel does besides interpolating. The first three bits are those of the flag word.
enum KernelMode : std::uint32_t {
    kModeMatrix = kApplyMatrix,
    kModeGains = kApplyGains,
    kModeSmooth = kSmooth,
    kModeRgb24 = 1u << 3, // 3 bytes a pixel, else 4
};

inline constexpr std::uint32_t kModes = 16;

constexpr std::uint32_t BytesPerPixel(std::uint32_t mode) {
    return (mode & kModeRgb24) != 0 ? 3 : 4;
}

// Coefficients in rows of eight equal lanes, which vector kernels load as they are; of the gains they read lanes 0
// and 1.
struct alignas(16) KernelTables {
    std::uint16_t matrix[kMatrixCoefficients][8]; // coefficient k in all lanes of row k; zero without kModeMatrix
    std::uint16_t gains[kPhases][8];              // by phase: even lanes the even columns' colour, odd the odd ones'
    std::uint32_t mode;
};

static_assert(sizeof(KernelTables) == 13 * 16 + 16);

struct RowContext {
    const std::uint8_t *above;
    const std::uint8_t *current;
    const std::uint8_t *below;
    std::uint8_t *destination;
    std::uint32_t width; // pixels, even and at least kMinimumRowWidth
};

inline constexpr std::uint32_t kMinimumRowWidth = 4;

// Converts one row. The first and the last pixel repeat their neighbours; no byte outside the rows is touched.
using RowKernel = void (*)(const KernelTables &tables, const RowContext &row, BayerPhase phase);

// The kernels of each instruction set by mode. The scalar ones are the reference that says what the others compute.
extern const RowKernel kScalarRowKernels[kModes];
extern const RowKernel kSse2RowKernels[kModes];
extern const RowKernel kSse41RowKernels[kModes];

struct DemosaicParameters {
    std::uint32_t options;                    // kApplyMatrix, kApplyGains, kSmooth
    std::uint32_t features;                   // ProcessorFeatures
    std::int16_t matrix[kMatrixCoefficients]; // rows red, green, blue; in each the coefficients of red, green, blue
    std::uint8_t redGain;
    std::uint8_t blueGain;
    std::uint8_t greenGain;
};

// The source rows of a frame. Rows are packed: one is `width` bytes behind the other.
struct FrameRows {
    const std::uint8_t *mirrorAbove; // stands in for the row above the first
    const std::uint8_t *first;
    const std::uint8_t *mirrorBelow; // stands in for the row below the last
    std::uint32_t count;
    std::uint32_t width;
};

// Fills zeroed `tables` and picks the kernel for the destination's format, the options and the processor. Gains that
// are all unity are left out.
RowKernel SelectRowKernel(const ImageDescriptor &destination, const DemosaicParameters &parameters,
                          KernelTables &tables);

// Converts the rows in order into the rows of the destination, or with `topDown` clear into the same rows counted from
// its last one.
void DemosaicFrame(const ImageDescriptor &destination, const FrameRows &rows, BayerPhase firstPhase, bool topDown,
                   const KernelTables &tables, RowKernel kernel);

// A whole frame to "RGB3" or "RGB4". The matrix has nine coefficients in row order red, green, blue; only the low
// twelve feature bits and the option bits of `flags` and kOrientation are read. Source rows are read
// `destination.width` apart.
void DemosaicToRgb(const ImageDescriptor &destination, const ImageDescriptor &source,
                   const std::int16_t (&matrix)[kMatrixCoefficients], const GainRecords &gains, std::uint32_t flags);

} // namespace imaging
