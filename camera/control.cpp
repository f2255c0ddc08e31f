#include "camera/control.h"

#include "camera/uvc_camera.h"

namespace uvc {

NTSTATUS UvcCamera::CreateControls() {
    return STATUS_SUCCESS;
}

const ControlItem *UvcCamera::FindItem(ULONG, ULONG) {
    return nullptr;
}

PropertyProvider *UvcCamera::FindOwner(ULONG, ULONG) {
    return nullptr;
}

bool UvcCamera::ItemExists(ULONG set, ULONG id) {
    return FindItem(set, id) != nullptr;
}

NTSTATUS UvcCamera::GetControl(ULONG, ULONG, ULONG, void *, ULONG) {
    return STATUS_NOT_IMPLEMENTED;
}

NTSTATUS UvcCamera::SetControl(ULONG, ULONG, ULONG, void *, ULONG) {
    return STATUS_NOT_IMPLEMENTED;
}

} // namespace uvc
