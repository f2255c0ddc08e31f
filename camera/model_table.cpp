#include "camera/model_table.h"

#include "camera/camera_family_a.h"
#include "camera/camera_family_b.h"
#include "camera/camera_family_c_leaves.h"

namespace uvc {

// The order is part of the table, 0x8207 before 0x8205 included.
constexpr ModelTableEntry ModelTable[] = {
    {.kind = 1, .productId = 0x8101, .factory = MakeCamera<CameraFamilyA>},
    {.kind = 2, .productId = 0x8102, .factory = MakeCamera<CameraFamilyB>},
    {.kind = 2, .productId = 0x8201, .factory = MakeCamera<CameraFamilyC1>},
    {.kind = 2, .productId = 0x8202, .factory = MakeCamera<CameraFamilyC1>},
    {.kind = 2, .productId = 0x8203, .factory = MakeCamera<CameraFamilyC2>},
    {.kind = 2, .productId = 0x8204, .factory = MakeCamera<CameraFamilyC3>},
    {.kind = 2, .productId = 0x8207, .factory = MakeCamera<CameraFamilyC6>},
    {.kind = 2, .productId = 0x8205, .factory = MakeCamera<CameraFamilyC4>},
    {.kind = 2, .productId = 0x8206, .factory = MakeCamera<CameraFamilyC5>},
};
static_assert(sizeof(ModelTable) / sizeof(ModelTable[0]) == kModelCount);

const ModelTableEntry *FindModel(ULONG productId) {
    for (const ModelTableEntry &row : ModelTable)
        if (row.productId == productId && row.factory != nullptr)
            return &row;
    return nullptr;
}

} // namespace uvc
