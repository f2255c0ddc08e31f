// A call that survives a bad address: structured exceptions on Windows, a fault-catching frame on Linux.
#pragma once

#include "platform/platform.h"

using GuardedRoutine = void (*)(void *context);

// Runs routine(context). STATUS_SUCCESS when it returned; the exception's status (STATUS_ACCESS_VIOLATION for a fault,
// what ExRaiseStatus was given otherwise) when it did not. The frames between here and the fault are abandoned without
// running destructors: the routine must hold no scope-owned object, lock or allocation across what may fault.
// IRQL: PASSIVE_LEVEL.
NTSTATUS GuardedCall(GuardedRoutine routine, void *context);
