// A scene as a picture of 8-bit reflectances: 255 is white. There is no gamma between scene and client, so that a
// picture looks the same at both ends.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace host::cameras {

struct Rgb {
    std::uint8_t red;
    std::uint8_t green;
    std::uint8_t blue;
};

struct Picture {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::vector<Rgb> pixels; // rows from the top, packed

    Rgb *Row(std::uint32_t y) { return pixels.data() + std::size_t{y} * width; }
    const Rgb *Row(std::uint32_t y) const { return pixels.data() + std::size_t{y} * width; }
};

// The default scene, drawn for exactly that size: grey ramp, colour patches, slanted edges, a star, fine lines.
Picture DrawChart(std::uint32_t width, std::uint32_t height);

// The same without its colours.
void RemoveColours(Picture &picture);

// Twice the mean of 2 x `radius` + 1 samples a side: the blur of a lens that is out of focus, without the false
// resolution of a single box. `radius` need not be whole. The borders are repeated.
void Blur(Picture &picture, double radius);

// A part that lies in the picture.
Picture Cut(const Picture &picture, std::uint32_t left, std::uint32_t top, std::uint32_t width, std::uint32_t height);

// Reads a PNG of any kind. On failure the picture is empty and `reason` one line.
Picture ReadPng(const std::string &path, std::string &reason);

// The largest part of the picture's middle that has the wanted shape, scaled to the wanted size by area averages (or
// linearly when it has to grow).
Picture Resample(const Picture &source, std::uint32_t width, std::uint32_t height);

} // namespace host::cameras
