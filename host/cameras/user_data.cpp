#include "host/cameras/user_data.h"

#include <algorithm>

namespace host::cameras {
namespace {

constexpr std::uint16_t kVersion = 1;

// IEEE 802.3: reflected, polynomial 0x04C11DB7.
std::uint32_t Crc32(std::span<const std::uint8_t> bytes) {
    std::uint32_t crc = 0xFFFFFFFF;
    for (std::uint8_t byte : bytes) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320 : 0);
    }
    return ~crc;
}

void Append(std::vector<std::uint8_t> &bytes, std::size_t value, std::size_t width) {
    for (std::size_t i = 0; i < width; ++i)
        bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

} // namespace

bool UserDataStore::Read(std::size_t offset, std::span<std::uint8_t> out) const {
    if (offset > kSize || out.size() > kSize - offset)
        return false;
    std::copy_n(bytes_.begin() + static_cast<std::ptrdiff_t>(offset), out.size(), out.begin());
    return true;
}

bool UserDataStore::Write(std::size_t offset, std::span<const std::uint8_t> data) {
    if (offset > kSize || data.size() > kSize - offset)
        return false;
    std::copy(data.begin(), data.end(), bytes_.begin() + static_cast<std::ptrdiff_t>(offset));
    return true;
}

void UserDataStore::Assign(std::span<const std::uint8_t> data) {
    bytes_.assign(kSize, kErased);
    Write(0, data.first(std::min(data.size(), kSize)));
}

std::vector<std::uint8_t> EncodeDefectLists(std::span<const DefectList> lists) {
    std::vector<std::uint8_t> body;
    for (const DefectList &list : lists) {
        const std::size_t count = std::min(list.pixels.size(), kMostListedDefects);
        Append(body, list.binning, 2);
        Append(body, count, 2);
        for (const SensorPlace &place : std::span(list.pixels).first(count)) {
            Append(body, place.x, 2);
            Append(body, place.y, 2);
        }
    }
    std::vector<std::uint8_t> bytes{'U', 'D', 'S', 'T'};
    Append(bytes, kVersion, 2);
    Append(bytes, lists.size(), 2);
    Append(bytes, body.size(), 4);
    Append(bytes, Crc32(body), 4);
    bytes.insert(bytes.end(), body.begin(), body.end());
    return bytes;
}

} // namespace host::cameras
