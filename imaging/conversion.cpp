#include "imaging/conversion.h"

#include "imaging/grey.h"
#include "imaging/processor_features.h"

#include <cstddef>

namespace imaging {
namespace {

constexpr std::uint32_t Feature(std::uint32_t feature) {
    return feature << kFeatureShift;
}

constexpr std::uint32_t kMinimumVectorWidth = 32; // of grey smoothing
constexpr std::uintptr_t kVectorAlignment = 16;

bool IsEmpty(const ImageDescriptor &image) {
    return image.width == 0 || image.height == 0;
}

void CopyBytes(const ImageDescriptor &destination, const ImageDescriptor &source) {
    __builtin_memcpy(destination.data, source.data, source.size < destination.size ? source.size : destination.size);
}

void CopyWholeRows(const ImageDescriptor &destination, const ImageDescriptor &source, bool flip) {
    if (HoldsRows(source, destination.width, destination.width, destination.height))
        CopyRows(destination, source.data, flip);
}

// Rows of `destination` from its first one or, bottom-up, from its last.
GreyRows RowsOf(const ImageDescriptor &destination, const ImageDescriptor &source, std::uint32_t sourceStep,
                bool bottomUp) {
    const std::ptrdiff_t step = destination.stride;
    return {.width = destination.width,
            .height = destination.height,
            .destination = destination.data + (bottomUp ? (destination.height - 1) * step : 0),
            .destinationStep = bottomUp ? -step : step,
            .source = source.data,
            .sourceStep = static_cast<std::ptrdiff_t>(sourceStep)};
}

void SmoothToGrey(const ImageDescriptor &destination, const ImageDescriptor &source, std::uint32_t flags) {
    const std::uint32_t width = destination.width;
    if (IsEmpty(destination) || !HoldsRows(source, width, width, destination.height) ||
        !HoldsRows(destination, width, destination.stride, destination.height))
        return;
    const GreyRows rows = RowsOf(destination, source, width, (flags & kOrientation) != 0);
    __builtin_memcpy(rows.destination, source.data, width);
    const bool vectors = (flags & (Feature(kFeatureSse41) | Feature(kFeatureSse2))) != 0;
    const bool aligned =
        (reinterpret_cast<std::uintptr_t>(destination.data) | destination.stride) % kVectorAlignment == 0;
    if (!vectors || width < kMinimumVectorWidth)
        SmoothGrey(rows);
    else if (aligned)
        SmoothGreyAligned(rows);
    else
        SmoothGreyUnaligned(rows);
}

void GreyToRgb24(const ImageDescriptor &destination, const ImageDescriptor &source, std::uint32_t flags) {
    if (IsEmpty(destination) || !HoldsRows(source, destination.width, source.stride, destination.height) ||
        !HoldsRows(destination, std::uint64_t{destination.width} * 3, destination.stride, destination.height))
        return;
    const bool topDown = (flags & kOrientation) != 0;
    auto expand = ExpandGreyToRgb24;
    auto smooth = SmoothGreyToRgb24;
    if ((flags & Feature(kFeatureSse41)) != 0) {
        expand = ExpandGreyToRgb24Ssse3;
        smooth = SmoothGreyToRgb24Ssse3;
    } else if ((flags & Feature(kFeatureSse2)) != 0) {
        expand = ExpandGreyToRgb24Sse2;
        smooth = SmoothGreyToRgb24Sse2;
    }
    if ((flags & kSmooth) != 0)
        smooth(RowsOf(destination, source, source.stride, !topDown));
    else
        expand(destination, source, topDown);
}

} // namespace

void ConvertColourFrame(const ImageDescriptor &destination, const ImageDescriptor &source,
                        const std::int16_t (&matrix)[kMatrixCoefficients], const GainRecords &gains,
                        std::uint32_t flags) {
    switch (destination.fourcc) {
    case kFourCcBayer8:
    case kFourCcGrey8:
    case kFourCcYuy2:
    case kFourCcBayerGb:
    case kFourCcBayerBg:
    case kFourCcBayerRg:
    case kFourCcBayerGr:
        CopyWholeRows(destination, source, (flags & kOrientation) != 0);
        break;
    case kFourCcRgb24:
    case kFourCcRgb32:
        DemosaicToRgb(destination, source, matrix, gains, flags);
        break;
    default:
        CopyBytes(destination, source);
        break;
    }
}

void ConvertMonoFrame(const ImageDescriptor &destination, const ImageDescriptor &source, std::uint32_t flags) {
    switch (destination.fourcc) {
    case kFourCcBayer8:
    case kFourCcYuy2:
    case kFourCcBayerGb:
    case kFourCcBayerBg:
    case kFourCcBayerRg:
    case kFourCcBayerGr:
        CopyWholeRows(destination, source, (flags & kOrientation) != 0);
        break;
    case kFourCcGrey8:
        if ((flags & kSmooth) != 0)
            SmoothToGrey(destination, source, flags);
        else
            CopyWholeRows(destination, source, (flags & kOrientation) != 0);
        break;
    case kFourCcRgb24:
        GreyToRgb24(destination, source, flags);
        break;
    default:
        CopyBytes(destination, source);
        break;
    }
}

void CopyRows(const ImageDescriptor &destination, const std::uint8_t *source, bool flip) {
    const std::size_t width = destination.width;
    const std::size_t height = destination.height;
    if (height == 0 || !HoldsRows(destination, width, destination.stride, height))
        return;
    if (!flip && width == destination.stride) {
        __builtin_memcpy(destination.data, source, height * width);
        return;
    }
    for (std::size_t r = 0; r < height; ++r) {
        const std::size_t to = flip ? height - 1 - r : r;
        __builtin_memcpy(destination.data + to * destination.stride, source + r * width, width);
    }
}

} // namespace imaging
