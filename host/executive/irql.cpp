// The interrupt request level: one per thread, as if each thread had a processor of its own.
#include "host/executive/state.h"

#include <cstdio>

namespace host {
namespace {

thread_local Thread *currentThread = nullptr;

} // namespace

Thread *CurrentThreadOrNull() {
    return currentThread;
}

Thread &CurrentThread(const char *routine) {
    if (currentThread == nullptr)
        Violation("thread not attached", routine, "called from a thread that the runtime does not know");
    return *currentThread;
}

void SetCurrentThread(Thread *thread) {
    currentThread = thread;
}

void RequireIrqlAtMost(KIRQL highest, const char *routine) {
    const Thread &thread = CurrentThread(routine);
    if (thread.irql > highest)
        Violation("IRQL too high", routine, Format("level is %u, at most %u is allowed", thread.irql, highest));
}

void RequireIrqlAtLeast(KIRQL lowest, const char *routine) {
    const Thread &thread = CurrentThread(routine);
    if (thread.irql < lowest)
        Violation("IRQL too low", routine, Format("level is %u, at least %u is needed", thread.irql, lowest));
}

void SetIrql(Thread &thread, KIRQL level) {
    if (level >= DISPATCH_LEVEL && thread.irql < DISPATCH_LEVEL)
        Machine().pagedArena.PageOut();
    thread.irql = level;
}

std::size_t HeldSpinLockCount(const Thread &thread) {
    std::size_t count = 0;
    for (const HeldSpinLock &held : thread.spinLocks)
        count += held.lock.load(std::memory_order_relaxed) != nullptr;
    return count;
}

void RequireCleanReturn(Thread &thread, KIRQL expected, std::size_t spinLocks, const char *routine, const char *what) {
    if (HeldSpinLockCount(thread) != spinLocks)
        Violation("spin lock kept", routine,
                  Format("%s returned with another set of spin locks than it was called with", what));
    if (thread.irql != expected)
        Violation("IRQL changed", routine,
                  Format("%s returned at level %u, was called at %u", what, thread.irql, expected));
}

} // namespace host

extern "C" {

unsigned long long __readcr8() {
    return host::CurrentThread("KeGetCurrentIrql").irql;
}

// KfRaiseIrql and KeLowerIrql are inline in the headers and both end here.
void __writecr8(unsigned long long level) {
    host::Thread &thread = host::CurrentThread("KeLowerIrql");
    if (level > HIGH_LEVEL)
        host::Violation("IRQL out of range", "KeRaiseIrql", host::Format("%llu", level));
    if (level < DISPATCH_LEVEL && thread.irql >= DISPATCH_LEVEL && host::HeldSpinLockCount(thread) != 0)
        host::Violation("IRQL lowered under a spin lock", "KeLowerIrql",
                        host::Format("to %llu with %zu spin locks held", level, host::HeldSpinLockCount(thread)));
    host::SetIrql(thread, static_cast<KIRQL>(level));
}

unsigned long long UvcReadProcessorQword(unsigned long offset) {
    constexpr unsigned long kCurrentThread = 0x188;
    if (offset != kCurrentThread)
        host::Violation("unknown processor field", "__readgsqword", host::Format("offset 0x%lx", offset));
    return reinterpret_cast<unsigned long long>(&host::CurrentThread("KeGetCurrentThread"));
}

unsigned short UvcReadProcessorWord(unsigned long) {
    return 0;
}

KPROCESSOR_MODE NTAPI ExGetPreviousMode() {
    return host::CurrentThread("ExGetPreviousMode").previousMode;
}

} // extern "C"
