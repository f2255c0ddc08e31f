// What tells one simulated camera from another, as one constant table. Descriptors, controls, vendor requests and
// sensor follow from a row; nothing else in this folder asks for a product id.
#pragma once

#include "host/cameras/camera_control.h"
#include "host/cameras/pixel_format.h"

#include <cstdint>
#include <span>
#include <string_view>

namespace host::cameras {

enum class Family : std::uint8_t { Generic, A, B, C };

// A frame interval in 100-ns units and the code by which a family C camera takes it (vendor request 0x22).
struct FrameInterval {
    std::uint32_t interval;
    std::uint16_t code = 0;
};

struct FrameModel {
    std::uint16_t width;
    std::uint16_t height;
    std::span<const FrameInterval> intervals; // in the order of the descriptor
    // The camera takes any interval from the first to the last of the list, in steps of 1 us.
    bool continuous = false;
};

struct FormatModel {
    PixelFormat pixels;
    bool frameBased; // VS_FORMAT_FRAME_BASED instead of VS_FORMAT_UNCOMPRESSED
    std::span<const FrameModel> frames;
};

struct Model {
    std::string_view name; // as in "sim:NAME"
    std::uint16_t vendorId;
    std::uint16_t productId;
    std::uint16_t bcdDevice;
    std::string_view manufacturer;
    std::string_view product;
    std::string_view serial; // hexadecimal digits
    Family family;
    std::uint16_t firmwareRevision; // vendor request 0x16
    bool colour;
    BayerPattern pattern;
    std::uint16_t sensorWidth;
    std::uint16_t sensorHeight;
    bool motorisedFocus;
    bool registerBlock;
    bool binning;
    bool regionOfInterest;
    bool userData; // the user-data store
    // bmControls of the three entities; bit b announces selector b + 1.
    std::uint32_t terminalControls;
    std::uint32_t processingControls;
    std::uint32_t extensionControls;         // 0: no extension unit
    std::span<const CameraControl> controls; // where this model differs from its family
    std::span<const FormatModel> formats;
    std::uint32_t payloadSize; // largest payload, header included; 0: a whole frame and its header
};

// All models, in the order of a listing.
std::span<const Model> Models();

// The model of that name, or null.
const Model *FindModel(std::string_view name);

} // namespace host::cameras
