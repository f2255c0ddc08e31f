#include "host/streaming/object.h"

#include "host/streaming/device.h"
#include "host/streaming/filter.h"
#include "host/streaming/filter_factory.h"
#include "host/streaming/pin.h"
#include "host/streaming/rules.h"

namespace host::streaming {

namespace {

constexpr ULONG kObjectSignature = MakePoolTag("KsOb");

StrictMutex &ControlMutex(PVOID object, const char *routine) {
    Object *known = Object::FromPublic(object, routine);
    if (known->kind == ObjectKind::Filter)
        return static_cast<Filter *>(known)->control;
    if (known->kind == ObjectKind::Pin)
        return static_cast<Pin *>(known)->filter->control;
    Violation("KsObject", routine, "only filters and pins have a control mutex");
}

} // namespace

void Object::Initialise(ObjectKind itsKind, Object *itsParent, Device *itsDevice) {
    signature = kObjectSignature;
    kind = itsKind;
    parent = itsParent;
    device = itsDevice;
}

Object *Object::FromPublic(PVOID object, const char *routine) {
    auto *known = reinterpret_cast<Object *>(static_cast<UCHAR *>(object) - sizeof(Object));
    if (object == nullptr || known->signature != kObjectSignature)
        Violation("KsObject", routine, "not an AVStream object");
    return known;
}

Object *Object::FromIrp(PIRP irp) {
    PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
    return file == nullptr ? nullptr : static_cast<Object *>(file->FsContext);
}

void RequireKind(const Object *object, ObjectKind kind, const char *routine) {
    if (object == nullptr || object->signature != kObjectSignature || object->kind != kind)
        Violation("KsObject", routine, "not an AVStream object of the right kind");
}

} // namespace host::streaming

using namespace host::streaming;

extern "C" PKSDEVICE NTAPI KsGetDevice(PVOID object) {
    RequireLevel("KsGetDevice", DISPATCH_LEVEL);
    return Object::FromPublic(object, "KsGetDevice")->device;
}

extern "C" PVOID NTAPI KsGetParent(PVOID object) {
    RequireLevel("KsGetParent", DISPATCH_LEVEL);
    Object *parent = Object::FromPublic(object, "KsGetParent")->parent;
    return parent == nullptr ? nullptr : static_cast<PVOID>(parent + 1);
}

extern "C" PKSFILTER NTAPI KsPinGetParentFilter(PKSPIN pin) {
    RequireLevel("KsPinGetParentFilter", DISPATCH_LEVEL);
    return FromPublic<Pin>(pin, "KsPinGetParentFilter")->filter;
}

extern "C" PKSDEVICE NTAPI KsGetDeviceForDeviceObject(PDEVICE_OBJECT functionalDevice) {
    return Device::From(functionalDevice);
}

// The filter that the request was sent to, or the parent of the pin that it was sent to.
extern "C" PKSFILTER NTAPI KsGetFilterFromIrp(PIRP irp) {
    RequireLevel("KsGetFilterFromIrp", DISPATCH_LEVEL);
    Object *object = Object::FromIrp(irp);
    if (object != nullptr && object->kind == ObjectKind::Pin)
        object = static_cast<Pin *>(object)->filter;
    if (object == nullptr || object->kind != ObjectKind::Filter)
        return nullptr;
    return static_cast<Filter *>(object);
}

extern "C" PKSPIN NTAPI KsGetPinFromIrp(PIRP irp) {
    RequireLevel("KsGetPinFromIrp", DISPATCH_LEVEL);
    Object *object = Object::FromIrp(irp);
    if (object == nullptr || object->kind != ObjectKind::Pin)
        return nullptr;
    return static_cast<Pin *>(object);
}

extern "C" void NTAPI KsAcquireDevice(PKSDEVICE device) {
    FromPublic<Device>(device, "KsAcquireDevice")->mutex.Acquire("KsAcquireDevice");
}

extern "C" void NTAPI KsReleaseDevice(PKSDEVICE device) {
    FromPublic<Device>(device, "KsReleaseDevice")->mutex.Release("KsReleaseDevice");
}

extern "C" void NTAPI KsAcquireControl(PVOID object) {
    ControlMutex(object, "KsAcquireControl").Acquire("KsAcquireControl");
}

extern "C" void NTAPI KsReleaseControl(PVOID object) {
    ControlMutex(object, "KsReleaseControl").Release("KsReleaseControl");
}
