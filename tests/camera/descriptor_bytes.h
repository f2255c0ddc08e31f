// Configurations made by hand, descriptor by descriptor.
#pragma once

#include <cstdint>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>
#include <vector>

namespace uvc::camera_test {

using Bytes = std::vector<std::uint8_t>;

inline Bytes operator+(Bytes left, const Bytes &right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

inline Bytes Le32(std::uint32_t value) {
    return {static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8),
            static_cast<std::uint8_t>(value >> 16), static_cast<std::uint8_t>(value >> 24)};
}

// Puts the length in front.
inline Bytes Descriptor(const Bytes &content) {
    return Bytes{static_cast<std::uint8_t>(content.size() + 1)} + content;
}

inline Bytes Interface(std::uint8_t number, std::uint8_t alternate = 0, std::uint8_t interfaceClass = 0x0E) {
    return Descriptor({0x04, number, alternate, 0, interfaceClass, 0, 0, 0});
}

inline Bytes InputTerminal(std::uint8_t id, std::uint16_t type = 0x0201, const Bytes &controls = {0xFF, 0xFF, 0x03}) {
    return Descriptor(Bytes{0x24, 0x02, id, static_cast<std::uint8_t>(type), static_cast<std::uint8_t>(type >> 8), 0, 0,
                            0, 0, 0, 0, 0, 0, static_cast<std::uint8_t>(controls.size())} +
                      controls);
}

inline Bytes ProcessingUnit(std::uint8_t id, const Bytes &controls = {0xFF, 0xFF}) {
    return Descriptor(Bytes{0x24, 0x05, id, 1, 0, 0, static_cast<std::uint8_t>(controls.size())} + controls + Bytes{0});
}

inline Bytes ExtensionUnit(std::uint8_t id, const Bytes &sources = {2}, const Bytes &controls = {0x0F}) {
    return Descriptor(Bytes{0x24, 0x06, id} + Bytes(16, 0xAB) + Bytes{4, static_cast<std::uint8_t>(sources.size())} +
                      sources + Bytes{static_cast<std::uint8_t>(controls.size())} + controls + Bytes{0});
}

inline Bytes Format(std::uint8_t index, bool frameBased = false, const char *fourcc = "YUY2", std::uint8_t bits = 16) {
    Bytes guid(fourcc, fourcc + 4);
    guid = guid + Bytes{0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71};
    Bytes content =
        Bytes{0x24, static_cast<std::uint8_t>(frameBased ? 0x10 : 0x04), index, 1} + guid + Bytes{bits, 1, 0, 0, 0, 0};
    return Descriptor(frameBased ? content + Bytes{0} : content);
}

// `type` is bFrameIntervalType: the number of `intervals`, or 0 for a range.
inline Bytes Frame(std::uint8_t index, std::uint16_t width, std::uint16_t height, std::uint8_t type,
                   std::initializer_list<std::uint32_t> intervals, bool frameBased = false,
                   std::uint32_t defaultInterval = 333333) {
    Bytes content = Bytes{0x24,
                          static_cast<std::uint8_t>(frameBased ? 0x11 : 0x05),
                          index,
                          0,
                          static_cast<std::uint8_t>(width),
                          static_cast<std::uint8_t>(width >> 8),
                          static_cast<std::uint8_t>(height),
                          static_cast<std::uint8_t>(height >> 8)} +
                    Le32(0x11111111) + Le32(0x22222222);
    content = frameBased ? content + Le32(defaultInterval) + Bytes{type} + Le32(0x33333333)
                         : content + Le32(0x33333333) + Le32(defaultInterval) + Bytes{type};
    for (std::uint32_t interval : intervals)
        content = content + Le32(interval);
    return Descriptor(content);
}

inline Bytes ReadCameraFile(const std::string &name) {
    std::ifstream file(std::string(UVC_TEST_DATA "/cameras/") + name, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

} // namespace uvc::camera_test
