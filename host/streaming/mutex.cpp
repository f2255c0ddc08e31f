#include "host/streaming/mutex.h"

#include "host/streaming/rules.h"

namespace host::streaming {

void StrictMutex::Initialise(const char *rule) {
    KeInitializeMutex(&mutex_, 0);
    owner_ = nullptr;
    rule_ = rule;
}

void StrictMutex::Acquire(const char *routine) {
    RequireLevel(routine, PASSIVE_LEVEL);
    if (IsMine())
        Violation(rule_, routine, "the mutex is acquired recursively");
    KeWaitForSingleObject(&mutex_, Executive, KernelMode, FALSE, nullptr);
    owner_ = PsGetCurrentThreadId();
}

void StrictMutex::Release(const char *routine) {
    RequireLevel(routine, PASSIVE_LEVEL);
    RequireMine(routine);
    owner_ = nullptr;
    KeReleaseMutex(&mutex_, FALSE);
}

bool StrictMutex::IsMine() const {
    return owner_ == PsGetCurrentThreadId();
}

void StrictMutex::RequireMine(const char *routine) const {
    if (!IsMine())
        Violation(rule_, routine, "the mutex is not held by this thread");
}

} // namespace host::streaming
