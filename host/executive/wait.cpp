// The kernel's wait routines, events, mutexes and semaphores, over the dispatcher.
#include "host/executive/state.h"

namespace host {
namespace {

std::optional<Ticks> DeadlineOf(PLARGE_INTEGER timeout) {
    if (timeout == nullptr)
        return std::nullopt;
    if (timeout->QuadPart > 0)
        return timeout->QuadPart; // absolute system time
    return Machine().dispatcher.Now() - timeout->QuadPart;
}

void RequireWaitLevel(PLARGE_INTEGER timeout, const char *routine) {
    const Thread &thread = CurrentThread(routine);
    const bool polls = timeout != nullptr && timeout->QuadPart == 0;
    if (!polls && thread.irql > APC_LEVEL)
        Violation("wait at raised IRQL", routine, Format("level is %u", thread.irql));
    if (thread.irql > DISPATCH_LEVEL)
        Violation("IRQL too high", routine, Format("level is %u", thread.irql));
}

bool IsMutex(const void *object) {
    return static_cast<const DISPATCHER_HEADER *>(object)->Type == 2;
}

} // namespace

NTSTATUS WaitForObject(PVOID object, const char *routine) {
    Wait wait{.objects = {&object, 1}, .routine = routine, .caller = __builtin_return_address(0)};
    return Machine().dispatcher.WaitFor(wait);
}

} // namespace host

using namespace host;

extern "C" {

NTSTATUS NTAPI KeWaitForSingleObject(PVOID object, KWAIT_REASON, KPROCESSOR_MODE, BOOLEAN, PLARGE_INTEGER timeout) {
    constexpr const char *kRoutine = "KeWaitForSingleObject";
    RequireWaitLevel(timeout, kRoutine);
    Wait wait{.objects = {&object, 1},
              .deadline = DeadlineOf(timeout),
              .routine = kRoutine,
              .caller = __builtin_return_address(0)};
    const bool mutex = object != nullptr && IsMutex(object);
    if (mutex && timeout == nullptr)
        Machine().lockOrder.Check(object, "mutex", kRoutine);
    const NTSTATUS status = Machine().dispatcher.WaitFor(wait);
    if (mutex && status == STATUS_WAIT_0)
        Machine().lockOrder.Push(object, "mutex");
    return status;
}

NTSTATUS NTAPI KeWaitForMultipleObjects(ULONG count, PVOID objects[], WAIT_TYPE type, KWAIT_REASON, KPROCESSOR_MODE,
                                        BOOLEAN, PLARGE_INTEGER timeout, PKWAIT_BLOCK waitBlocks) {
    constexpr const char *kRoutine = "KeWaitForMultipleObjects";
    RequireWaitLevel(timeout, kRoutine);
    if (count == 0 || count > MAXIMUM_WAIT_OBJECTS || (count > THREAD_WAIT_OBJECTS && waitBlocks == nullptr))
        Violation("too many objects", kRoutine,
                  Format("%u objects %s wait blocks", count, waitBlocks ? "with" : "without"));
    Wait wait{.objects = {objects, count},
              .all = type == WaitAll,
              .deadline = DeadlineOf(timeout),
              .routine = kRoutine,
              .caller = __builtin_return_address(0)};
    const NTSTATUS status = Machine().dispatcher.WaitFor(wait);
    if (status >= STATUS_WAIT_0 && status < STATUS_WAIT_0 + static_cast<NTSTATUS>(count)) {
        for (ULONG i = 0; i < count; ++i) {
            if (IsMutex(objects[i]) && (wait.all || static_cast<NTSTATUS>(i) == status))
                Machine().lockOrder.Push(objects[i], "mutex");
        }
    }
    return status;
}

NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE, BOOLEAN, PLARGE_INTEGER interval) {
    constexpr const char *kRoutine = "KeDelayExecutionThread";
    RequireIrqlAtMost(APC_LEVEL, kRoutine);
    Wait wait{.deadline = DeadlineOf(interval), .routine = kRoutine, .caller = __builtin_return_address(0)};
    static_cast<void>(Machine().dispatcher.WaitFor(wait));
    return STATUS_SUCCESS;
}

void NTAPI KeInitializeEvent(PRKEVENT event, EVENT_TYPE type, BOOLEAN state) {
    Machine().dispatcher.InitialiseEvent(event, type, state != FALSE, "KeInitializeEvent");
}

LONG NTAPI KeSetEvent(PRKEVENT event, KPRIORITY, BOOLEAN) {
    RequireIrqlAtMost(DISPATCH_LEVEL, "KeSetEvent");
    return Machine().dispatcher.SetEvent(event, "KeSetEvent");
}

void NTAPI KeClearEvent(PRKEVENT event) {
    RequireIrqlAtMost(DISPATCH_LEVEL, "KeClearEvent");
    Machine().dispatcher.ResetEvent(event, "KeClearEvent");
}

LONG NTAPI KeResetEvent(PRKEVENT event) {
    RequireIrqlAtMost(DISPATCH_LEVEL, "KeResetEvent");
    return Machine().dispatcher.ResetEvent(event, "KeResetEvent");
}

