// The gain of family C and the automatic that moves it: video processing control 9.
#pragma once

#include "camera/automatic_control.h"
#include "camera/exposure_law.h"

namespace uvc {

class GainProvider final : public PropertyProvider {
  public:
    GainProvider();

    // STATUS_NOT_IMPLEMENTED for a camera without gain; its automatic is off.
    NTSTATUS Attach(UvcCamera &camera) override;

    const GainState &State() const { return state_; }

    // A step of the automatic. IRQL: <= DISPATCH_LEVEL. Lock: none.
    void Follow(WorkItemTracker &tracker, LONG gain) { control_.Follow(tracker, gain); }

  private:
    static NTSTATUS Get(const ControlRequest &request);
    static NTSTATUS Set(const ControlRequest &request);
    static const ControlItem kItems[1];

    GainState state_;
    AutomaticControl control_{state_.current, state_.automatic};
};

} // namespace uvc
