// Which class drives which camera.
#pragma once

#include "camera/uvc_camera.h"

namespace uvc {

using CameraFactory = UvcCamera *(*)(PDEVICE_OBJECT device, FrameSink *sink);

struct ModelTableEntry {
    UCHAR reserved[32];
    ULONG kind;
    ULONG productId;
    CameraFactory factory; // null: the row never matches
};
static_assert(sizeof(ModelTableEntry) == 48);

inline constexpr ULONG kModelCount = 9;
extern const ModelTableEntry ModelTable[kModelCount];

// The first row with that product id and a factory, or null: such a camera is driven by UvcCamera itself.
const ModelTableEntry *FindModel(ULONG productId);

} // namespace uvc
