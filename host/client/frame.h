// A frame buffer of an application, with the stream header that goes to the driver and back.
#pragma once

#include "platform/platform.h"

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>

namespace host::client {

// Page-aligned, as applications allocate for capture. Must outlive its stay in a pin's queue.
class Frame {
  public:
    // `size` bytes; with a KS_FRAME_INFO behind the header (128 bytes in all) or without (56).
    explicit Frame(std::size_t size, bool withInfo = true);
    ~Frame();
    Frame(const Frame &) = delete;
    Frame &operator=(const Frame &) = delete;

    std::span<std::uint8_t> Buffer() { return {buffer_.get(), size_}; }
    // What has arrived; empty when the frame failed.
    std::span<const std::uint8_t> Data() const;
    KSSTREAM_HEADER &Header() { return block_.header; }
    KS_FRAME_INFO &Info() { return block_.info; }
    // STATUS_PENDING while the frame is with the driver.
    NTSTATUS Status() const { return status_; }
    ULONG_PTR Information() const { return ioStatus_.Information; }

  private:
    friend class Pin;
    struct Block {
        KSSTREAM_HEADER header;
        KS_FRAME_INFO info;
    };
    struct Free {
        void operator()(std::uint8_t *bytes) const { std::free(bytes); }
    };
    void Prepare();

    std::unique_ptr<std::uint8_t, Free> buffer_;
    std::size_t size_;
    bool withInfo_;
    Block block_{};
    HANDLE event_ = nullptr;
    PKEVENT eventObject_ = nullptr;
    IO_STATUS_BLOCK ioStatus_{};
    NTSTATUS status_ = STATUS_SUCCESS;
};

} // namespace host::client
