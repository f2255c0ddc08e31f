// One control of a camera: its value, its range, and what the camera refuses about it (UVC 1.1, 4.2).
#pragma once

#include "host/cameras/video_function.h"

#include <cstdint>
#include <optional>

namespace host::cameras {

enum ControlRequest : std::uint8_t {
    kSetCur = 0x01,
    kGetCur = 0x81,
    kGetMin = 0x82,
    kGetMax = 0x83,
    kGetRes = 0x84,
    kGetLen = 0x85,
    kGetInfo = 0x86,
    kGetDef = 0x87,
};

// The bit of a GET request in CameraControl::stalls.
constexpr std::uint8_t StallOf(ControlRequest request) {
    return static_cast<std::uint8_t>(1u << (request & 7));
}

// `lanes` values of `width` bytes each, little-endian, all with the same range.
struct CameraControl {
    std::uint8_t entity = 0;
    EntityKind kind = EntityKind::CameraTerminal;
    std::uint8_t selector = 0;
    std::uint8_t width = 1; // 1, 2 or 4
    std::uint8_t lanes = 1;
    bool isSigned = false;
    bool hasRange = true; // false: a switch or a set of bits, which answers neither GET_MIN nor GET_MAX
    bool readOnly = false;
    bool settles = false; // takes a value out of its range too: the camera brings it in
    std::int64_t minimum = 0;
    std::int64_t maximum = 1;
    std::int64_t resolution = 1; // of a set of bits: the bits offered
    std::int64_t defaultValue = 0;
    std::uint8_t oneOf = 0;                      // takes exactly one of these bits; 0: whatever is in the range
    std::uint8_t stalls = 0;                     // GET requests that the camera refuses, by StallOf
    std::optional<std::uint8_t> claimedLength{}; // what GET_LEN says where that is not the truth
    std::int64_t current[4] = {};

    std::size_t Size() const { return std::size_t{width} * lanes; }
};

constexpr CameraControl Ranged(std::uint8_t selector, std::uint8_t width, std::int64_t minimum, std::int64_t maximum,
                               std::int64_t defaultValue) {
    return {.selector = selector,
            .width = width,
            .isSigned = minimum < 0,
            .minimum = minimum,
            .maximum = maximum,
            .defaultValue = defaultValue};
}

constexpr CameraControl Switch(std::uint8_t selector, std::int64_t defaultValue = 0) {
    return {.selector = selector, .hasRange = false, .defaultValue = defaultValue};
}

// Bits `offered` of one byte, exactly one of which is set.
constexpr CameraControl Choice(std::uint8_t selector, std::uint8_t offered, std::int64_t defaultValue) {
    return {.selector = selector,
            .hasRange = false,
            .maximum = offered,
            .resolution = offered,
            .defaultValue = defaultValue,
            .oneOf = offered};
}

constexpr CameraControl Lanes(CameraControl control, std::uint8_t lanes) {
    control.lanes = lanes;
    return control;
}

constexpr CameraControl ReadOnly(CameraControl control) {
    control.readOnly = true;
    return control;
}

constexpr CameraControl Stalling(CameraControl control, ControlRequest request) {
    control.stalls |= StallOf(request);
    return control;
}

constexpr CameraControl Claiming(CameraControl control, std::uint8_t length) {
    control.claimedLength = length;
    return control;
}

constexpr CameraControl Of(EntityKind kind, CameraControl control) {
    control.kind = kind;
    return control;
}

} // namespace host::cameras
