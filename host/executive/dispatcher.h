// Waits and time. One mutex guards the state of every object that can be waited for.
#pragma once

#include "host/executive/thread.h"

#include <chrono>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>

namespace host {

// One thread's wait.
struct Wait {
    std::span<PVOID const> objects;
    bool all = false;
    bool idle = false; // a worker without work: not a party to a deadlock
    std::optional<Ticks> deadline;
    const char *routine = "";
    void *caller = nullptr;
    bool over = false;
    NTSTATUS status = STATUS_SUCCESS;
};

class Dispatcher {
  public:
    explicit Dispatcher(ClockKind clock);

    // Threads. Attach counts the thread as running from now on, which may be before it does. Finish signals it.
    void Attach(const std::shared_ptr<Thread> &thread);
    void Finish(Thread &thread, const char *routine);
    // Who is still attached, but for the creator and workers; for the leak report.
    std::string ForgottenThreads();
    bool OwnsThread(const void *object);

    Ticks Now();
    bool IsVirtual() const { return clock_ == ClockKind::Virtual; }

    // Waits for one or all of the objects. No objects: for the deadline alone.
    NTSTATUS WaitFor(Wait &wait);

    // Changes of state. Each returns what the kernel routine of that name does.
    void InitialiseEvent(PKEVENT event, EVENT_TYPE type, bool signalled, const char *routine);
    LONG SetEvent(PKEVENT event, const char *routine);
    LONG ResetEvent(PKEVENT event, const char *routine);
    LONG ReadState(PVOID object, UCHAR size, const char *routine);
    void InitialiseMutex(PKMUTEX mutex);
    LONG ReleaseMutex(PKMUTEX mutex);
    void InitialiseSemaphore(PKSEMAPHORE semaphore, LONG count, LONG limit);
    LONG ReleaseSemaphore(PKSEMAPHORE semaphore, LONG adjustment);

    // Violations when memory with a held lock or a waited-for object in it is about to go.
    void CheckFreed(const void *begin, std::size_t size, const char *routine);
    // A violation when the current thread still owns a mutex.
    void CheckNoMutexes(Thread &thread, const char *routine);

  private:
    using Lock = std::unique_lock<std::mutex>;
    Ticks NowLocked() const;
    void CheckObject(const void *object, const char *routine) const;
    bool IsSignalled(const DISPATCHER_HEADER &header, const Thread &thread) const;
    void Consume(DISPATCHER_HEADER &header, Thread &thread);
    bool TrySatisfy(Thread &thread, Wait &wait);
    void StopWaiting(Thread &thread, NTSTATUS status);
    void Signalled(const void *object);
    void MoveTimeIfAllWait();
    [[noreturn]] void ReportDeadlock();

    const ClockKind clock_;
    const std::chrono::steady_clock::time_point realStart_;
    const Ticks start_;

    mutable std::mutex mutex_;
    Ticks virtualNow_;
    int running_ = 0;
    std::list<std::shared_ptr<Thread>> threads_;
    std::list<Thread *> waiting_; // in the order in which they began
};

// A KEVENT and its like as text, for reports.
std::string DescribeObject(const void *object);

} // namespace host
