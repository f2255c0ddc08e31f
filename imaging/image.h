// Images as the pipeline sees them: buffers described by FOURCC, size and stride, and the flag word that goes with a
// frame. Everything in this folder takes bytes and gives bytes; it may run at any IRQL at which its buffers may be
// touched and takes no lock.
#pragma once

#include <cstdint>

namespace imaging {

// A pixel format's four characters, the first in the low byte.
constexpr std::uint32_t FourCc(const char (&code)[5]) {
    return static_cast<std::uint32_t>(static_cast<unsigned char>(code[0])) |
           static_cast<std::uint32_t>(static_cast<unsigned char>(code[1])) << 8 |
           static_cast<std::uint32_t>(static_cast<unsigned char>(code[2])) << 16 |
           static_cast<std::uint32_t>(static_cast<unsigned char>(code[3])) << 24;
}

inline constexpr std::uint32_t kFourCcRgb24 = FourCc("RGB3"); // blue, green, red
inline constexpr std::uint32_t kFourCcRgb32 = FourCc("RGB4"); // blue, green, red, a byte that means nothing
inline constexpr std::uint32_t kFourCcGrey8 = FourCc("Y800");
inline constexpr std::uint32_t kFourCcBayer8 = FourCc("BY8 "); // raw mosaic, its colour order not told
inline constexpr std::uint32_t kFourCcBayerBg = FourCc("B1BG");
inline constexpr std::uint32_t kFourCcBayerGb = FourCc("B1GB");
inline constexpr std::uint32_t kFourCcBayerGr = FourCc("B1GR");
inline constexpr std::uint32_t kFourCcBayerRg = FourCc("B1RG");
inline constexpr std::uint32_t kFourCcYuy2 = FourCc("YUY2");
inline constexpr std::uint32_t kFourCcUyvy = FourCc("UYVY");

static_assert(kFourCcRgb24 == 0x33424752);

// One image buffer. `size` is the length of the whole buffer in bytes: nothing beyond it is touched, and an image whose
// rows do not fit into it is not converted.
struct ImageDescriptor {
    std::uint8_t *data;   // first byte of row 0
    std::uint32_t size;   // bytes
    std::uint32_t fourcc; // pixel format
    std::uint32_t width;  // pixels
    std::uint32_t height; // rows
    std::uint32_t stride; // bytes from one row to the next
};

// Whether `rows` rows of `rowBytes` bytes, `step` bytes apart, lie inside the image's buffer.
constexpr bool HoldsRows(const ImageDescriptor &image, std::uint64_t rowBytes, std::uint64_t step, std::uint64_t rows) {
    return rows == 0 || (rows - 1) * step + rowBytes <= image.size;
}

// The flag word of a frame. Bits 16 to 27 carry the low 12 bits of the processor feature mask.
enum ConversionFlags : std::uint32_t {
    kApplyMatrix = 1u << 0,
    kApplyGains = 1u << 1,
    kSmooth = 1u << 2,
    // The output format has a negative height. RGB output is written top-down when set and bottom-up when clear; 8-bit
    // copies and grey smoothing are turned upside down when set and copied straight when clear.
    kOrientation = 1u << 3,
};

inline constexpr std::uint32_t kFeatureShift = 16;
inline constexpr std::uint32_t kFeatureMask = 0xFFF;

// Fixed point of gains and matrix coefficients: 64 is 1.0.
inline constexpr std::int32_t kUnity = 64;

inline constexpr std::uint32_t kMatrixCoefficients = 9;

// A white-balance gain and what it may be set to. Any value may be stored; it is clamped to 0..255 where it is used.
struct GainRecord {
    std::int32_t minimum;
    std::int32_t maximum;
    std::int32_t defaultValue;
    std::int32_t current;
    bool automatic;
};

struct GainRecords {
    GainRecord blue;
    GainRecord red;
    GainRecord green;
};

} // namespace imaging
