// A device that does what a test tells it, and writes down what it was asked.
#pragma once

#include "host/usb/usb_device.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace host::usb::test {

using Bytes = std::vector<std::uint8_t>;
using SetupPacket = Setup; // a test fixture has a member of the other name

inline Bytes operator+(Bytes left, const Bytes &right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

inline Bytes InterfaceDescriptor(std::uint8_t number, std::uint8_t alternate, std::uint8_t endpoints) {
    return {9, 4, number, alternate, endpoints, 0x0E, 0x02, 0x01, 0};
}
inline Bytes EndpointDescriptor(std::uint8_t address, std::uint8_t attributes, std::uint16_t packet,
                                std::uint8_t interval) {
    return {7,       5, address, attributes, static_cast<std::uint8_t>(packet), static_cast<std::uint8_t>(packet >> 8),
            interval};
}
inline Bytes ConfigurationDescriptor(std::uint8_t interfaces, const Bytes &body) {
    auto total = static_cast<std::uint16_t>(9 + body.size());
    return Bytes{9,    2,  static_cast<std::uint8_t>(total), static_cast<std::uint8_t>(total >> 8), interfaces, 1, 0,
                 0x80, 250} +
           body;
}

// Interface 0 with an interrupt pipe behind a class descriptor; interface 1 with a bulk pipe in setting 0 and a
// high-bandwidth isochronous and a bulk OUT pipe in setting 1.
inline Bytes CameraConfiguration() {
    return ConfigurationDescriptor(2, InterfaceDescriptor(0, 0, 1) + Bytes{5, 0x24, 1, 2, 3} +
                                          EndpointDescriptor(0x83, 3, 16, 8) + InterfaceDescriptor(1, 0, 1) +
                                          EndpointDescriptor(0x81, 2, 512, 0) + InterfaceDescriptor(1, 1, 2) +
                                          EndpointDescriptor(0x82, 5, 0x1400, 1) + EndpointDescriptor(0x02, 2, 512, 0));
}

class FakeDevice : public UsbDevice {
  public:
    bool highSpeed = true;
    Bytes deviceDescriptor{18, 1, 0, 2, 0xEF, 2, 1, 64, 0x34, 0x12, 0xCD, 0xAB, 0, 1, 0, 0, 3, 1};
    Bytes configuration = CameraConfiguration();
    std::string serial = "A1B2";
    std::function<TransferResult(const Setup &, std::span<std::uint8_t>)> onControl; // class and vendor requests

    // What the bulk pipe sends, in order. `at` is the time before which it does not; kNever: until the device wakes.
    struct Chunk {
        TransferStatus status = TransferStatus::Ok;
        Bytes bytes;
        Ticks at = 0;
    };
    void Send(Chunk chunk) {
        std::lock_guard guard(mutex_);
        chunks_.push_back(std::move(chunk));
    }
    // Makes what is held back due, and says so.
    void Ring() {
        {
            std::lock_guard guard(mutex_);
            for (Chunk &chunk : chunks_)
                chunk.at = 0;
        }
        Wake();
    }
    // "control 80 06 0100 0000 0012", "reset port", "reset 81", in order.
    std::vector<std::string> TakeLog() {
        std::lock_guard guard(mutex_);
        return std::exchange(log_, {});
    }

    bool IsHighSpeed() const override { return highSpeed; }

    TransferResult Control(const Setup &setup, std::span<std::uint8_t> data, Ticks) override {
        Log("control %02x %02x %04x %04x %04x", setup.requestType, setup.request, setup.value, setup.index,
            setup.length);
        if ((setup.requestType & 0x60) != 0)
            return onControl ? onControl(setup, data) : TransferResult{.status = TransferStatus::Stall};
        switch (setup.request) {
        case 0x06:
            return Descriptor(setup.value, data);
        case 0x09:
            return {};
        case 0x0B:
            return {.status = setup.index == 1 ? TransferStatus::Ok : TransferStatus::Stall};
        default:
            return {.status = TransferStatus::Stall};
        }
    }

    TransferResult BulkIn(std::uint8_t, std::span<std::uint8_t> buffer, Ticks now) override {
        std::lock_guard guard(mutex_);
        if (chunks_.empty())
            return {.status = TransferStatus::NotYet};
        if (chunks_.front().at > now)
            return {.status = TransferStatus::NotYet, .notBefore = chunks_.front().at};
        Chunk chunk = std::move(chunks_.front());
        chunks_.pop_front();
        return {.status = chunk.status, .length = Fill(buffer, chunk.bytes)};
    }

    void ResetEndpoint(std::uint8_t endpoint) override { Log("reset %02x", endpoint); }
    void ResetPort() override { Write("reset port"); }

  private:
    static std::size_t Fill(std::span<std::uint8_t> buffer, const Bytes &bytes) {
        std::size_t length = std::min(buffer.size(), bytes.size());
        if (length != 0)
            std::memcpy(buffer.data(), bytes.data(), length);
        return length;
    }

    TransferResult Descriptor(std::uint16_t value, std::span<std::uint8_t> data) {
        switch (value) {
        case 0x0100:
            return {.status = deviceDescriptor.empty() ? TransferStatus::Stall : TransferStatus::Ok,
                    .length = Fill(data, deviceDescriptor)};
        case 0x0200:
            return {.length = Fill(data, configuration)};
        case 0x0300:
            return {.length = Fill(data, {4, 3, 9, 4})};
        case 0x0303: {
            Bytes string{static_cast<std::uint8_t>(2 + 2 * serial.size()), 3};
            for (char character : serial)
                string.insert(string.end(), {static_cast<std::uint8_t>(character), 0});
            return {.length = Fill(data, string)};
        }
        default:
            return {.status = TransferStatus::Stall};
        }
    }

    template <class... Values> void Log(const char *format, Values... values) {
        char text[64];
        std::snprintf(text, sizeof(text), format, values...);
        Write(text);
    }
    void Write(const char *line) {
        std::lock_guard guard(mutex_);
        log_.emplace_back(line);
    }

    std::mutex mutex_;
    std::deque<Chunk> chunks_;
    std::vector<std::string> log_;
};

} // namespace host::usb::test
