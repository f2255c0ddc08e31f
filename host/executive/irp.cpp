#include "host/executive/irp.h"

#include "host/executive/state.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#if __has_feature(thread_sanitizer)
extern "C" void AnnotateBenignRaceSized(const char *file, int line, const volatile void *address, std::size_t size,
                                        const char *why);
#endif

namespace host {
namespace {

constexpr std::size_t kQuarantined = 256;
constexpr unsigned char kFreedFill = 0xDD;

void Prepare(PIRP irp, USHORT size, CCHAR stackSize) {
    std::memset(irp, 0, size);
    irp->Type = IO_TYPE_IRP;
    irp->Size = size;
    irp->StackCount = stackSize;
    irp->CurrentLocation = static_cast<CHAR>(stackSize + 1);
    irp->Tail.Overlay.CurrentStackLocation = reinterpret_cast<PIO_STACK_LOCATION>(irp + 1) + stackSize;
    InitializeListHead(&irp->ThreadListEntry);
#if __has_feature(thread_sanitizer)
    // Drivers read the flag after they have exchanged the cancel routine; whichever value they see is right.
    AnnotateBenignRaceSized(__FILE__, __LINE__, &irp->Cancel, sizeof irp->Cancel, "cancel flag");
#endif
}

const char *NameOfMajor(UCHAR major) {
    switch (major) {
    case IRP_MJ_CREATE:
        return "IRP_MJ_CREATE";
    case IRP_MJ_CLOSE:
        return "IRP_MJ_CLOSE";
    case IRP_MJ_CLEANUP:
        return "IRP_MJ_CLEANUP";
    case IRP_MJ_DEVICE_CONTROL:
        return "IRP_MJ_DEVICE_CONTROL";
    case IRP_MJ_INTERNAL_DEVICE_CONTROL:
        return "IRP_MJ_INTERNAL_DEVICE_CONTROL";
    case IRP_MJ_POWER:
        return "IRP_MJ_POWER";
    case IRP_MJ_PNP:
        return "IRP_MJ_PNP";
    }
    return "IRP";
}

// Those that touch paged code by definition.
bool NeedsPassive(UCHAR major) {
    return major == IRP_MJ_CREATE || major == IRP_MJ_CLOSE || major == IRP_MJ_CLEANUP || major == IRP_MJ_PNP;
}

bool WantsCompletion(const IO_STACK_LOCATION &location, PIRP irp) {
    if (location.CompletionRoutine == nullptr)
        return false;
    if (irp->Cancel && (location.Control & SL_INVOKE_ON_CANCEL) != 0)
        return true;
    return (location.Control & (NT_SUCCESS(irp->IoStatus.Status) ? SL_INVOKE_ON_SUCCESS : SL_INVOKE_ON_ERROR)) != 0;
}

} // namespace

IrpTable::~IrpTable() {
    if (!kAddressSanitizer) {
        for (PIRP irp : quarantine_)
            std::free(irp);
    }
}

PIRP IrpTable::Allocate(CCHAR stackSize, IrpOrigin origin, Place place) {
    const USHORT size = IoSizeOfIrp(stackSize);
    auto *irp = static_cast<PIRP>(std::malloc(size));
    Prepare(irp, size, stackSize);
    std::lock_guard lock(mutex_);
    std::erase(quarantine_, irp);
    irps_[irp] = {.origin = origin, .place = place, .generation = ++generation_};
    return irp;
}

void IrpTable::InitialiseInPlace(PIRP irp, USHORT size, CCHAR stackSize, Place place) {
    if (size < IoSizeOfIrp(stackSize))
        Violation("IRP too small", "IoInitializeIrp", Format("%u bytes for %d stack locations", size, stackSize));
    std::lock_guard lock(mutex_);
    const auto old = irps_.find(irp);
    if (old != irps_.end() && (old->second.inFlight || old->second.origin != IrpOrigin::InPlace))
        Violation("IRP initialised while in use", "IoInitializeIrp", "from " + old->second.place.Text());
    Prepare(irp, size, stackSize);
    irps_[irp] = {.origin = IrpOrigin::InPlace, .place = place, .generation = ++generation_};
}

IrpTable::Record &IrpTable::Find(PIRP irp, const char *routine) {
    const auto found = irps_.find(irp);
    if (found == irps_.end()) {
        const bool freed = std::find(quarantine_.begin(), quarantine_.end(), irp) != quarantine_.end();
        Violation(freed ? "IRP used after it was freed" : "IRP not known", routine,
                  Format("%p", static_cast<void *>(irp)));
    }
    return found->second;
}

void IrpTable::Reuse(PIRP irp, NTSTATUS status) {
    std::lock_guard lock(mutex_);
    Record &record = Find(irp, "IoReuseIrp");
    if (record.inFlight)
        Violation("IRP reused while in flight", "IoReuseIrp", "from " + record.place.Text());
    if (record.origin != IrpOrigin::Driver)
        Violation("IRP reused that is not the driver's", "IoReuseIrp", "from " + record.place.Text());
    Prepare(irp, irp->Size, irp->StackCount);
    irp->IoStatus.Status = status;
    record.calls.clear();
}

// Mutex held.
void IrpTable::Discard(PIRP irp) {
    if (irps_.at(irp).cancels != 0) {
        irps_.at(irp).finished = true;
        return;
    }
    const Record record = std::move(irps_.at(irp));
    irps_.erase(irp);
    if (record.origin == IrpOrigin::InPlace)
        return;
    std::memset(irp, kFreedFill, irp->Size);
    if (kAddressSanitizer) // the address sanitizer's quarantine is the better one
        std::free(irp);
    quarantine_.push_back(irp);
    if (quarantine_.size() > kQuarantined) {
        if (!kAddressSanitizer)
            std::free(quarantine_.front());
        quarantine_.pop_front();
    }
}

void IrpTable::Free(PIRP irp, const char *routine) {
    std::lock_guard lock(mutex_);
    Record &record = Find(irp, routine);
    const bool reclaimed = record.origin == IrpOrigin::Threaded && irp->CurrentLocation > irp->StackCount;
    if (record.inFlight && !reclaimed)
        Violation("IRP freed while in flight", routine, "from " + record.place.Text());
    if (record.origin == IrpOrigin::Manager)
        Violation("IRP freed that is not the driver's", routine, "from " + record.place.Text());
    if (record.cancels != 0)
        Violation("IRP freed while it is cancelled", routine, "from " + record.place.Text());
    Discard(irp);
}

void IrpTable::Abandon(PIRP irp) {
    std::lock_guard lock(mutex_);
    Discard(irp);
}

void IrpTable::OnFinish(PIRP irp, Finisher finish) {
    std::lock_guard lock(mutex_);
    Find(irp, "request").finish = std::move(finish);
}

void IrpTable::Judge(const DispatchCall &call) {
    const char *routine = NameOfMajor(call.major);
    const bool pending = call.returnedStatus == STATUS_PENDING;
    if (pending && !call.markedPending)
        Violation("IRP not marked pending", routine,
                  "the dispatch routine returned STATUS_PENDING without IoMarkIrpPending");
    if (!pending && call.markedPending)
        Violation("IRP marked pending", routine,
                  Format("the dispatch routine marked it pending but returned 0x%08x", call.returnedStatus));
    if (!pending && call.returnedStatus != call.completedStatus)
        Violation("IRP status differs", routine,
                  Format("completed with 0x%08x, the dispatch routine returned 0x%08x", call.completedStatus,
                         call.returnedStatus));
}

NTSTATUS IrpTable::Call(PDEVICE_OBJECT device, PIRP irp) {
    constexpr const char *kRoutine = "IofCallDriver";
    Thread &thread = CurrentThread(kRoutine);
    RequireIrqlAtMost(DISPATCH_LEVEL, kRoutine);
    if (!Machine().objects.Is(device, ObjectKind::Device))
        Violation("IRP sent to no device", kRoutine,
                  Format("%p is no device, or was deleted", static_cast<void *>(device)));
    auto call = std::make_shared<DispatchCall>();
    {
        std::lock_guard lock(mutex_);
        Record &record = Find(irp, kRoutine);
        if (irp->CurrentLocation <= 1)
            Violation("no stack location left", kRoutine,
                      Format("device %p, IRP from ", static_cast<void *>(device)) + record.place.Text());
        if (irp->CurrentLocation > irp->StackCount + 1)
            Violation("IRP already completed", kRoutine, "from " + record.place.Text());
        record.inFlight = true;
        --irp->CurrentLocation;
        --irp->Tail.Overlay.CurrentStackLocation;
        PIO_STACK_LOCATION location = irp->Tail.Overlay.CurrentStackLocation;
        location->DeviceObject = device;
        if (location->MajorFunction > IRP_MJ_MAXIMUM_FUNCTION)
            Violation("no such major function", kRoutine, Format("%u", location->MajorFunction));
        call->device = device;
        call->major = location->MajorFunction;
        record.calls[irp->CurrentLocation].push_back(call);
    }
    if (NeedsPassive(call->major))
        RequireIrqlAtMost(PASSIVE_LEVEL, NameOfMajor(call->major));

    const KIRQL level = thread.irql;
    const std::size_t spinLocks = HeldSpinLockCount(thread);
    const NTSTATUS status = device->DriverObject->MajorFunction[call->major](device, irp);
    RequireCleanReturn(thread, level, spinLocks, NameOfMajor(call->major), "the dispatch routine");

    std::lock_guard lock(mutex_);
    call->returned = true;
    call->returnedStatus = status;
    if (call->completed)
        Judge(*call);
    else if (status != STATUS_PENDING)
        Violation("IRP not completed", NameOfMajor(call->major),
                  Format("the dispatch routine returned 0x%08x but the IRP is still under way", status));
    return status;
}

// The location has come to its end on the way up.
void IrpTable::CompleteLocation(PIRP irp, int location, bool markedPending) {
    std::lock_guard lock(mutex_);
    auto &calls = Find(irp, "IofCompleteRequest").calls;
    const auto found = calls.find(location);
    if (found == calls.end())
        return;
    for (const auto &call : found->second) {
        call->completed = true;
        call->completedStatus = irp->IoStatus.Status;
        call->markedPending = markedPending;
        if (call->returned)
            Judge(*call);
    }
    calls.erase(found);
}

void IrpTable::Complete(PIRP irp) {
    constexpr const char *kRoutine = "IofCompleteRequest";
    Thread &thread = CurrentThread(kRoutine);
    RequireIrqlAtMost(DISPATCH_LEVEL, kRoutine);
    IrpOrigin origin{};
    std::uint64_t generation = 0;
    {
        std::lock_guard lock(mutex_);
        Record &record = Find(irp, kRoutine);
        auto from = [&] { return "IRP from " + record.place.Text(); };
        if (!record.inFlight)
            Violation("IRP completed twice", kRoutine, from());
        if (__atomic_load_n(&irp->CancelRoutine, __ATOMIC_SEQ_CST) != nullptr)
            Violation("IRP completed with its cancel routine set", kRoutine, from());
        if (irp->IoStatus.Status == STATUS_PENDING)
            Violation("IRP completed with STATUS_PENDING", kRoutine, from());
        if (irp->CurrentLocation > irp->StackCount + 1)
            Violation("IRP completed twice", kRoutine, from());
        origin = record.origin;
        generation = record.generation;
    }

    const bool ownersOwn = origin == IrpOrigin::Driver || origin == IrpOrigin::InPlace;
    while (irp->CurrentLocation <= irp->StackCount) {
        const PIO_STACK_LOCATION location = irp->Tail.Overlay.CurrentStackLocation;
        const IO_STACK_LOCATION passed = *location;
        irp->PendingReturned = (passed.Control & SL_PENDING_RETURNED) != 0;
        CompleteLocation(irp, irp->CurrentLocation, irp->PendingReturned);
        ++irp->CurrentLocation;
        ++irp->Tail.Overlay.CurrentStackLocation;
        // A completion routine finds nothing in the location below, as on Windows.
        *location = {};
        location->MajorFunction = passed.MajorFunction;

        const bool top = irp->CurrentLocation > irp->StackCount;
        if (!WantsCompletion(passed, irp)) {
            if (irp->PendingReturned && !top)
                IoMarkIrpPending(irp);
            continue;
        }
        if (top && ownersOwn) {
            std::lock_guard lock(mutex_);
            Find(irp, kRoutine).inFlight = false; // from here on its owner may do with it what he likes
        }
        const PDEVICE_OBJECT device = top ? nullptr : irp->Tail.Overlay.CurrentStackLocation->DeviceObject;
        const KIRQL level = thread.irql;
        const std::size_t spinLocks = HeldSpinLockCount(thread);
        const NTSTATUS status = passed.CompletionRoutine(device, irp, passed.Context);
        RequireCleanReturn(thread, level, spinLocks, kRoutine, "a completion routine");
        if (status == STATUS_MORE_PROCESSING_REQUIRED)
            return;
        std::lock_guard lock(mutex_);
        const auto found = irps_.find(irp);
        if (found == irps_.end() || found->second.generation != generation)
            Violation("IRP used after it was freed", kRoutine,
                      "a completion routine freed it and did not return STATUS_MORE_PROCESSING_REQUIRED");
    }
    if (ownersOwn)
        Violation("IRP completed beyond its owner", kRoutine,
                  "an IRP that a driver allocated needs a completion routine that takes it back");
    Finish(irp);
}

// A request of the I/O manager is complete.
void IrpTable::Finish(PIRP irp) {
    Finisher finish;
    {
        std::lock_guard lock(mutex_);
        Record &record = Find(irp, "IofCompleteRequest");
        record.inFlight = false;
        finish = std::move(record.finish);
    }
    const std::function<void()> tell = finish(irp);
    {
        std::lock_guard lock(mutex_);
        Discard(irp);
    }
    tell();
}

bool IrpTable::Cancel(PIRP irp) {
    constexpr const char *kRoutine = "IoCancelIrp";
    {
        std::lock_guard lock(mutex_);
        ++Find(irp, kRoutine).cancels;
    }
    Thread &thread = CurrentThread(kRoutine);
    KIRQL level;
    IoAcquireCancelSpinLock(&level);
    const std::size_t spinLocks = HeldSpinLockCount(thread);
    __atomic_store_n(&irp->Cancel, TRUE, __ATOMIC_SEQ_CST);
    const PDRIVER_CANCEL cancel = IoSetCancelRoutine(irp, nullptr);
    if (cancel == nullptr) {
        EndCancel(irp);
        IoReleaseCancelSpinLock(level);
        return false;
    }
    irp->CancelIrql = level;
    // An IRP in its owner's hands has no current location.
    const bool sent = irp->CurrentLocation <= irp->StackCount;
    const PDEVICE_OBJECT device = sent ? IoGetCurrentIrpStackLocation(irp)->DeviceObject : nullptr;
    EndCancel(irp); // the cancel routine may complete it and its owner free it
    cancel(device, irp);
    if (Machine().cancelLock.IsHeldBy(thread))
        Violation("cancel spin lock kept", kRoutine, "the cancel routine did not call IoReleaseCancelSpinLock");
    RequireCleanReturn(thread, level, spinLocks - 1, kRoutine, "the cancel routine");
    return true;
}

void IrpTable::EndCancel(PIRP irp) {
    std::lock_guard lock(mutex_);
    Record &record = irps_.at(irp);
    if (--record.cancels == 0 && record.finished)
        Discard(irp);
}

void IrpTable::CancelIfAlive(PIRP irp) {
    {
        std::lock_guard lock(mutex_);
        const auto found = irps_.find(irp);
        if (found == irps_.end() || found->second.finished)
            return;
        ++found->second.cancels;
    }
    static_cast<void>(Cancel(irp));
    EndCancel(irp);
}

void IrpTable::CheckFreed(const void *begin, std::size_t size, const char *routine) {
    std::lock_guard lock(mutex_);
    const void *end = static_cast<const char *>(begin) + size;
    auto next = irps_.lower_bound(static_cast<PIRP>(const_cast<void *>(begin)));
    while (next != irps_.end() && next->first < end) {
        if (next->second.inFlight)
            Violation("IRP freed while in flight", routine, "from " + next->second.place.Text());
        next = irps_.erase(next); // an idle one in its owner's memory goes with it
    }
}

std::string IrpTable::Leaks() {
    std::lock_guard lock(mutex_);
    std::string text;
    for (const auto &[irp, record] : irps_) {
        if (record.origin == IrpOrigin::InPlace && !record.inFlight)
            continue;
        text += (text.empty() ? "" : "; ") +
                Format("IRP %p%s from ", static_cast<void *>(irp), record.inFlight ? ", in flight," : "") +
                record.place.Text();
    }
    return text;
}

} // namespace host

