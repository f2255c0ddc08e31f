// The exposure of family C and the automatic that moves it: camera control 4, private image controls 106, 109, 201,
// 202.
#pragma once

#include "camera/automatic_control.h"
#include "camera/exposure_law.h"

namespace uvc {

class ExposureProvider final : public PropertyProvider {
  public:
    ExposureProvider();

    // Reads the camera's range. A camera without exposure control keeps the items that need none.
    NTSTATUS Attach(UvcCamera &camera) override;

    const ExposureState &State() const { return state_; }

    // A step of the automatic. IRQL: <= DISPATCH_LEVEL. Lock: none.
    void Follow(WorkItemTracker &tracker, LONG exposure) { control_.Follow(tracker, exposure); }

  private:
    static NTSTATUS GetExposure(const ControlRequest &request);
    static NTSTATUS SetExposure(const ControlRequest &request);
    static NTSTATUS GetLimits(const ControlRequest &request);
    static NTSTATUS SetLimits(const ControlRequest &request);
    static const ControlItem kItems[5];

    ExposureState state_;
    AutomaticControl control_{state_.current, state_.automatic};
};

} // namespace uvc
