// The subcommands of uvcam. Each throws Failure; stdout carries the data or the listing, everything else goes to
// stderr.
#pragma once

#include "apps/uvcam/stream.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace uvcam {

struct ListOptions {
    bool json = false;
};
void List(const ListOptions &options);

struct FormatsOptions {
    std::string camera;
    std::string settings; // here and below: the file that keeps them; empty: the user's own
    bool json = false;
};
void Formats(const FormatsOptions &options);

struct CaptureOptions {
    std::string camera;
    StreamOptions stream;
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

// Every control that the camera has.
struct ControlsOptions {
    std::string camera;
    std::string settings;
    bool json = false;
};
void Controls(const ControlsOptions &options);

struct GetOptions {
    std::string camera;
    std::string settings;
    std::vector<std::string> names;
};
void Get(const GetOptions &options);

struct SetOptions {
    std::string camera;
    std::string settings;
    std::vector<std::string> assignments; // NAME=VALUE
};
void Set(const SetOptions &options);

struct InfoOptions {
    std::string camera;
    std::string settings;
    bool json = false;
};
void Info(const InfoOptions &options);

// What the automatics do, frame by frame.
struct MonitorOptions {
    std::string camera;
    StreamOptions stream;
    unsigned frames = 0; // 0: until interrupted
    std::string scene;
    bool freeRun = false;
    std::string settings;
    bool json = false;
};
void Monitor(const MonitorOptions &options);

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
