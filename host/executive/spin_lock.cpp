// Spin locks: real ones on the caller's own ULONG_PTR. A taken lock holds the address of its owner.
#include "host/executive/state.h"

#include <sched.h>

namespace host {
namespace {

constexpr const char *kKind = "spin lock";

ULONG_PTR OwnerValue(const Thread &thread) {
    return reinterpret_cast<ULONG_PTR>(&thread);
}

void CheckLock(const Thread &thread, PKSPIN_LOCK lock, const char *routine) {
    if (lock == nullptr)
        Violation("no object", routine, "null pointer");
    if (Machine().pagedArena.Contains(lock))
        Violation("spin lock in paged pool", routine, Format("%p", static_cast<void *>(lock)));
    if (__atomic_load_n(lock, __ATOMIC_RELAXED) == OwnerValue(thread))
        Violation("lock acquired twice", routine, Format("spin lock %p", static_cast<void *>(lock)));
}

void Remember(Thread &thread, PKSPIN_LOCK lock, KIRQL levelBefore, const char *routine) {
    for (HeldSpinLock &held : thread.spinLocks) {
        if (held.lock.load(std::memory_order_relaxed) == nullptr) {
            held.levelBefore = levelBefore;
            held.lock.store(lock, std::memory_order_relaxed);
            Machine().lockOrder.Push(lock, kKind);
            return;
        }
    }
    Violation("too many spin locks", routine, "a thread holds more than the runtime can follow");
}

// `level` is the caller's at the time of the call; the thread is at DISPATCH_LEVEL already.
void Acquire(Thread &thread, PKSPIN_LOCK lock, KIRQL level, const char *routine) {
    CheckLock(thread, lock, routine);
    Machine().lockOrder.Check(lock, kKind, routine);
    for (;;) {
        ULONG_PTR free = 0;
        if (__atomic_compare_exchange_n(lock, &free, OwnerValue(thread), false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED))
            break;
        sched_yield();
    }
    Remember(thread, lock, level, routine);
}

HeldSpinLock &Find(Thread &thread, PKSPIN_LOCK lock, const char *routine) {
    for (HeldSpinLock &held : thread.spinLocks) {
        if (held.lock.load(std::memory_order_relaxed) == lock)
            return held;
    }
    Violation("lock released by another thread", routine,
              Format("spin lock %p is not held by '%s'", static_cast<void *>(lock), thread.name.c_str()));
}

void Release(Thread &thread, HeldSpinLock &held, const char *routine) {
    if (thread.irql != DISPATCH_LEVEL)
        Violation("lock released at another level", routine,
                  Format("spin lock %p at level %u", static_cast<void *>(held.lock.load(std::memory_order_relaxed)),
                         thread.irql));
    const PKSPIN_LOCK lock = held.lock.load(std::memory_order_relaxed);
    Machine().lockOrder.Pop(lock);
    held.lock.store(nullptr, std::memory_order_relaxed);
    __atomic_store_n(lock, 0, __ATOMIC_RELEASE);
}

KIRQL AcquireRaising(PKSPIN_LOCK lock, const char *routine) {
    RequireIrqlAtMost(DISPATCH_LEVEL, routine);
    Thread &thread = CurrentThread(routine);
    const KIRQL before = thread.irql;
    SetIrql(thread, DISPATCH_LEVEL);
    Acquire(thread, lock, before, routine);
    return before;
}

void ReleaseLowering(PKSPIN_LOCK lock, KIRQL level, const char *routine) {
    Thread &thread = CurrentThread(routine);
    HeldSpinLock &held = Find(thread, lock, routine);
    // Two locks may be given back crosswise, each with the level saved by the other.
    if (held.levelBefore != level) {
        bool swapped = false;
        for (HeldSpinLock &other : thread.spinLocks) {
            if (other.lock.load(std::memory_order_relaxed) != nullptr && other.levelBefore == level) {
                std::swap(other.levelBefore, held.levelBefore);
                swapped = true;
                break;
            }
        }
        if (!swapped)
            Violation("lock released to another level", routine,
                      Format("spin lock %p was taken at level %u, is released to %u", static_cast<void *>(lock),
                             held.levelBefore, level));
    }
    Release(thread, held, routine);
    if (level < DISPATCH_LEVEL && HeldSpinLockCount(thread) != 0)
        Violation("IRQL lowered under a spin lock", routine, Format("to %u with another spin lock held", level));
    SetIrql(thread, level);
}

} // namespace

void CancelLock::Acquire(PKIRQL irql) {
    *irql = AcquireRaising(&lock_, "IoAcquireCancelSpinLock");
}
void CancelLock::Release(KIRQL irql) {
    ReleaseLowering(&lock_, irql, "IoReleaseCancelSpinLock");
}
bool CancelLock::IsHeldBy(const Thread &thread) const {
    return __atomic_load_n(&lock_, __ATOMIC_RELAXED) == OwnerValue(thread);
}

} // namespace host

using namespace host;

extern "C" {

KIRQL NTAPI KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK lock) {
    return AcquireRaising(lock, "KeAcquireSpinLock");
}

void NTAPI KeReleaseSpinLock(PKSPIN_LOCK lock, KIRQL level) {
    ReleaseLowering(lock, level, "KeReleaseSpinLock");
}

void NTAPI KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK lock) {
    constexpr const char *kRoutine = "KeAcquireSpinLockAtDpcLevel";
    RequireIrqlAtLeast(DISPATCH_LEVEL, kRoutine);
    RequireIrqlAtMost(DISPATCH_LEVEL, kRoutine);
    Acquire(CurrentThread(kRoutine), lock, DISPATCH_LEVEL, kRoutine);
}

void NTAPI KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK lock) {
    constexpr const char *kRoutine = "KeReleaseSpinLockFromDpcLevel";
    Thread &thread = CurrentThread(kRoutine);
    Release(thread, Find(thread, lock, kRoutine), kRoutine);
}

BOOLEAN NTAPI KeTryToAcquireSpinLockAtDpcLevel(PKSPIN_LOCK lock) {
    constexpr const char *kRoutine = "KeTryToAcquireSpinLockAtDpcLevel";
    RequireIrqlAtLeast(DISPATCH_LEVEL, kRoutine);
    Thread &thread = CurrentThread(kRoutine);
    CheckLock(thread, lock, kRoutine);
    ULONG_PTR free = 0;
    if (!__atomic_compare_exchange_n(lock, &free, OwnerValue(thread), false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED))
        return FALSE;
    Remember(thread, lock, DISPATCH_LEVEL, kRoutine);
    return TRUE;
}

BOOLEAN NTAPI KeTestSpinLock(PKSPIN_LOCK lock) {
    return __atomic_load_n(lock, __ATOMIC_RELAXED) == 0;
}

void NTAPI KeAcquireInStackQueuedSpinLock(PKSPIN_LOCK lock, PKLOCK_QUEUE_HANDLE handle) {
    handle->OldIrql = AcquireRaising(lock, "KeAcquireInStackQueuedSpinLock");
    handle->LockQueue.Lock = lock;
}

void NTAPI KeReleaseInStackQueuedSpinLock(PKLOCK_QUEUE_HANDLE handle) {
    ReleaseLowering(handle->LockQueue.Lock, handle->OldIrql, "KeReleaseInStackQueuedSpinLock");
}

void NTAPI IoAcquireCancelSpinLock(PKIRQL irql) {
    Machine().cancelLock.Acquire(irql);
}
void NTAPI IoReleaseCancelSpinLock(KIRQL irql) {
    Machine().cancelLock.Release(irql);
}

} // extern "C"
