// Which lock was taken while which other one was held. Two locks taken in both orders can deadlock, even if the run at
// hand did not: that is a violation.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>

namespace host {

// For locks that are not the executive's own (kernel streaming's mutexes). Call Acquire before waiting for the lock,
// by the thread that will hold it, and Release when it is given up. A lock that its owner takes again is counted once
// per Acquire and makes no new edge. `kindName` is constant text.
void LockOrderAcquire(const void *object, const char *kindName);
void LockOrderRelease(const void *object);

// One step of an order that was found good.
struct LockPair {
    const void *held = nullptr;
    const void *taken = nullptr;
    std::uint64_t epoch = 0;
};

class LockOrder {
  public:
    // Records held -> object for everything that the calling thread holds; a cycle is a violation.
    void Check(const void *object, const char *kind, const char *routine);
    // The calling thread has got it, has given it up.
    void Push(const void *object, const char *kind);
    void Pop(const void *object);
    // Forgets all locks in memory that goes.
    void Forget(const void *begin, std::size_t size);

  private:
    bool Reaches(const void *from, const void *to, std::set<const void *> &seen) const;

    std::atomic<std::uint64_t> epoch_{1}; // rises whenever locks are forgotten
    std::mutex mutex_;
    std::map<const void *, std::set<const void *>> takenUnder_; // lock -> the locks taken while it was held
};

} // namespace host
