// The one reader of bytes that come from outside: descriptors, payloads, property buffers. A read beyond the end gives
// zero and marks the cursor as failed for good, so a walk reads a whole record and tests once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

class ByteCursor {
  public:
    ByteCursor() = default;
    explicit ByteCursor(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

    bool Ok() const { return ok_; }
    std::size_t Remaining() const { return bytes_.size(); }
    const std::uint8_t *Position() const { return bytes_.data(); }

    std::uint8_t U8() { return static_cast<std::uint8_t>(Little(1)); }
    std::uint16_t U16() { return static_cast<std::uint16_t>(Little(2)); }
    std::uint32_t U32() { return Little(4); }
    void Skip(std::size_t count) { Take(count); }

    // The next `count` bytes as a cursor of their own; an empty failed one when there are fewer.
    ByteCursor Carve(std::size_t count) {
        ByteCursor part(Take(count));
        part.ok_ = ok_;
        return part;
    }

    // The next `count` bytes themselves; empty when there are fewer.
    std::span<const std::uint8_t> Take(std::size_t count) {
        if (!ok_ || count > bytes_.size()) {
            ok_ = false;
            bytes_ = {};
            return {};
        }
        auto taken = bytes_.first(count);
        bytes_ = bytes_.subspan(count);
        return taken;
    }

  private:
    std::uint32_t Little(std::size_t width) {
        std::uint32_t value = 0;
        std::uint32_t shift = 0;
        for (std::uint8_t byte : Take(width)) {
            value |= static_cast<std::uint32_t>(byte) << shift;
            shift += 8;
        }
        return value;
    }

    std::span<const std::uint8_t> bytes_;
    bool ok_ = true;
};
