// The pixel layouts that the simulated cameras can fill, and the GUID by which UVC names each.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace host::cameras {

using Guid = std::array<std::uint8_t, 16>;

enum class PixelFormat : std::uint8_t {
    Bayer8, // one byte a pixel through the colour filter of the sensor
    Grey8,
    Yuy2,
    Uyvy,
    Opaque, // something compressed or unknown: the bytes mean nothing, only their number counts
};

struct PixelFormatInfo {
    PixelFormat pixels;
    std::uint8_t bitsPerPixel;
    char fourcc[5];
};

// By PixelFormat, without Opaque.
inline constexpr std::array<PixelFormatInfo, 4> kPixelFormats{{
    {PixelFormat::Bayer8, 8, "BY8 "},
    {PixelFormat::Grey8, 8, "Y800"},
    {PixelFormat::Yuy2, 16, "YUY2"},
    {PixelFormat::Uyvy, 16, "UYVY"},
}};

constexpr const PixelFormatInfo &Describe(PixelFormat pixels) {
    return kPixelFormats[static_cast<std::size_t>(pixels)];
}

// The FOURCC followed by the common tail {xxxxxxxx-0000-0010-8000-00AA00389B71}, in wire order.
constexpr Guid FourccGuid(const char (&fourcc)[5]) {
    Guid guid{0, 0, 0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71};
    for (std::size_t i = 0; i < 4; ++i)
        guid[i] = static_cast<std::uint8_t>(fourcc[i]);
    return guid;
}

constexpr PixelFormat PixelFormatOf(std::span<const std::uint8_t, 16> guid) {
    for (const PixelFormatInfo &info : kPixelFormats) {
        const Guid known = FourccGuid(info.fourcc);
        bool equal = true;
        for (std::size_t i = 0; i < known.size(); ++i)
            equal = equal && known[i] == guid[i];
        if (equal)
            return info.pixels;
    }
    return PixelFormat::Opaque;
}

// Order of the colours in a filter mosaic: the first row's even and odd column. The numbers are those of the camera
// description in docs/camera-protocol.md.
enum class BayerPattern : std::uint8_t { BlueGreen = 0, GreenBlue = 1, GreenRed = 2, RedGreen = 3 };

} // namespace host::cameras
