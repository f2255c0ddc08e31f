// The external trigger of family C and its software substitute: private image controls 115 and 213.
#pragma once

#include "camera/control.h"

namespace uvc {

class TriggerProvider final : public PropertyProvider {
  public:
    TriggerProvider();

    // STATUS_NOT_IMPLEMENTED for a camera without trigger.
    NTSTATUS Attach(UvcCamera &camera) override;
};

} // namespace uvc
