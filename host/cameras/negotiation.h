// The video probe and commit control of UVC: which format, frame, interval and payload size the two sides settle on.
#pragma once

#include "host/cameras/video_function.h"

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace host::cameras {

// The fields of the control that a camera decides about; Encode adds the rest.
struct StreamControl {
    std::uint16_t hint = 0;
    std::uint8_t formatIndex = 0;
    std::uint8_t frameIndex = 0;
    std::uint32_t interval = 0; // 100 ns
    std::uint32_t maxFrameSize = 0;
    std::uint32_t maxPayloadSize = 0;

    friend bool operator==(const StreamControl &, const StreamControl &) = default;
};

// 26 bytes in UVC 1.0, 34 in 1.1, 48 in 1.5.
inline constexpr std::size_t kShortestStreamControl = 26;
inline constexpr std::size_t kLongestStreamControl = 48;

std::array<std::uint8_t, kLongestStreamControl> Encode(const StreamControl &control);

// Needs at least kShortestStreamControl bytes.
StreamControl Decode(std::span<const std::uint8_t> bytes);

class Negotiator {
  public:
    // `payloadSize` is the largest payload with its header of `headerLength` bytes; 0: a whole frame. Keeps a
    // reference.
    Negotiator(const VideoFunction &function, std::uint32_t payloadSize, std::uint8_t headerLength);

    // First format, its first frame, the default interval.
    StreamControl Default() const;

    // What the camera makes of a request: indexes it does not have become the nearest it has, the interval the nearest
    // offered (0: the default one), the sizes follow.
    StreamControl Settle(const StreamControl &request) const;

    // The shortest (and longest) interval for the format and frame of `current`.
    StreamControl Shortest(const StreamControl &current) const;
    StreamControl Longest(const StreamControl &current) const;

    const StreamFormat &Format(const StreamControl &settled) const;
    const StreamFrame &Frame(const StreamControl &settled) const;

  private:
    const VideoFunction &function_;
    std::uint32_t payloadSize_;
    std::uint8_t headerLength_;
};

} // namespace host::cameras
