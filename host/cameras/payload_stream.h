// Cuts frames into UVC payloads and payloads into bulk transfers (UVC 1.1, 2.4.3).
#pragma once

#include "host/cameras/sensor.h"
#include "host/usb/usb_device.h"

#include <array>
#include <cstdint>
#include <span>

namespace host::cameras {

struct PayloadShape {
    std::uint8_t headerLength = 12;   // 2: flags only; 6: and presentation time; 12: and source clock
    bool endOfFrameBit = true;        // set EOF in the last payload of a frame
    bool toggleFid = true;            // flip FID with each frame
    std::uint32_t maxPayloadSize = 0; // header included
    std::uint16_t packetSize = 512;
};

class PayloadStream {
  public:
    // Forgets everything, the frame identifier too.
    void Restart(const PayloadShape &shape);

    // Forgets what is left of the current frame.
    void Abandon();

    bool Idle() const { return frame_ == nullptr; }

    // Takes the next frame; only when idle. `exposed` becomes its presentation time.
    void Begin(FrameBytes frame, usb::Ticks exposed);

    // The next bulk transfer of the current frame. A payload ends with a short packet; a payload longer than the buffer
    // goes on in the next transfer, without a header of its own. Only when not idle.
    usb::TransferResult Next(std::span<std::uint8_t> buffer, usb::Ticks now);

  private:
    void BeginPayload(usb::Ticks now);

    PayloadShape shape_;
    FrameBytes frame_;
    usb::Ticks exposed_ = 0;
    std::size_t offset_ = 0; // in the frame
    bool fid_ = false;

    bool inPayload_ = false;
    std::array<std::uint8_t, 12> header_{};
    std::size_t headerLeft_ = 0;
    std::size_t dataLeft_ = 0;
    bool endsOnPacket_ = false; // the payload fills its last packet, yet is shorter than the largest
};

} // namespace host::cameras
