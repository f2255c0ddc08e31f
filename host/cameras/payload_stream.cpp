#include "host/cameras/payload_stream.h"

#include <algorithm>
#include <cstring>

namespace host::cameras {
namespace {

enum HeaderInfo : std::uint8_t {
    kFid = 0x01,
    kEndOfFrame = 0x02,
    kPresentationTime = 0x04,
    kSourceClock = 0x08,
    kEndOfHeader = 0x80,
};

constexpr usb::Ticks kTicksPerUsbFrame = 10'000;

void Put32(std::uint8_t *to, std::uint32_t value) {
    for (int i = 0; i < 4; ++i)
        to[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

} // namespace

void PayloadStream::Restart(const PayloadShape &shape) {
    shape_ = shape;
    fid_ = false;
    Abandon();
}

void PayloadStream::Abandon() {
    frame_.reset();
    inPayload_ = false;
}

void PayloadStream::Begin(FrameBytes frame, usb::Ticks exposed) {
    frame_ = std::move(frame);
    exposed_ = exposed;
    offset_ = 0;
    inPayload_ = false;
    if (shape_.toggleFid)
        fid_ = !fid_;
}

void PayloadStream::BeginPayload(usb::Ticks now) {
    const std::size_t room = shape_.maxPayloadSize - shape_.headerLength;
    dataLeft_ = std::min(frame_->size() - offset_, room);
    headerLeft_ = shape_.headerLength;
    const std::size_t length = headerLeft_ + dataLeft_;
    endsOnPacket_ = length < shape_.maxPayloadSize && length % shape_.packetSize == 0;
    inPayload_ = true;

    const bool last = offset_ + dataLeft_ == frame_->size();
    std::uint8_t info = kEndOfHeader;
    if (fid_)
        info |= kFid;
    if (last && shape_.endOfFrameBit)
        info |= kEndOfFrame;
    if (shape_.headerLength >= 6) {
        info |= kPresentationTime;
        Put32(&header_[2], static_cast<std::uint32_t>(exposed_));
    }
    if (shape_.headerLength >= 12) {
        info |= kSourceClock;
        Put32(&header_[6], static_cast<std::uint32_t>(now));
        const auto usbFrame = static_cast<std::uint32_t>(now / kTicksPerUsbFrame & 0x7FF);
        header_[10] = static_cast<std::uint8_t>(usbFrame);
        header_[11] = static_cast<std::uint8_t>(usbFrame >> 8);
    }
    header_[0] = shape_.headerLength;
    header_[1] = info;
}

usb::TransferResult PayloadStream::Next(std::span<std::uint8_t> buffer, usb::Ticks now) {
    if (!inPayload_)
        BeginPayload(now);

    const std::size_t left = headerLeft_ + dataLeft_;
    if (left > buffer.size() && buffer.size() % shape_.packetSize != 0) {
        // The packet that crosses the end of the buffer is more than the host asked for.
        Abandon();
        return {usb::TransferStatus::Babble};
    }
    const std::size_t fromHeader = std::min(headerLeft_, buffer.size());
    if (fromHeader != 0)
        std::memcpy(buffer.data(), header_.data() + (shape_.headerLength - headerLeft_), fromHeader);
    const std::size_t fromFrame = std::min(dataLeft_, buffer.size() - fromHeader);
    if (fromFrame != 0)
        std::memcpy(buffer.data() + fromHeader, frame_->data() + offset_, fromFrame);
    headerLeft_ -= fromHeader;
    dataLeft_ -= fromFrame;
    offset_ += fromFrame;

    const std::size_t length = fromHeader + fromFrame;
    if (headerLeft_ + dataLeft_ == 0) {
        if (endsOnPacket_ && length == buffer.size() && length != 0) {
            // The host cannot tell yet that the payload is over: an empty packet follows.
            endsOnPacket_ = false;
        } else {
            inPayload_ = false;
            if (offset_ == frame_->size())
                frame_.reset();
        }
    }
    return {usb::TransferStatus::Ok, length};
}

} // namespace host::cameras
