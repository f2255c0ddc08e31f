// What the bus model needs of a device. A simulated camera, raw descriptors, a recorded capture or a real camera behind
// a user-mode USB library are all the same to it. Pure C++: no kernel names.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <span>

namespace host::usb {

using Ticks = std::int64_t; // 100 ns
inline constexpr Ticks kNever = std::numeric_limits<Ticks>::max();

struct Setup {
    std::uint8_t requestType; // bmRequestType: bit 7 device to host, bits 5-6 kind, bits 0-4 recipient
    std::uint8_t request;
    std::uint16_t value;
    std::uint16_t index;
    std::uint16_t length;
};

enum class TransferStatus {
    Ok,
    Stall,
    Babble, // more data than the buffer holds
    NotYet, // bulk only: no data before `notBefore`
};

struct TransferResult {
    TransferStatus status = TransferStatus::Ok;
    std::size_t length = 0;   // bytes transferred
    Ticks notBefore = kNever; // NotYet: when to ask again; kNever: not before the device calls its wake function
};

// Calls come from one bus thread at a time unless noted.
class UsbDevice {
  public:
    virtual ~UsbDevice() = default;

    virtual bool IsHighSpeed() const = 0;

    // A control transfer, standard requests included: GET_DESCRIPTOR, SET_CONFIGURATION and SET_INTERFACE are the
    // device's own business. `data` has Setup::length bytes, to be read or filled by the direction bit.
    virtual TransferResult Control(const Setup &setup, std::span<std::uint8_t> data, Ticks now) = 0;

    // Fills `buffer` with the next bulk transfer of `endpoint` (an IN address), ended by a short packet or a full
    // buffer.
    virtual TransferResult BulkIn(std::uint8_t endpoint, std::span<std::uint8_t> buffer, Ticks now) = 0;

    // CLEAR_FEATURE(ENDPOINT_HALT) and what the host does around it: toggles and a half-sent transfer are forgotten.
    virtual void ResetEndpoint(std::uint8_t endpoint) = 0;

    // The port was reset: the device is as after power-up, but for its stored state.
    virtual void ResetPort() = 0;

    // Whom to call, from any thread, when a bulk endpoint that answered NotYet may have data after all.
    void SetWake(std::function<void()> wake) { wake_ = std::move(wake); }

  protected:
    void Wake() {
        if (wake_)
            wake_();
    }

  private:
    std::function<void()> wake_;
};

} // namespace host::usb
