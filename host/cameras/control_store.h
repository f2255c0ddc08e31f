// The camera's control values and the class requests on them (UVC 1.1, 4.2).
#pragma once

#include "host/cameras/camera_control.h"
#include "host/cameras/model.h"
#include "host/cameras/video_function.h"
#include "host/usb/usb_device.h"

#include <cstdint>
#include <span>
#include <vector>

namespace host::cameras {

enum class SelectorRule : std::uint8_t {
    BitPlusOne, // bmControls bit b announces selector b + 1, in every entity: the models
    Standard,   // the bit tables of UVC 1.1: real cameras
};

class ControlStore {
  public:
    // One control per announced bit whose selector is known, with the ranges of the model.
    ControlStore(const VideoFunction &function, SelectorRule rule, const Model &model);

    // A class request to the video control interface. A refusal leaves its reason for VC_REQUEST_ERROR_CODE_CONTROL.
    usb::TransferResult Request(const usb::Setup &setup, std::span<std::uint8_t> data);

    // Back to the defaults.
    void Reset();

    std::span<const CameraControl> Controls() const { return controls_; }

    // Null when the camera does not have the control.
    CameraControl *Find(EntityKind kind, std::uint8_t selector);

    // Makes GET_INFO and GET_CUR of one control stall.
    void Break(std::uint8_t entity, std::uint8_t selector);

  private:
    usb::TransferResult Refuse(std::uint8_t reason);
    usb::TransferResult Set(CameraControl &control, std::span<const std::uint8_t> data);

    std::vector<CameraControl> controls_;
    std::vector<std::uint8_t> entities_;
    std::uint8_t error_ = 0;
};

} // namespace host::cameras
