// All that the runtime consists of, in the order in which it can be taken apart.
#pragma once

#include "host/executive/debug_output.h"
#include "host/executive/device.h"
#include "host/executive/dispatcher.h"
#include "host/executive/irp.h"
#include "host/executive/lock_order.h"
#include "host/executive/lookaside.h"
#include "host/executive/mdl.h"
#include "host/executive/object.h"
#include "host/executive/paged_arena.h"
#include "host/executive/pool.h"
#include "host/executive/registry.h"
#include "host/executive/runtime.h"
#include "host/executive/text.h"
#include "host/executive/work_queue.h"

#include <utility>

#include <sanitizer/asan_interface.h>

namespace host {

#if __has_feature(address_sanitizer)
inline constexpr bool kAddressSanitizer = true;
#else
inline constexpr bool kAddressSanitizer = false;
#endif

inline void PoisonMemory(const void *begin, std::size_t size) {
    ASAN_POISON_MEMORY_REGION(begin, size);
}
inline void UnpoisonMemory(const void *begin, std::size_t size) {
    ASAN_UNPOISON_MEMORY_REGION(begin, size);
}

// The system's cancel spin lock.
class CancelLock {
  public:
    void Acquire(PKIRQL irql);
    void Release(KIRQL irql);
    bool IsHeldBy(const Thread &thread) const;

  private:
    KSPIN_LOCK lock_ = 0;
};

class Runtime::State {
  public:
    explicit State(RuntimeOptions &&given);

    const RuntimeOptions options;
    FaultPlan faults;
    PagedArena pagedArena;
    Pool pool;
    Dispatcher dispatcher;
    const Ticks startTime;
    LockOrder lockOrder;
    CancelLock cancelLock;
    DebugOutput debugLog;
    ObjectTable objects;
    LookasideTable lookasides;
    MdlTable mdls;
    IrpTable irps;
    WorkQueue workQueue;
    DeviceTable devices;
    Registry registry;
    std::vector<std::thread> systemThreads; // guarded by systemThreadsMutex
    std::mutex systemThreadsMutex;
};

using State = Runtime::State;

// The state of the runtime that lives; a violation when none does.
State &Machine();

// Waits without limit for an object. IRQL: <= APC_LEVEL.
NTSTATUS WaitForObject(PVOID object, const char *routine);

// Installs and removes the handler that pages memory in and turns faults into statuses.
void InstallFaultHandler();
void RemoveFaultHandler();

} // namespace host
