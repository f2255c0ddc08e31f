// Exposure times: UVC counts in units of 100 us, the camera control property in powers of two of a second.
#pragma once

#include "platform/platform.h"

#include <algorithm>
#include <bit>

namespace uvc {

inline constexpr ULONG kExposureUnitsPerSecond = 10000;
inline constexpr LONG kLongestExposureValue = 17;   // 2^18 seconds are more units than a LONG holds
inline constexpr LONG kShortestExposureValue = -13; // one unit; below it is none

inline LONG ExposureUnits(LONG value) {
    if (value >= 0)
        return static_cast<LONG>(kExposureUnitsPerSecond << std::min(value, kLongestExposureValue));
    return value < kShortestExposureValue ? 0 : static_cast<LONG>(kExposureUnitsPerSecond >> -value);
}

// Times between two powers of two: the nearer to one second. No time counts as the shortest.
inline LONG ExposureValue(LONG units) {
    const auto floorLog2 = [](ULONG number) { return static_cast<LONG>(std::bit_width(number)) - 1; };
    const auto time = static_cast<ULONG>(units);
    if (time == 0)
        return kShortestExposureValue;
    return time >= kExposureUnitsPerSecond ? floorLog2(time / kExposureUnitsPerSecond)
                                           : -floorLog2(kExposureUnitsPerSecond / time);
}

} // namespace uvc
