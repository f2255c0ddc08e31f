// The mutexes of AVStream: not recursive, released by their owner.
#pragma once

#include "platform/platform.h"

#include <atomic>

namespace host::streaming {

// A kernel mutex that knows its owner. The executive records its place in the lock order. IRQL: PASSIVE_LEVEL.
class StrictMutex {
  public:
    // `rule` names the published rule that a wrong acquire or release breaks.
    void Initialise(const char *rule);
    void Acquire(const char *routine);
    void Release(const char *routine);
    bool IsMine() const;
    // Ends the run when the calling thread does not hold the mutex.
    void RequireMine(const char *routine) const;

  private:
    KMUTEX mutex_;
    std::atomic<HANDLE> owner_;
    const char *rule_;
};

class MutexHold {
  public:
    MutexHold(StrictMutex &mutex, const char *routine) : mutex_(mutex), routine_(routine) { mutex_.Acquire(routine_); }
    ~MutexHold() { mutex_.Release(routine_); }
    MutexHold(const MutexHold &) = delete;
    MutexHold &operator=(const MutexHold &) = delete;

  private:
    StrictMutex &mutex_;
    const char *routine_;
};

} // namespace host::streaming