LONG NTAPI KeReadStateEvent(PRKEVENT event) {
    RequireIrqlAtMost(DISPATCH_LEVEL, "KeReadStateEvent");
    return Machine().dispatcher.ReadState(event, sizeof(KEVENT) / sizeof(ULONG), "KeReadStateEvent");
}

void NTAPI KeInitializeMutex(PRKMUTEX mutex, ULONG) {
    Machine().dispatcher.InitialiseMutex(mutex);
}

LONG NTAPI KeReleaseMutex(PRKMUTEX mutex, BOOLEAN) {
    RequireIrqlAtMost(DISPATCH_LEVEL, "KeReleaseMutex");
    const LONG before = Machine().dispatcher.ReleaseMutex(mutex);
    Machine().lockOrder.Pop(mutex);
    return before;
}

LONG NTAPI KeReadStateMutex(PRKMUTEX mutex) {
    return Machine().dispatcher.ReadState(mutex, sizeof(KMUTEX) / sizeof(ULONG), "KeReadStateMutex");
}

void NTAPI KeInitializeSemaphore(PRKSEMAPHORE semaphore, LONG count, LONG limit) {
    Machine().dispatcher.InitialiseSemaphore(semaphore, count, limit);
}

LONG NTAPI KeReleaseSemaphore(PRKSEMAPHORE semaphore, KPRIORITY, LONG adjustment, BOOLEAN) {
    RequireIrqlAtMost(DISPATCH_LEVEL, "KeReleaseSemaphore");
    return Machine().dispatcher.ReleaseSemaphore(semaphore, adjustment);
}

LONG NTAPI KeReadStateSemaphore(PRKSEMAPHORE semaphore) {
    return Machine().dispatcher.ReadState(semaphore, sizeof(KSEMAPHORE) / sizeof(ULONG), "KeReadStateSemaphore");
}

// A fast mutex is owned at APC_LEVEL. Count is 1 when it is free and one less for each owner or waiter.
void NTAPI ExAcquireFastMutex(PFAST_MUTEX mutex) {
    constexpr const char *kRoutine = "ExAcquireFastMutex";
    RequireIrqlAtMost(APC_LEVEL, kRoutine);
    Thread &thread = CurrentThread(kRoutine);
    const KIRQL before = thread.irql;
    SetIrql(thread, APC_LEVEL);
    if (__atomic_load_n(&mutex->Owner, __ATOMIC_RELAXED) == reinterpret_cast<PKTHREAD>(&thread))
        Violation("lock acquired twice", kRoutine, Format("fast mutex %p", static_cast<void *>(mutex)));
    Machine().lockOrder.Check(mutex, "fast mutex", kRoutine);
    if (InterlockedDecrement(&mutex->Count) != 0)
        static_cast<void>(WaitForObject(&mutex->Event, kRoutine)); // the releaser hands it over
    __atomic_store_n(&mutex->Owner, reinterpret_cast<PKTHREAD>(&thread), __ATOMIC_RELAXED);
    mutex->OldIrql = before;
    Machine().lockOrder.Push(mutex, "fast mutex");
}

BOOLEAN NTAPI ExTryToAcquireFastMutex(PFAST_MUTEX mutex) {
    constexpr const char *kRoutine = "ExTryToAcquireFastMutex";
    RequireIrqlAtMost(APC_LEVEL, kRoutine);
    Thread &thread = CurrentThread(kRoutine);
    if (InterlockedCompareExchange(&mutex->Count, 0, 1) != 1)
        return FALSE;
    __atomic_store_n(&mutex->Owner, reinterpret_cast<PKTHREAD>(&thread), __ATOMIC_RELAXED);
    mutex->OldIrql = thread.irql;
    SetIrql(thread, APC_LEVEL);
    Machine().lockOrder.Push(mutex, "fast mutex");
    return TRUE;
}

void NTAPI ExReleaseFastMutex(PFAST_MUTEX mutex) {
    constexpr const char *kRoutine = "ExReleaseFastMutex";
    Thread &thread = CurrentThread(kRoutine);
    if (mutex->Owner != reinterpret_cast<PKTHREAD>(&thread))
        Violation("lock released by another thread", kRoutine, Format("fast mutex %p", static_cast<void *>(mutex)));
    if (thread.irql != APC_LEVEL)
        Violation("lock released at another level", kRoutine, Format("level is %u", thread.irql));
    const auto before = static_cast<KIRQL>(mutex->OldIrql);
    __atomic_store_n(&mutex->Owner, nullptr, __ATOMIC_RELAXED);
    Machine().lockOrder.Pop(mutex);
    if (InterlockedIncrement(&mutex->Count) <= 0)
        KeSetEvent(&mutex->Event, IO_NO_INCREMENT, FALSE);
    SetIrql(thread, before);
}

void NTAPI KeEnterCriticalRegion() {
    ++CurrentThread("KeEnterCriticalRegion").criticalRegions;
}

void NTAPI KeLeaveCriticalRegion() {
    if (--CurrentThread("KeLeaveCriticalRegion").criticalRegions < 0)
        Violation("critical region left too often", "KeLeaveCriticalRegion", "");
}

BOOLEAN NTAPI KeAreApcsDisabled() {
    const Thread &thread = CurrentThread("KeAreApcsDisabled");
    return thread.criticalRegions > 0 || thread.irql >= APC_LEVEL;
}

} // extern "C"
