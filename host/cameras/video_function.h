// What a camera's firmware knows about its own descriptors: the streams it offers and the entities that have controls.
// It is read back from the descriptor bytes, so that a model and a file with raw descriptors behave by the same code.
#pragma once

#include "host/cameras/pixel_format.h"

#include <cstdint>
#include <span>
#include <vector>

namespace host::cameras {

struct StreamFrame {
    std::uint8_t index = 0;
    std::uint16_t width = 0;
    std::uint16_t height = 0;
    std::uint32_t bytes = 0; // a whole frame
    std::uint32_t defaultInterval = 0;
    bool continuous = false;
    std::vector<std::uint32_t> intervals; // discrete; continuous: shortest, longest, step
};

struct StreamFormat {
    std::uint8_t index = 0;
    PixelFormat pixels = PixelFormat::Opaque;
    std::uint8_t bitsPerPixel = 0;
    std::vector<StreamFrame> frames;
};

enum class EntityKind : std::uint8_t { CameraTerminal = 2, ProcessingUnit = 5, ExtensionUnit = 6 }; // UVC subtypes

struct Entity {
    EntityKind kind;
    std::uint8_t id;
    std::vector<std::uint8_t> controls; // bmControls
};

struct InterfaceSetting {
    std::uint8_t number;
    std::uint8_t alternate;
};

struct VideoFunction {
    std::vector<InterfaceSetting> interfaces; // every interface descriptor, video or not
    std::uint16_t bcdUvc = 0;
    std::uint8_t controlInterface = 0;
    std::vector<Entity> entities;
    // Of interface 1 alone; formats of uncompressed and frame-based video first, then others such as MJPEG.
    bool hasStreaming = false;
    std::vector<StreamFormat> formats; // each with at least one frame
    std::uint8_t bulkEndpoint = 0;     // bulk IN of interface 1, alternate setting 0; 0: none
    std::uint16_t packetSize = 512;
};

// Reads a configuration descriptor. What is broken or unknown is left out; nothing is read beyond the bytes given.
VideoFunction ParseVideoFunction(std::span<const std::uint8_t> configuration);

} // namespace host::cameras
