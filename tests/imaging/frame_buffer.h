// Buffers for image tests: exactly as long as they say, at an odd address, with rows whose padding is watched.
#pragma once

#include "imaging/image.h"

#include <cstdint>
#include <cstring>
#include <random>
#include <span>
#include <vector>

inline constexpr std::uint8_t kCanary = 0xA5;

// An image of its own heap block: the last byte of the last row is the last byte of the block, so that address
// sanitizer sees any access beyond it, and `misalignment` bytes in front of it and the padding of each row are
// canaries.
class FrameBuffer {
  public:
    FrameBuffer(std::uint32_t fourcc, std::uint32_t width, std::uint32_t height, std::uint32_t pixelBytes,
                std::uint32_t padding = 0, std::uint32_t misalignment = 0)
        : rowBytes_(width * pixelBytes), misalignment_(misalignment),
          bytes_(misalignment + (height - 1) * (rowBytes_ + padding) + rowBytes_, kCanary),
          image{.data = bytes_.data() + misalignment,
                .size = static_cast<std::uint32_t>(bytes_.size()) - misalignment,
                .fourcc = fourcc,
                .width = width,
                .height = height,
                .stride = rowBytes_ + padding} {}

    FrameBuffer(const FrameBuffer &) = delete;
    FrameBuffer &operator=(const FrameBuffer &) = delete;

    std::uint8_t *Row(std::uint32_t r) { return image.data + static_cast<std::size_t>(r) * image.stride; }

    std::span<std::uint8_t> Bytes() { return {image.data, image.size}; }

    bool CanariesAlive() {
        for (std::uint32_t i = 0; i < misalignment_; ++i) {
            if (bytes_[i] != kCanary)
                return false;
        }
        for (std::uint32_t r = 0; r + 1 < image.height; ++r) {
            for (std::uint32_t i = rowBytes_; i < image.stride; ++i) {
                if (Row(r)[i] != kCanary)
                    return false;
            }
        }
        return true;
    }

  private:
    std::uint32_t rowBytes_;
    std::uint32_t misalignment_;
    std::vector<std::uint8_t> bytes_;

  public:
    imaging::ImageDescriptor image;
};

// Contents in which every branch is taken: full-range noise, small steps (equal gradients, smoothing at its threshold),
// black and white only.
inline void FillWithNoise(std::span<std::uint8_t> bytes, std::uint32_t seed) {
    std::minstd_rand random(seed + 1);
    for (std::uint8_t &byte : bytes) {
        const auto value = static_cast<std::uint8_t>(random() >> 8);
        byte = seed % 3 == 0 ? value : static_cast<std::uint8_t>(seed % 3 == 1 ? 120 + value % 9 : (value & 1) * 255);
    }
}
