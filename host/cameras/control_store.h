// The camera's control values and the class requests on them (UVC 1.1, 4.2).
#pragma once

#include "host/cameras/model.h"
#include "host/cameras/video_function.h"
#include "host/usb/usb_device.h"

#include <cstdint>
#include <span>
#include <vector>

namespace host::cameras {

// One control: `lanes` values of `width` bytes each, little-endian, all with the same range.
struct CameraControl {
    std::uint8_t entity = 0;
    EntityKind kind = EntityKind::CameraTerminal;
    std::uint8_t selector = 0;
    std::uint8_t width = 1; // 1, 2 or 4
    std::uint8_t lanes = 1;
    bool isSigned = false;
    bool hasRange = true; // false: a switch or a set of bits, which answers neither GET_MIN nor GET_MAX
    std::int64_t minimum = 0;
    std::int64_t maximum = 1;
    std::int64_t resolution = 1; // of a set of bits: the bits offered
    std::int64_t defaultValue = 0;
    std::int64_t current[4] = {};

    std::size_t Size() const { return std::size_t{width} * lanes; }
};

enum class SelectorRule : std::uint8_t {
    BitPlusOne, // bmControls bit b announces selector b + 1, in every entity: the models
    Standard,   // the bit tables of UVC 1.1: real cameras
};

class ControlStore {
  public:
    // One control per announced bit whose selector is known. `family` chooses ranges where families differ.
    ControlStore(const VideoFunction &function, SelectorRule rule, Family family);

    // A class request to the video control interface. A refusal leaves its reason for VC_REQUEST_ERROR_CODE_CONTROL.
    usb::TransferResult Request(const usb::Setup &setup, std::span<std::uint8_t> data);

    // Back to the defaults.
    void Reset();

    std::span<const CameraControl> Controls() const { return controls_; }

  private:
    usb::TransferResult Refuse(std::uint8_t reason);
    usb::TransferResult Set(CameraControl &control, std::span<const std::uint8_t> data);

    std::vector<CameraControl> controls_;
    std::vector<std::uint8_t> entities_;
    std::uint8_t error_ = 0;
};

} // namespace host::cameras
