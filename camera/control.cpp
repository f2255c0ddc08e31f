#include "camera/control.h"

#include "camera/base_controls.h"
#include "camera/uvc_camera.h"

namespace uvc {

namespace {

// Up to the first mapping without a selector.
std::span<const UvcEntityMapping> MappingsOf(const ControlItem &item) {
    ULONG count = 0;
    while (count < kMaximumMappings && item.mappings[count].selector != 0)
        ++count;
    return {item.mappings, count};
}

} // namespace

const ControlItem *FindControlItem(std::span<const ControlItem> items, ULONG set, ULONG id) {
    for (const ControlItem &item : items)
        if (item.propertySet == set && item.propertyId == id)
            return &item;
    return nullptr;
}

void PropertyProvider::Destroy(ULONG flags) {
    constexpr ULONG kFreeMemory = 1;
    items_ = {};
    if ((flags & kFreeMemory) != 0)
        ExFreePoolWithTag(this, pool_tag::Context);
}

const ControlItem *PropertyProvider::FindItem(ULONG set, ULONG id) {
    return FindControlItem(items_, set, id);
}

PropertyProvider *PropertyProvider::FindOwner(ULONG set, ULONG id) {
    return FindItem(set, id) != nullptr ? this : nullptr;
}

NTSTATUS PropertyProvider::Attach(UvcCamera &) {
    return STATUS_SUCCESS;
}

NTSTATUS UvcCamera::RegisterProvider(PropertyProvider &provider) {
    NTSTATUS status = provider.Attach(*this);
    if (NT_SUCCESS(status))
        return providers_.Append(&provider);
    return status == STATUS_INSUFFICIENT_RESOURCES ? status : STATUS_SUCCESS;
}

NTSTATUS UvcCamera::CreateControls() {
    return STATUS_SUCCESS;
}

PropertyProvider *UvcCamera::FindOwner(ULONG set, ULONG id) {
    for (ULONG i = providers_.Count(); i-- > 0;)
        if (PropertyProvider *owner = providers_[i]->FindOwner(set, id))
            return owner;
    return nullptr;
}

const ControlItem *UvcCamera::FindItem(ULONG set, ULONG id) {
    if (PropertyProvider *owner = FindOwner(set, id))
        return owner->FindItem(set, id);
    return FindControlItem(BaseControls(), set, id);
}

bool UvcCamera::ItemExists(ULONG set, ULONG id) {
    const ControlItem *item = FindItem(set, id);
    if (item == nullptr)
        return false;
    if (item->modeCount == 0)
        return true;
    for (const UvcEntityMapping &mapping : MappingsOf(*item))
        if (controls.Find(mapping.kind, mapping.selector) != nullptr)
            return true;
    return false;
}

NTSTATUS UvcCamera::HandleControl(ControlHandler ControlItem::*handler, ULONG set, ULONG id, ULONG kind, void *buffer,
                                  ULONG length) {
    const ControlItem *item = FindItem(set, id);
    if (item == nullptr || item->*handler == nullptr)
        return STATUS_NOT_IMPLEMENTED;
    ControlRequest request{.camera = *this,
                           .provider = FindOwner(set, id),
                           .item = *item,
                           .controls = {},
                           .kind = kind,
                           .buffer = buffer,
                           .length = length};
    ULONG count = 0;
    for (const UvcEntityMapping &mapping : MappingsOf(*item))
        request.controls[count++] = controls.Find(mapping.kind, mapping.selector);
    return (item->*handler)(request);
}

NTSTATUS UvcCamera::GetControl(ULONG set, ULONG id, ULONG kind, void *buffer, ULONG length) {
    return HandleControl(&ControlItem::get, set, id, kind, buffer, length);
}

NTSTATUS UvcCamera::SetControl(ULONG set, ULONG id, ULONG kind, void *buffer, ULONG length) {
    return HandleControl(&ControlItem::set, set, id, kind, buffer, length);
}

} // namespace uvc
