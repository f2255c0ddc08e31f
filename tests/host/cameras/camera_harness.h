// A host for one camera: sends control requests and reads payloads as a driver would.
#pragma once

#include "host/cameras/catalogue.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace host::cameras {

using Bytes = std::vector<std::uint8_t>;

inline std::shared_ptr<SimulatedCamera> Make(const std::string &text) {
    std::string reason;
    auto camera = MakeCamera(text, reason);
    EXPECT_NE(camera, nullptr) << text << ": " << reason;
    return camera;
}

// The answer to a device-to-host request, or a stall as an empty optional.
inline std::optional<Bytes> Get(SimulatedCamera &camera, std::uint8_t type, std::uint8_t request, std::uint16_t value,
                                std::uint16_t index, std::uint16_t length) {
    Bytes data(length, 0xEE);
    const auto result = camera.Control({type, request, value, index, length}, data, 0);
    if (result.status != usb::TransferStatus::Ok)
        return std::nullopt;
    data.resize(result.length);
    return data;
}

// Whether the camera took a host-to-device request.
inline bool Set(SimulatedCamera &camera, std::uint8_t type, std::uint8_t request, std::uint16_t value,
                std::uint16_t index, Bytes data = {}) {
    const auto length = static_cast<std::uint16_t>(data.size());
    return camera.Control({type, request, value, index, length}, data, 0).status == usb::TransferStatus::Ok;
}

inline bool Configure(SimulatedCamera &camera) {
    return Set(camera, 0x00, 9, 1, 0);
}

inline std::uint32_t Little(const Bytes &bytes, std::size_t at, std::size_t width) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < width; ++i)
        value |= std::uint32_t{bytes.at(at + i)} << (8 * i);
    return value;
}

inline Bytes Block(std::uint8_t format, std::uint8_t frame, std::uint32_t interval, std::size_t length = 34) {
    Bytes block(length);
    block[0] = 1;
    block[2] = format;
    block[3] = frame;
    for (int i = 0; i < 4; ++i)
        block[4 + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(interval >> (8 * i));
    return block;
}

inline bool SetProbe(SimulatedCamera &camera, const Bytes &block) {
    return Set(camera, 0x21, 0x01, 0x0100, 1, block);
}

inline Bytes GetProbe(SimulatedCamera &camera, std::uint8_t request = 0x81) {
    return Get(camera, 0xA1, request, 0x0100, 1, 34).value_or(Bytes{});
}

inline bool Commit(SimulatedCamera &camera, std::uint8_t format, std::uint8_t frame, std::uint32_t interval) {
    return SetProbe(camera, Block(format, frame, interval)) && Set(camera, 0x21, 0x01, 0x0200, 1, GetProbe(camera));
}

struct Payload {
    usb::TransferResult result; // of the last transfer
    Bytes bytes;
    std::size_t transfers = 0;

    bool Ok() const { return result.status == usb::TransferStatus::Ok; }
    bool Fid() const { return (bytes.at(1) & 1) != 0; }
    bool EndOfFrame() const { return (bytes.at(1) & 2) != 0; }
};

// One payload, in as many transfers as it takes. It is over with a short transfer or when it is as long as agreed.
inline Payload ReadPayload(SimulatedCamera &camera, std::size_t bufferSize, usb::Ticks now) {
    const std::size_t longest = camera.CommittedFormat().maxPayloadSize;
    Payload payload;
    for (;;) {
        Bytes buffer(bufferSize);
        payload.result = camera.BulkIn(0x81, buffer, now);
        if (!payload.Ok())
            return payload;
        ++payload.transfers;
        payload.bytes.insert(payload.bytes.end(), buffer.begin(),
                             buffer.begin() + static_cast<std::ptrdiff_t>(payload.result.length));
        if (payload.result.length < bufferSize || payload.bytes.size() >= longest)
            return payload;
    }
}

// The data of a whole frame, up to its EOF; empty when there is none at that time.
inline Bytes ReadFrame(SimulatedCamera &camera, usb::Ticks now, std::size_t bufferSize = 0) {
    if (bufferSize == 0)
        bufferSize = camera.CommittedFormat().maxPayloadSize;
    Bytes frame;
    for (;;) {
        const Payload payload = ReadPayload(camera, bufferSize, now);
        if (!payload.Ok())
            return {};
        frame.insert(frame.end(), payload.bytes.begin() + payload.bytes.at(0), payload.bytes.end());
        if (payload.EndOfFrame())
            return frame;
    }
}

} // namespace host::cameras
