// Images of exactly the bytes they say, so that any access beyond them is seen: sources in a heap block of their own,
// destinations between canaries.
#pragma once

#include "imaging/image.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <span>
#include <vector>

inline constexpr std::uint8_t kCanary = 0xA5;

// A destination: the padding of its rows and `kGuard` bytes on both sides are canaries. It begins at an address that is
// `misalignment` beyond a multiple of 16.
class FrameBuffer {
  public:
    FrameBuffer(std::uint32_t fourcc, std::uint32_t width, std::uint32_t height, std::uint32_t pixelBytes,
                std::uint32_t padding = 0, std::uint32_t misalignment = 0)
        : FrameBuffer(fourcc, width, height, pixelBytes, padding, misalignment + kGuard, kGuard) {}

    FrameBuffer(const FrameBuffer &) = delete;
    FrameBuffer &operator=(const FrameBuffer &) = delete;

    std::uint8_t *Row(std::uint32_t r) { return image.data + static_cast<std::size_t>(r) * image.stride; }

    std::span<std::uint8_t> Bytes() { return {bytes_.data() + front_, bytes_.size() - front_ - behind_}; }

    // Whatever has become of `image` since.
    bool CanariesAlive() const {
        const auto alive = [](std::span<const std::uint8_t> bytes) {
            return std::ranges::all_of(bytes, [](std::uint8_t byte) { return byte == kCanary; });
        };
        const std::span<const std::uint8_t> all(bytes_);
        if (!alive(all.first(front_)) || !alive(all.last(behind_)))
            return false;
        for (std::size_t r = 0; r + 1 < rows_; ++r) {
            if (!alive(all.subspan(front_ + r * stride_ + rowBytes_, stride_ - rowBytes_)))
                return false;
        }
        return true;
    }

  protected:
    FrameBuffer(std::uint32_t fourcc, std::uint32_t width, std::uint32_t height, std::uint32_t pixelBytes,
                std::uint32_t padding, std::size_t front, std::size_t behind)
        : rowBytes_(width * pixelBytes), stride_(rowBytes_ + padding), rows_(height), front_(front), behind_(behind),
          bytes_(front + (height - 1) * stride_ + rowBytes_ + behind, kCanary),
          image{.data = bytes_.data() + front,
                .size = static_cast<std::uint32_t>(bytes_.size() - front - behind),
                .fourcc = fourcc,
                .width = width,
                .height = height,
                .stride = static_cast<std::uint32_t>(stride_)} {}

  private:
    static constexpr std::size_t kGuard = 64;

    std::size_t rowBytes_;
    std::size_t stride_;
    std::size_t rows_;
    std::size_t front_;
    std::size_t behind_;
    std::vector<std::uint8_t> bytes_;

  public:
    imaging::ImageDescriptor image;
};

// Contents in which every branch is taken.
enum class Noise { kFullRange, kSmallSteps, kBlackAndWhite };

// A source: its last byte is the last of the block, where address sanitizer looks; only `misalignment` bytes are in
// front of it.
class SourceBuffer : public FrameBuffer {
  public:
    SourceBuffer(std::uint32_t fourcc, std::uint32_t width, std::uint32_t height, std::uint32_t padding = 0,
                 std::uint32_t misalignment = 0)
        : FrameBuffer(fourcc, width, height, 1, padding, std::size_t{misalignment}, std::size_t{0}) {}

    void Fill(Noise noise, std::uint32_t seed) {
        std::minstd_rand random(seed + 1);
        for (std::uint8_t &byte : Bytes()) {
            const auto value = static_cast<std::uint8_t>(random() >> 8);
            byte = noise == Noise::kFullRange    ? value
                   : noise == Noise::kSmallSteps ? static_cast<std::uint8_t>(120 + value % 9)
                                                 : static_cast<std::uint8_t>((value & 1) * 255);
        }
        filled_.assign(Bytes().begin(), Bytes().end());
    }

    bool Unchanged() { return std::ranges::equal(Bytes(), filled_); }

  private:
    std::vector<std::uint8_t> filled_;
};
