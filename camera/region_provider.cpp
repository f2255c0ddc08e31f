#include "camera/region_provider.h"

#include "camera/control_id.h"
#include "camera/uvc_camera.h"
#include "platform/lock.h"
#include "platform/shared_field.h"
#include "usb/uvc_request.h"

namespace uvc {

namespace {

// Of the family's extension unit.
constexpr ULONG kOffsetXSelector = 1;
constexpr ULONG kOffsetYSelector = 2;
constexpr ULONG kBinningSelector = 3;

// How far a frame can be moved depends on its size and binning, so the range is asked for anew.
NTSTATUS GetRegion(const ControlRequest &request) {
    ControlRequest fresh = request;
    UvcControl control{};
    if (const UvcControl *known = request.controls[0]) {
        control.kind = known->kind;
        control.selector = known->selector;
        control.unitId = known->unitId;
        control.size = known->size;
        UvcReadRange(request.camera, control);
        fresh.controls[0] = &control;
    }
    return GetGenericControl(fresh);
}

// The camera settles what it is asked for, refuses it, or moves the other two along: what it has then is what counts.
NTSTATUS SetRegion(const ControlRequest &request) {
    return static_cast<RegionProvider *>(request.provider)->Set(request);
}

constexpr ControlItem kItems[] = {
    {.propertySet = kPrivateImageSet,
     .propertyId = kOffsetXId,
     .get = GetRegion,
     .set = SetRegion,
     .modeCount = 1,
     .mappings = {{kExtensionUnit, kOffsetXSelector}}},
    {.propertySet = kPrivateImageSet,
     .propertyId = kOffsetYId,
     .get = GetRegion,
     .set = SetRegion,
     .modeCount = 1,
     .mappings = {{kExtensionUnit, kOffsetYSelector}}},
    {.propertySet = kPrivateImageSet,
     .propertyId = kBinningId,
     .get = GetRegion,
     .set = SetRegion,
     .modeCount = 1,
     .mappings = {{kExtensionUnit, kBinningSelector}}},
};

ULONG NumberOf(const UvcControl *control, ULONG otherwise) {
    if (control == nullptr)
        return otherwise;
    const LONG number = UvcControlNumber(*control, SharedLoad(control->current));
    return number < 0 ? otherwise : static_cast<ULONG>(number);
}

} // namespace

RegionProvider::RegionProvider() : PropertyProvider(kItems) {
    KeInitializeMutex(&mutex_, 0);
}

NTSTATUS RegionProvider::Attach(UvcCamera &camera) {
    offsetX_ = camera.controls.Find(kExtensionUnit, kOffsetXSelector);
    offsetY_ = camera.controls.Find(kExtensionUnit, kOffsetYSelector);
    binning_ = camera.controls.Find(kExtensionUnit, kBinningSelector);
    const bool any = offsetX_ != nullptr || offsetY_ != nullptr || binning_ != nullptr;
    return any ? STATUS_SUCCESS : STATUS_NOT_IMPLEMENTED;
}

NTSTATUS RegionProvider::Set(const ControlRequest &request) {
    MutexGuard guard(mutex_);
    NTSTATUS status = SetGenericControl(request);
    ReadAll(request.camera);
    return status;
}

void RegionProvider::Refresh(UvcCamera &camera) {
    MutexGuard guard(mutex_);
    ReadAll(camera);
}

void RegionProvider::ReadAll(UvcCamera &camera) {
    ULONGLONG raw = 0;
    for (UvcControl *control : {offsetX_, offsetY_, binning_})
        if (control != nullptr)
            static_cast<void>(UvcReadControl(camera, *control, raw)); // one that does not answer counts as unmoved
}

ULONG RegionProvider::OffsetX() const {
    return NumberOf(offsetX_, 0);
}

ULONG RegionProvider::OffsetY() const {
    return NumberOf(offsetY_, 0);
}

ULONG RegionProvider::Binning() const {
    return NumberOf(binning_, 1);
}

} // namespace uvc
