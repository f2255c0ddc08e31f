#include "host/streaming/clock.h"

#include "host/streaming/pin.h"
#include "host/streaming/property.h"
#include "host/streaming/rules.h"
#include "platform/lock.h"
#include "platform/pool.h"

namespace host::streaming {

namespace {

constexpr KSRESOLUTION kResolution{.Granularity = 1, .Error = 0};

// What a driver gets from KsPinGetReferenceClockInterface. It keeps the clock until it is released.
class ReferenceClock final : public IKsReferenceClock {
  public:
    ReferenceClock(Clock &clock, DriverRecord &driver) : clock_(clock), driver_(driver), references_(1) {
        clock_.AddRef();
        ++driver_.clockInterfaces;
    }

    NTSTATUS STDMETHODCALLTYPE QueryInterface(REFIID, PVOID *interface) override {
        *interface = nullptr;
        return STATUS_NOT_SUPPORTED;
    }
    ULONG STDMETHODCALLTYPE AddRef() override {
        RequireLevel("IKsReferenceClock::AddRef", DISPATCH_LEVEL);
        return static_cast<ULONG>(InterlockedIncrement(&references_));
    }
    ULONG STDMETHODCALLTYPE Release() override {
        RequireLevel("IKsReferenceClock::Release", PASSIVE_LEVEL);
        LONG left = InterlockedDecrement(&references_);
        if (left == 0) {
            --driver_.clockInterfaces;
            clock_.Release();
            ExFreePoolWithTag(this, kTagObject);
        }
        return static_cast<ULONG>(left);
    }
    LONGLONG STDMETHODCALLTYPE GetTime() override { return Read("IKsReferenceClock::GetTime").Time; }
    LONGLONG STDMETHODCALLTYPE GetPhysicalTime() override { return Read("IKsReferenceClock::GetPhysicalTime").Time; }
    LONGLONG STDMETHODCALLTYPE GetCorrelatedTime(PLONGLONG systemTime) override {
        KSCORRELATED_TIME now = Read("IKsReferenceClock::GetCorrelatedTime");
        *systemTime = now.SystemTime;
        return now.Time;
    }
    LONGLONG STDMETHODCALLTYPE GetCorrelatedPhysicalTime(PLONGLONG systemTime) override {
        return GetCorrelatedTime(systemTime);
    }
    NTSTATUS STDMETHODCALLTYPE GetResolution(PKSRESOLUTION resolution) override {
        *resolution = kResolution;
        return STATUS_SUCCESS;
    }
    NTSTATUS STDMETHODCALLTYPE GetState(PKSSTATE state) override {
        *state = clock_.State();
        return STATUS_SUCCESS;
    }

  private:
    KSCORRELATED_TIME Read(const char *routine) {
        RequireLevel(routine, DISPATCH_LEVEL);
        return clock_.Now();
    }

