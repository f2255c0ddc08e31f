// The user-data store of family C and the defect lists that the maker leaves in it: docs/camera-protocol.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace host::cameras {

class UserDataStore {
  public:
    static constexpr std::size_t kSize = 16384;
    static constexpr std::uint8_t kErased = 0xFF;

    UserDataStore() : bytes_(kSize, kErased) {}

    // False, and nothing happens, when the range reaches beyond the store.
    bool Read(std::size_t offset, std::span<std::uint8_t> out) const;
    bool Write(std::size_t offset, std::span<const std::uint8_t> data);

    // These bytes, the rest erased. What does not fit is left out.
    void Assign(std::span<const std::uint8_t> data);

    const std::vector<std::uint8_t> &Bytes() const { return bytes_; }

  private:
    std::vector<std::uint8_t> bytes_;
};

struct SensorPlace {
    std::uint16_t x;
    std::uint16_t y;

    friend bool operator==(const SensorPlace &, const SensorPlace &) = default;
};

// Defective pixels of the sensor as it is binned by that factor.
struct DefectList {
    std::uint16_t binning;
    std::vector<SensorPlace> pixels;
};

inline constexpr std::size_t kMostListedDefects = 256;

// Header and lists as they stand in the store; of a longer list the first 256 pixels.
std::vector<std::uint8_t> EncodeDefectLists(std::span<const DefectList> lists);

} // namespace host::cameras
