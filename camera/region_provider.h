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

    // Sets one control, and asks the camera where the frame lies then. IRQL: PASSIVE_LEVEL.
    NTSTATUS Set(const ControlRequest &request);

    // Asks the camera where the frame lies, since a commit may have moved it. IRQL: PASSIVE_LEVEL.
    void Refresh(UvcCamera &camera);

    // As last read or set: offsets in pixels of the unbinned sensor, 0 where the camera has none, and the binning
    // factor, 1 where it has none. IRQL: <= DISPATCH_LEVEL. Lock: none.
    ULONG OffsetX() const;
    ULONG OffsetY() const;
    ULONG Binning() const;

  private:
    void ReadAll(UvcCamera &camera); // mutex held

    KMUTEX mutex_; // one set or refresh at a time: what is read last is what the frame has

    // The camera's; null for what it lacks.
    UvcControl *offsetX_ = nullptr;
    UvcControl *offsetY_ = nullptr;
    UvcControl *binning_ = nullptr;
};

} // namespace uvc
