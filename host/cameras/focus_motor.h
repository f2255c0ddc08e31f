// The motor that moves the lens: evenly, 800 ms for its whole range.
#pragma once

#include "host/usb/usb_device.h"

#include <algorithm>
#include <cstdlib>

namespace host::cameras {

class FocusMotor {
  public:
    static constexpr int kRange = 1000; // positions 0 to 1000
    static constexpr usb::Ticks kTicksPerPosition = 8'000'000 / kRange;

    void RestAt(int position) { from_ = target_ = position; }

    void MoveTo(int target, usb::Ticks now) {
        if (target == target_)
            return;
        from_ = PositionAt(now);
        target_ = target;
        start_ = now;
    }

    int PositionAt(usb::Ticks now) const {
        const auto way = std::clamp<usb::Ticks>((now - start_) / kTicksPerPosition, 0, std::abs(target_ - from_));
        return target_ > from_ ? from_ + static_cast<int>(way) : from_ - static_cast<int>(way);
    }

    int Target() const { return target_; }

  private:
    int from_ = 500;
    int target_ = 500;
    usb::Ticks start_ = 0;
};

} // namespace host::cameras
