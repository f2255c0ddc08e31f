// Which part of its sensor a camera of family C shows: private image controls 118 and 119, the offsets of the frame,
// and 211, the binning factor.
#pragma once

#include "camera/control.h"

namespace uvc {

class RegionProvider final : public PropertyProvider {
  public:
    RegionProvider();

    // STATUS_NOT_IMPLEMENTED for a camera without any of these controls.
    NTSTATUS Attach(UvcCamera &camera) override;

    // Asks the camera where the frame lies, since a commit or a set may have moved it. IRQL: PASSIVE_LEVEL.
    void Refresh(UvcCamera &camera);

    // As last read or set: offsets in pixels of the unbinned sensor, 0 where the camera has none, and the binning
    // factor, 1 where it has none. IRQL: <= DISPATCH_LEVEL. Lock: none.
    ULONG OffsetX() const;
    ULONG OffsetY() const;
    ULONG Binning() const;

  private:
    // The camera's; null for what it lacks.
    UvcControl *offsetX_ = nullptr;
    UvcControl *offsetY_ = nullptr;
    UvcControl *binning_ = nullptr;
};

} // namespace uvc
