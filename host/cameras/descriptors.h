// The descriptors of a model, byte by byte (USB 2.0 chapter 9, USB Video Class 1.1).
#pragma once

#include "host/cameras/model.h"

#include <cstdint>
#include <string_view>
#include <vector>

namespace host::cameras {

// Entity ids of the models' video function.
inline constexpr std::uint8_t kCameraTerminalId = 1;
inline constexpr std::uint8_t kProcessingUnitId = 2;
inline constexpr std::uint8_t kExtensionUnitId = 3;
inline constexpr std::uint8_t kOutputTerminalId = 4;

inline constexpr std::uint8_t kStreamingInterface = 1;
inline constexpr std::uint8_t kStreamingEndpoint = 0x81;

// The clock of time stamps in payload headers, in Hz: the unit of usb::Ticks.
inline constexpr std::uint32_t kClockFrequency = 10'000'000;

std::vector<std::uint8_t> BuildDeviceDescriptor(const Model &model);

// Configuration 1: video control on interface 0, video streaming on interface 1 with its bulk pipe in alternate 0.
std::vector<std::uint8_t> BuildConfigurationDescriptor(const Model &model, bool highSpeed);

// A string descriptor of ASCII text, cut to the 126 characters that a descriptor holds.
std::vector<std::uint8_t> BuildStringDescriptor(std::string_view text);

// String descriptor 0: US English only.
std::vector<std::uint8_t> BuildLanguageTable();

} // namespace host::cameras
