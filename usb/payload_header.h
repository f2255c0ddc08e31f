// The header of a UVC payload (UVC 1.1, section 2.4.3.3), as far as frames need it.
#pragma once

#include "platform/byte_cursor.h"
#include "platform/platform.h"

namespace uvc {

struct Payload {
    bool valid;      // the header is 2, 6 or 12 bytes long and complete; otherwise nothing else is set
    UCHAR fid;       // frame identifier, 0 or 1
    bool endOfFrame; // this is the frame's last payload
    std::span<const std::uint8_t> data;
};

inline Payload ParsePayload(std::span<const std::uint8_t> bytes) {
    constexpr UCHAR kFidBit = 0x01;
    constexpr UCHAR kEndOfFrameBit = 0x02;
    ByteCursor cursor(bytes);
    const UCHAR headerLength = cursor.U8();
    const UCHAR bits = cursor.U8();
    if (headerLength != 2 && headerLength != 6 && headerLength != 12)
        return {};
    cursor.Skip(headerLength - 2u); // the time stamps
    if (!cursor.Ok())
        return {};
    return {.valid = true,
            .fid = static_cast<UCHAR>(bits & kFidBit),
            .endOfFrame = (bits & kEndOfFrameBit) != 0,
            .data = cursor.Take(cursor.Remaining())};
}

} // namespace uvc