using namespace host;

extern "C" {

PIRP NTAPI IoAllocateIrp(CCHAR stackSize, BOOLEAN) {
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoAllocateIrp");
    State &state = Machine();
    if (state.faults.Fails(FaultSite::Irp))
        return nullptr;
    return state.irps.Allocate(stackSize, IrpOrigin::Driver, CALLER_PLACE());
}

void NTAPI IoFreeIrp(PIRP irp) {
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoFreeIrp");
    Machine().irps.Free(irp, "IoFreeIrp");
}

void NTAPI IoReuseIrp(PIRP irp, NTSTATUS status) {
    Machine().irps.Reuse(irp, status);
}

void NTAPI IoInitializeIrp(PIRP irp, USHORT size, CCHAR stackSize) {
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoInitializeIrp");
    Machine().irps.InitialiseInPlace(irp, size, stackSize, CALLER_PLACE());
}

NTSTATUS NTAPI IofCallDriver(PDEVICE_OBJECT device, PIRP irp) {
    return Machine().irps.Call(device, irp);
}

NTSTATUS NTAPI PoCallDriver(PDEVICE_OBJECT device, PIRP irp) {
    return Machine().irps.Call(device, irp);
}

void NTAPI PoStartNextPowerIrp(PIRP) {
    RequireIrqlAtMost(DISPATCH_LEVEL, "PoStartNextPowerIrp");
}

void NTAPI IofCompleteRequest(PIRP irp, CCHAR) {
    Machine().irps.Complete(irp);
}

BOOLEAN NTAPI IoCancelIrp(PIRP irp) {
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoCancelIrp");
    return Machine().irps.Cancel(irp);
}

} // extern "C"
