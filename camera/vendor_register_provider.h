// The general-purpose registers of a camera of family C: private image control 122, any register as a block, and
// 214 to 216 and 226 to 229, registers 1 to 7 one by one.
#pragma once

#include "camera/control.h"
#include "camera/vendor_protocol.h"

namespace uvc {

// The block of control 122.
struct RegisterBlock {
    KSPROPERTY property;
    ULONG index; // 0 to 15
    ULONG value;
    ULONG flags; // bit 0 of a set: write the value; without it the register is only selected for the next get
    ULONG reserved;
};
static_assert(sizeof(RegisterBlock) == 40);

NTSTATUS ReadRegister(UvcCamera &camera, ULONG index, ULONG &value);
NTSTATUS WriteRegister(UvcCamera &camera, ULONG index, ULONG value);

class VendorRegisterProvider final : public PropertyProvider {
  public:
    explicit VendorRegisterProvider(const CameraDescription &description);

    // STATUS_NOT_IMPLEMENTED for a camera without register block.
    NTSTATUS Attach(UvcCamera &camera) override;

  private:
    static NTSTATUS GetSelected(const ControlRequest &request);
    static NTSTATUS SetSelected(const ControlRequest &request);
    static const ControlItem kItems[8];

    const CameraDescription &description_;
    ULONG selected_ = 0; // shared
};

} // namespace uvc
