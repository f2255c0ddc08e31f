// The published rules for AVStream drivers, as this model of ks.sys enforces them. Every broken one ends the run.
#pragma once

#include "host/executive/runtime.h"
#include "platform/platform.h"

namespace host::streaming {

// Ends the run when the caller is above `highest` (rule KsIrqlDDIs).
void RequireLevel(const char *routine, KIRQL highest);

// Time since boot in 100 ns units, as reference clocks count it. IRQL: any.
LONGLONG SystemTicks();

// Which family of rules a driver callback belongs to, and with it how long it may take.
enum class CallbackKind {
    Device,            // 500 ms
    Filter,            // 500 ms
    Pin,               // 500 ms
    PinSetDeviceState, // 500 ms
    Process,           // 100 ms, the processing mutex being held; the only one that may return STATUS_PENDING
};

// Wraps one call into the driver: it must be made at PASSIVE_LEVEL, return at the same level and in time, and mark the
// request pending if and only if it says so. The time is not judged once a fault has been dealt out: a transfer that
// was made to hang is the plan's doing, not the driver's.
class CallbackScope {
  public:
    CallbackScope(CallbackKind kind, const char *name, PIRP irp);
    ~CallbackScope();
    CallbackScope(const CallbackScope &) = delete;
    CallbackScope &operator=(const CallbackScope &) = delete;

    NTSTATUS Returned(NTSTATUS status) const;

  private:
    CallbackKind kind_;
    const char *name_;
    PIRP irp_;
    LONGLONG start_;
};

template <class Routine, class... Arguments>
NTSTATUS CallDriver(CallbackKind kind, const char *name, PIRP irp, Routine routine, Arguments... arguments) {
    CallbackScope scope(kind, name, irp);
    return scope.Returned(routine(arguments...));
}

template <class Routine, class... Arguments>
void CallDriverVoid(CallbackKind kind, const char *name, PIRP irp, Routine routine, Arguments... arguments) {
    CallbackScope scope(kind, name, irp);
    routine(arguments...);
}

// Ends the run: the driver uses a part of AVStream that the model does not have.
[[noreturn]] void NotModelled(const char *routine, const char *what);

} // namespace host::streaming
