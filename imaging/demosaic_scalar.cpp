// The scalar row kernels: the reference that the vector sets follow.
#include "imaging/demosaic.h"

#include <cstddef>

namespace imaging {
namespace {

struct Pixel {
    std::uint32_t blue;
    std::uint32_t green;
    std::uint32_t red;
};

// The 3 x 3 samples around a pixel, the gains applied.
struct Neighbourhood {
    std::uint32_t upperLeft, up, upperRight;
    std::uint32_t left, middle, right;
    std::uint32_t lowerLeft, down, lowerRight;
};

// The gains of a pixel's own colour, of the colour left and right of it, of that above and below, and of that at its
// corners.
struct NeighbourhoodGains {
    std::uint32_t middle;
    std::uint32_t beside;
    std::uint32_t above;
    std::uint32_t corner;
};

std::uint32_t Distance(std::uint32_t a, std::uint32_t b) {
    return a > b ? a - b : b - a;
}

template <std::uint32_t kMode> std::uint32_t Amplify(std::uint8_t sample, std::uint32_t gain) {
    if constexpr ((kMode & kModeGains) != 0) {
        const std::uint32_t product = sample * gain >> 6;
        return product > 255 ? 255 : product;
    }
    return sample;
}

template <std::uint32_t kMode>
Neighbourhood Around(const RowContext &row, std::uint32_t x, const NeighbourhoodGains &gains) {
    return {.upperLeft = Amplify<kMode>(row.above[x - 1], gains.corner),
            .up = Amplify<kMode>(row.above[x], gains.above),
            .upperRight = Amplify<kMode>(row.above[x + 1], gains.corner),
            .left = Amplify<kMode>(row.current[x - 1], gains.beside),
            .middle = Amplify<kMode>(row.current[x], gains.middle),
            .right = Amplify<kMode>(row.current[x + 1], gains.beside),
            .lowerLeft = Amplify<kMode>(row.below[x - 1], gains.corner),
            .down = Amplify<kMode>(row.below[x], gains.above),
            .lowerRight = Amplify<kMode>(row.below[x + 1], gains.corner)};
}

// A pixel by its row's own colour and the other one, whichever is blue.
template <BayerPhase kPhase> Pixel MakePixel(std::uint32_t own, std::uint32_t green, std::uint32_t other) {
    if constexpr (IsBlueRow(kPhase))
        return {.blue = own, .green = green, .red = other};
    else
        return {.blue = other, .green = green, .red = own};
}

// Green follows the edge: it is taken along the direction in which the neighbours differ less.
template <BayerPhase kPhase> Pixel AtColour(const Neighbourhood &n) {
    const std::uint32_t horizontal = Distance(n.left, n.right);
    const std::uint32_t vertical = Distance(n.up, n.down);
    std::uint32_t green = (n.up + n.down + n.left + n.right) >> 2;
    if (horizontal < vertical)
        green = (n.left + n.right) >> 1;
    else if (horizontal > vertical)
        green = (n.up + n.down) >> 1;
    return MakePixel<kPhase>(n.middle, green, (n.upperLeft + n.upperRight + n.lowerLeft + n.lowerRight) >> 2);
}

// The corners of a green pixel are green as well. Where they are nearly the same they smooth it.
template <std::uint32_t kMode, BayerPhase kPhase> Pixel AtGreen(const Neighbourhood &n) {
    constexpr std::uint32_t kThreshold = 6;
    std::uint32_t green = n.middle;
    if constexpr ((kMode & kModeSmooth) != 0) {
        if (Distance(n.upperLeft, n.upperRight) <= kThreshold && Distance(n.upperLeft, n.lowerLeft) <= kThreshold)
            green = (n.upperLeft + n.upperRight + n.lowerLeft + n.lowerRight + 4 * n.middle) >> 3;
    }
    return MakePixel<kPhase>((n.left + n.right) >> 1, green, (n.up + n.down) >> 1);
}

template <std::uint32_t kMode> void Store(std::uint8_t *row, std::uint32_t x, const Pixel &pixel) {
    std::uint8_t *to = row + static_cast<std::size_t>(x) * BytesPerPixel(kMode);
    to[0] = static_cast<std::uint8_t>(pixel.blue);
    to[1] = static_cast<std::uint8_t>(pixel.green);
    to[2] = static_cast<std::uint8_t>(pixel.red);
}

template <std::uint32_t kMode> void ApplyMatrix(const KernelTables &tables, const RowContext &row) {
    std::int32_t m[kMatrixCoefficients];
    for (std::uint32_t k = 0; k < kMatrixCoefficients; ++k)
        m[k] = static_cast<std::int16_t>(tables.matrix[k][0]);
    std::uint8_t *pixel = row.destination;
    for (std::uint32_t x = 0; x < row.width; ++x, pixel += BytesPerPixel(kMode)) {
        const std::int32_t blue = pixel[0];
        const std::int32_t green = pixel[1];
        const std::int32_t red = pixel[2];
        const auto weigh = [&](const std::int32_t *c) {
            const std::int32_t sum = (c[0] * red + c[1] * green + c[2] * blue) / kUnity;
            return static_cast<std::uint8_t>(sum < 0 ? 0 : sum > 255 ? 255 : sum);
        };
        pixel[0] = weigh(m + 6);
        pixel[1] = weigh(m + 3);
        pixel[2] = weigh(m);
    }
}

template <std::uint32_t kMode, BayerPhase kPhase> void ConvertRow(const KernelTables &tables, const RowContext &row) {
    constexpr std::uint32_t kGreenParity = StartsWithGreen(kPhase) ? 0 : 1;
    const std::uint16_t *ownGains = tables.gains[static_cast<std::uint32_t>(kPhase)];
    const std::uint32_t own = ownGains[1 - kGreenParity];
    const std::uint32_t green = ownGains[kGreenParity];
    const std::uint32_t other = tables.gains[static_cast<std::uint32_t>(PartnerPhase(kPhase))][kGreenParity];
    const auto at = [&](std::uint32_t x) {
        if (x % 2 == kGreenParity)
            return AtGreen<kMode, kPhase>(
                Around<kMode>(row, x, {.middle = green, .beside = own, .above = other, .corner = green}));
        return AtColour<kPhase>(
            Around<kMode>(row, x, {.middle = own, .beside = green, .above = green, .corner = other}));
    };

    const Pixel second = at(1);
    Store<kMode>(row.destination, 0, second);
    Store<kMode>(row.destination, 1, second);
    std::uint32_t x = 2;
    for (; x < row.width - 2; x += 2) {
        Store<kMode>(row.destination, x, at(x));
        Store<kMode>(row.destination, x + 1, at(x + 1));
    }
    const Pixel lastButOne = at(x);
    Store<kMode>(row.destination, x, lastButOne);
    Store<kMode>(row.destination, x + 1, lastButOne);
}

// The matrix is a second pass over the row, so that modes with and without it share their interpolation.
template <std::uint32_t kMode> void ScalarRow(const KernelTables &tables, const RowContext &row, BayerPhase phase) {
    constexpr std::uint32_t kInterpolation = kMode & ~kModeMatrix;
    switch (phase) {
    case BayerPhase::kBlueGreen:
        ConvertRow<kInterpolation, BayerPhase::kBlueGreen>(tables, row);
        break;
    case BayerPhase::kGreenBlue:
        ConvertRow<kInterpolation, BayerPhase::kGreenBlue>(tables, row);
        break;
    case BayerPhase::kGreenRed:
        ConvertRow<kInterpolation, BayerPhase::kGreenRed>(tables, row);
        break;
    case BayerPhase::kRedGreen:
        ConvertRow<kInterpolation, BayerPhase::kRedGreen>(tables, row);
        break;
    }
    if constexpr ((kMode & kModeMatrix) != 0)
        ApplyMatrix<kMode>(tables, row);
}

} // namespace

constexpr RowKernel kScalarRowKernels[kModes] = {
    ScalarRow<0>,  ScalarRow<1>,  ScalarRow<2>,  ScalarRow<3>,  ScalarRow<4>,  ScalarRow<5>,
    ScalarRow<6>,  ScalarRow<7>,  ScalarRow<8>,  ScalarRow<9>,  ScalarRow<10>, ScalarRow<11>,
    ScalarRow<12>, ScalarRow<13>, ScalarRow<14>, ScalarRow<15>,
};

} // namespace imaging
