#include "host/executive/lock_order.h"

#include "host/executive/state.h"

#include <algorithm>

namespace host {

void LockOrder::Check(const void *object, const char *kind, const char *routine) {
    Thread &thread = CurrentThread(routine);
    if (thread.lockOrder.empty())
        return;
    // Drivers nest the same pair over and over; the one that the thread has just been through costs no search.
    const LockPair pair{thread.lockOrder.back().object, object, epoch_.load(std::memory_order_relaxed)};
    const LockPair &known = thread.knownLockPair;
    if (thread.lockOrder.size() == 1 && known.held == pair.held && known.taken == object && known.epoch == pair.epoch)
        return;
    const auto again = std::find_if(thread.lockOrder.begin(), thread.lockOrder.end(),
                                    [&](const HeldLock &held) { return held.object == object; });
    if (again != thread.lockOrder.end())
        return;
    std::lock_guard lock(mutex_);
    for (const HeldLock &held : thread.lockOrder) {
        if (!takenUnder_[held.object].insert(object).second)
            continue;
        std::set<const void *> seen;
        if (Reaches(object, held.object, seen))
            Violation("lock order", routine,
                      Format("%s %p is taken while %s %p is held, and they are also taken the other way round", kind,
                             object, held.kind, held.object));
    }
    thread.knownLockPair = pair;
}

bool LockOrder::Reaches(const void *from, const void *to, std::set<const void *> &seen) const {
    if (from == to)
        return true;
    if (!seen.insert(from).second)
        return false;
    const auto found = takenUnder_.find(from);
    return found != takenUnder_.end() && std::any_of(found->second.begin(), found->second.end(),
                                                     [&](const void *next) { return Reaches(next, to, seen); });
}

void LockOrder::Push(const void *object, const char *kind) {
    CurrentThread("lock").lockOrder.push_back({object, kind});
}

void LockOrder::Pop(const void *object) {
    auto &held = CurrentThread("unlock").lockOrder;
    const auto last =
        std::find_if(held.rbegin(), held.rend(), [&](const HeldLock &lock) { return lock.object == object; });
    if (last != held.rend())
        held.erase(std::next(last).base());
}

void LockOrder::Forget(const void *begin, std::size_t size) {
    const void *end = static_cast<const char *>(begin) + size;
    std::lock_guard lock(mutex_);
    if (takenUnder_.empty())
        return;
    ++epoch_;
    takenUnder_.erase(takenUnder_.lower_bound(begin), takenUnder_.lower_bound(end));
    for (auto &[held, taken] : takenUnder_)
        taken.erase(taken.lower_bound(begin), taken.lower_bound(end));
}

void LockOrderAcquire(const void *object, const char *kindName) {
    Machine().lockOrder.Check(object, kindName, "LockOrderAcquire");
    Machine().lockOrder.Push(object, kindName);
}

void LockOrderRelease(const void *object) {
    Machine().lockOrder.Pop(object);
}

} // namespace host