    Clock &clock_;
    DriverRecord &driver_;
    LONG references_;
};

Clock &ClockOf(PIRP irp) {
    return *static_cast<Clock *>(Object::FromIrp(irp));
}

// The time without and with the system time that belongs to it; physical time is the same, nothing delays this clock.
NTSTATUS GetTime(PIRP irp, PKSIDENTIFIER, PVOID data) {
    *static_cast<LONGLONG *>(data) = ClockOf(irp).Now().Time;
    irp->IoStatus.Information = sizeof(LONGLONG);
    return STATUS_SUCCESS;
}

NTSTATUS GetCorrelated(PIRP irp, PKSIDENTIFIER, PVOID data) {
    *static_cast<KSCORRELATED_TIME *>(data) = ClockOf(irp).Now();
    irp->IoStatus.Information = sizeof(KSCORRELATED_TIME);
    return STATUS_SUCCESS;
}

NTSTATUS GetResolution(PIRP irp, PKSIDENTIFIER, PVOID data) {
    *static_cast<KSRESOLUTION *>(data) = kResolution;
    irp->IoStatus.Information = sizeof(KSRESOLUTION);
    return STATUS_SUCCESS;
}

NTSTATUS GetState(PIRP irp, PKSIDENTIFIER, PVOID data) {
    *static_cast<KSSTATE *>(data) = ClockOf(irp).State();
    irp->IoStatus.Information = sizeof(KSSTATE);
    return STATUS_SUCCESS;
}

const KSPROPERTY_ITEM kClockItems[] = {
    DEFINE_KSPROPERTY_ITEM_CLOCK_TIME(GetTime),
    DEFINE_KSPROPERTY_ITEM_CLOCK_PHYSICALTIME(GetTime),
    DEFINE_KSPROPERTY_ITEM_CLOCK_CORRELATEDTIME(GetCorrelated),
    DEFINE_KSPROPERTY_ITEM_CLOCK_CORRELATEDPHYSICALTIME(GetCorrelated),
    DEFINE_KSPROPERTY_ITEM_CLOCK_RESOLUTION(GetResolution),
    DEFINE_KSPROPERTY_ITEM_CLOCK_STATE(GetState),
};

const KSPROPERTY_SET kClockSets[] = {
    DEFINE_KSPROPERTY_SET(&kPropSetClock, SIZEOF_ARRAY(kClockItems), kClockItems, 0, nullptr),
};

} // namespace

NTSTATUS Clock::Open(Pin &pin, PIRP irp, std::span<const UCHAR> parameters) {
    if (parameters.size() < sizeof(KSCLOCK_CREATE))
        return STATUS_INVALID_BUFFER_SIZE;
    PVOID block = PoolAllocateZeroed(NonPagedPool, sizeof(Clock), kTagObject);
    if (block == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    auto *clock = new (PlaceInPool{block}) Clock{};
    clock->Initialise(ObjectKind::Clock, nullptr, pin.device);
    clock->references = 1;
    KeInitializeSpinLock(&clock->lock);
    clock->state = KSSTATE_STOP;
    IoGetCurrentIrpStackLocation(irp)->FileObject->FsContext = static_cast<Object *>(clock);
    return STATUS_SUCCESS;
}

void Clock::Release() {
    if (InterlockedDecrement(&references) == 0)
        ExFreePoolWithTag(this, kTagObject);
}

void Clock::SetState(KSSTATE to) {
    SpinLockGuard guard(lock);
    LONGLONG now = SystemTicks();
    if (state == KSSTATE_RUN && to != KSSTATE_RUN)
        base += now - started;
    if (to == KSSTATE_RUN && state != KSSTATE_RUN)
        started = now;
    if (to == KSSTATE_STOP)
        base = 0;
    state = to;
}

KSSTATE Clock::State() {
    SpinLockGuard guard(lock);
    return state;
}

KSCORRELATED_TIME Clock::Now() {
    SpinLockGuard guard(lock);
    LONGLONG now = SystemTicks();
    return {.Time = state == KSSTATE_RUN ? base + (now - started) : base, .SystemTime = now};
}

// Only a file of a device that this model drives has an Object behind it.
Clock *Clock::FromFile(PFILE_OBJECT file) {
    if (IoGetRelatedDeviceObject(file)->DriverObject->MajorFunction[IRP_MJ_CREATE] != DispatchCreate)
        return nullptr;
    auto *object = static_cast<Object *>(file->FsContext);
    return object != nullptr && object->kind == ObjectKind::Clock ? static_cast<Clock *>(object) : nullptr;
}

NTSTATUS ClockProperty(PIRP irp) {
    const PropertyTable tables[] = {OwnTable(kClockSets)};
    return AnswerProperty(irp, tables);
}

} // namespace host::streaming

using namespace host::streaming;

// Lock: control mutex held. STATUS_DEVICE_NOT_READY when the application has assigned no master clock.
extern "C" NTSTATUS NTAPI KsPinGetReferenceClockInterface(PKSPIN ksPin, PIKSREFERENCECLOCK *interface) {
    constexpr const char *kRoutine = "KsPinGetReferenceClockInterface";
    RequireLevel(kRoutine, PASSIVE_LEVEL);
    Pin *pin = FromPublic<Pin>(ksPin, kRoutine);
    pin->filter->control.RequireMine(kRoutine);
    if (pin->clock == nullptr)
        return STATUS_DEVICE_NOT_READY;
    PVOID block = PoolAllocateZeroed(NonPagedPool, sizeof(ReferenceClock), kTagObject);
    if (block == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    *interface = new (PlaceInPool{block}) ReferenceClock(*pin->clock, *pin->device->driver);
    return STATUS_SUCCESS;
}
