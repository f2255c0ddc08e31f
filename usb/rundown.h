// Counts uses of something that is to be shut while uses may still be under way: whoever shuts it knows, once Close has
// returned, that every use has ended and no further one begins.
#pragma once

#include "platform/lock.h"

namespace uvc {

struct Rundown {
    KEVENT idle;       // signalled while nothing is under way
    KSPIN_LOCK lock;   // guards the fields below
    ULONG outstanding; // uses under way
    bool closed;       // no further ones
};

// Created closed, with nothing under way. IRQL: any.
inline void RundownInitialise(Rundown &rundown) {
    KeInitializeEvent(&rundown.idle, NotificationEvent, TRUE);
    KeInitializeSpinLock(&rundown.lock);
    rundown.outstanding = 0;
    rundown.closed = true;
}

// Lets uses in. IRQL: <= DISPATCH_LEVEL.
inline void RundownOpen(Rundown &rundown) {
    SpinLockGuard guard(rundown.lock);
    rundown.closed = false;
}

// Keeps further uses out without waiting for those under way. IRQL: <= DISPATCH_LEVEL.
inline void RundownRefuse(Rundown &rundown) {
    SpinLockGuard guard(rundown.lock);
    rundown.closed = true;
}

// Begins one use, to be ended with RundownLeave; false while closed. IRQL: <= DISPATCH_LEVEL.
[[nodiscard]] inline bool RundownEnter(Rundown &rundown) {
    SpinLockGuard guard(rundown.lock);
    if (rundown.closed)
        return false;
    if (rundown.outstanding++ == 0)
        KeClearEvent(&rundown.idle);
    return true;
}

// Ends one use. IRQL: <= DISPATCH_LEVEL.
inline void RundownLeave(Rundown &rundown) {
    SpinLockGuard guard(rundown.lock);
    if (--rundown.outstanding == 0)
        KeSetEvent(&rundown.idle, IO_NO_INCREMENT, FALSE);
}

// Keeps further uses out and waits until none is under way; the rundown may then be freed. IRQL: PASSIVE_LEVEL.
inline void RundownClose(Rundown &rundown) {
    RundownRefuse(rundown);
    KeWaitForSingleObject(&rundown.idle, Executive, KernelMode, FALSE, nullptr);
    // The last one to leave signals inside the lock: once the lock was had here, it has let go of it.
    SpinLockGuard guard(rundown.lock);
}

} // namespace uvc
