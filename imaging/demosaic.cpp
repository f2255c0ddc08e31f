#include "imaging/demosaic.h"

#include "imaging/processor_features.h"

#include <cstddef>

namespace imaging {
namespace {

std::uint8_t ClampGain(std::int32_t value) {
    return static_cast<std::uint8_t>(value < 0 ? 0 : value > 255 ? 255 : value);
}

void FillLanes(std::uint16_t (&lanes)[8], std::uint16_t even, std::uint16_t odd) {
    for (std::uint32_t lane = 0; lane < 8; ++lane)
        lanes[lane] = lane % 2 == 0 ? even : odd;
}

} // namespace

BayerPhase PhaseOfFourCc(std::uint32_t fourcc) {
    switch (fourcc) {
    case kFourCcBayerBg:
        return BayerPhase::kBlueGreen;
    case kFourCcBayerGr:
        return BayerPhase::kGreenRed;
    case kFourCcBayerRg:
        return BayerPhase::kRedGreen;
    default:
        return BayerPhase::kGreenBlue;
    }
}

RowKernel SelectRowKernel(const ImageDescriptor &destination, const DemosaicParameters &parameters,
                          KernelTables &tables) {
    tables.mode = parameters.options & (kModeMatrix | kModeGains | kModeSmooth);
    if (destination.fourcc == kFourCcRgb24)
        tables.mode |= kModeRgb24;

    std::uint16_t red = parameters.redGain;
    std::uint16_t green = parameters.greenGain;
    std::uint16_t blue = parameters.blueGain;
    if (red == kUnity && green == kUnity && blue == kUnity)
        tables.mode &= ~kModeGains;
    if ((tables.mode & kModeGains) == 0)
        red = green = blue = kUnity;
    FillLanes(tables.gains[static_cast<std::uint32_t>(BayerPhase::kBlueGreen)], blue, green);
    FillLanes(tables.gains[static_cast<std::uint32_t>(BayerPhase::kGreenBlue)], green, blue);
    FillLanes(tables.gains[static_cast<std::uint32_t>(BayerPhase::kGreenRed)], green, red);
    FillLanes(tables.gains[static_cast<std::uint32_t>(BayerPhase::kRedGreen)], red, green);

    if ((tables.mode & kModeMatrix) != 0) {
        for (std::uint32_t k = 0; k < kMatrixCoefficients; ++k) {
            const auto coefficient = static_cast<std::uint16_t>(parameters.matrix[k]);
            FillLanes(tables.matrix[k], coefficient, coefficient);
        }
    }

    if ((parameters.features & kFeatureSse41) != 0)
        return kSse41RowKernels[tables.mode];
    if ((parameters.features & kFeatureSse2) != 0)
        return kSse2RowKernels[tables.mode];
    return kScalarRowKernels[tables.mode];
}

void DemosaicFrame(const ImageDescriptor &destination, const FrameRows &rows, BayerPhase firstPhase, bool topDown,
                   const KernelTables &tables, RowKernel kernel) {
    const std::uint32_t last = rows.count - 1;
    std::ptrdiff_t step = destination.stride;
    RowContext row{.above = rows.mirrorAbove,
                   .current = rows.first,
                   .below = rows.first + rows.width,
                   .destination = destination.data,
                   .width = rows.width};
    if (!topDown) {
        row.destination += last * step;
        step = -step;
    }
    for (std::uint32_t r = 0; r < last; ++r) {
        kernel(tables, row, r % 2 == 0 ? firstPhase : PartnerPhase(firstPhase));
        row.above = row.current;
        row.current = row.below;
        row.below += rows.width;
        row.destination += step;
    }
    row.below = rows.mirrorBelow;
    kernel(tables, row, last % 2 == 0 ? firstPhase : PartnerPhase(firstPhase));
}

void DemosaicToRgb(const ImageDescriptor &destination, const ImageDescriptor &source,
                   const std::int16_t (&matrix)[kMatrixCoefficients], const GainRecords &gains, std::uint32_t flags) {
    const std::uint32_t width = destination.width;
    const std::uint32_t height = destination.height;
    // The kernels walk pairs of columns and mirror at the first and last rows.
    if (width < kMinimumRowWidth || width % 2 != 0 || height < 2)
        return;
    const std::uint32_t pixelBytes = destination.fourcc == kFourCcRgb24 ? 3 : 4;
    if (!HoldsRows(source, width, width, height) ||
        !HoldsRows(destination, std::uint64_t{width} * pixelBytes, destination.stride, height))
        return;

    DemosaicParameters parameters{.options = flags & (kApplyMatrix | kApplyGains | kSmooth),
                                  .features = flags >> kFeatureShift & kFeatureMask,
                                  .redGain = ClampGain(gains.red.current),
                                  .blueGain = ClampGain(gains.blue.current),
                                  .greenGain = ClampGain(gains.green.current)};
    for (std::uint32_t k = 0; k < kMatrixCoefficients; ++k)
        parameters.matrix[k] = matrix[k];

    KernelTables tables{};
    const RowKernel kernel = SelectRowKernel(destination, parameters, tables);
    const FrameRows rows{.mirrorAbove = source.data + width,
                         .first = source.data,
                         .mirrorBelow = source.data + static_cast<std::size_t>(height - 2) * width,
                         .count = height,
                         .width = width};
    DemosaicFrame(destination, rows, PhaseOfFourCc(source.fourcc), (flags & kOrientation) != 0, tables, kernel);
}

} // namespace imaging
