// The subcommands of uvcam. Each throws Failure; stdout carries the data or the listing, everything else goes to
// stderr.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace uvcam {

struct ListOptions {
    bool json = false;
};
void List(const ListOptions &options);

struct FormatsOptions {
    std::string camera;
    bool json = false;
};
void Formats(const FormatsOptions &options);

struct Size {
    int width = 0;
    int height = 0;
};

struct CaptureOptions {
    std::string camera;
    std::string format; // empty: the camera's first
    std::optional<Size> size;
    std::optional<double> framesPerSecond;
    unsigned frames = 1;
    std::string output; // pattern, "-", or empty
    std::string scene;
    bool freeRun = false;
    bool overlay = false;
    std::string faults;
    std::string settings;
    std::optional<std::uint32_t> maximumTransfer; // bytes that one bulk transfer may have; nothing: the bus's own limit
    bool json = false;
};
void Capture(const CaptureOptions &options);

// Raw bytes to raw bytes through the driver's imaging; rows are packed.
struct ConvertOptions {
    std::string from; // FOURCC of one byte a pixel
    std::string to;
    Size size;
    std::string isa;                                   // empty: the best that the processor has
    std::optional<std::array<std::int32_t, 3>> gains;  // red, green, blue in 1/64
    std::optional<std::array<std::int16_t, 9>> matrix; // rows red, green, blue in 1/64
    bool smooth = false;
    bool topDown = false; // sets the orientation flag: RGB comes top-down, 8-bit copies are turned upside down
    std::string input;    // a file or "-"
    std::string output;
};
void Convert(const ConvertOptions &options);

} // namespace uvcam
