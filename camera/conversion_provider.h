// Two switches of family C's conversion: private image control 210, smoothing of green (2 x 2 averages in grey images),
// and 212, the white-balance gains.
#pragma once

#include "camera/control.h"

namespace uvc {

class ConversionProvider final : public PropertyProvider {
  public:
    ConversionProvider();

    NTSTATUS Attach(UvcCamera &camera) override;

    // IRQL: <= DISPATCH_LEVEL. Lock: none.
    bool Smooths() const;
    bool AppliesGains() const;

  private:
    static NTSTATUS Get(const ControlRequest &request);
    static NTSTATUS Set(const ControlRequest &request);
    static const ControlItem kItems[2];

    bool &SwitchOf(const ControlRequest &request);

    // Shared.
    bool smooths_ = false;
    bool appliesGains_ = true;
};

} // namespace uvc
