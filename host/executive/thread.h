// What stands behind a PKTHREAD.
#pragma once

#include "host/executive/lock_order.h"
#include "host/executive/place.h"
#include "host/executive/runtime.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <csetjmp>
#include <string>
#include <thread>
#include <vector>

namespace host {

struct Wait;

enum class ThreadKind {
    Creator,  // made the Runtime
    Attached, // an application's or a model's, AttachedThread
    System,   // PsCreateSystemThread
    Worker,   // the runtime's own, runs work items
};

// A spin lock in the hands of a thread. Others look at `lock` when memory is freed, hence the atomic.
struct HeldSpinLock {
    std::atomic<PKSPIN_LOCK> lock{nullptr};
    KIRQL levelBefore = PASSIVE_LEVEL;
};

// A lock in the hands of a thread, as the lock-order graph sees it.
struct HeldLock {
    const void *object;
    const char *kind;
};

// The frame that a fault or a raised status returns to.
struct GuardFrame {
    sigjmp_buf context;
    GuardFrame *outer;
};

struct Thread {
    DISPATCHER_HEADER header{}; // first: a thread is waited for like an event
    std::string name;
    ThreadKind kind = ThreadKind::Attached;

    // Its own alone.
    KIRQL irql = PASSIVE_LEVEL;
    std::vector<HeldLock> lockOrder;
    LockPair knownLockPair; // the last pair that was checked
    GuardFrame *guard = nullptr;
    int ownPagedAccess = 0; // the runtime itself touches paged memory for the thread, see PagedAccess
    int serviceDepth = 0;   // Zw routines it is in
    KPROCESSOR_MODE nextMode = KernelMode;
    KPROCESSOR_MODE previousMode = KernelMode;
    int criticalRegions = 0;
    std::jmp_buf *exit = nullptr; // a system thread's way out of PsTerminateSystemThread

    std::array<HeldSpinLock, 16> spinLocks;

    // Guarded by the dispatcher's mutex.
    std::condition_variable wake;
    Wait *wait = nullptr;
    std::vector<PKMUTEX> mutexes;
};

// The calling thread, or null when it is not attached.
Thread *CurrentThreadOrNull();
// The calling thread; a violation when it is not attached.
Thread &CurrentThread(const char *routine);
void SetCurrentThread(Thread *thread);

// Violations when the caller's level is not what the routine allows.
void RequireIrqlAtMost(KIRQL highest, const char *routine);
void RequireIrqlAtLeast(KIRQL lowest, const char *routine);
void SetIrql(Thread &thread, KIRQL level);

// A violation when the thread holds a spin lock, or is not at PASSIVE_LEVEL, after `what` came back.
void RequireCleanReturn(Thread &thread, KIRQL expected, std::size_t spinLocks, const char *routine, const char *what);
std::size_t HeldSpinLockCount(const Thread &thread);

} // namespace host
