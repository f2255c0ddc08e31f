#include "host/executive/dispatcher.h"

#include "host/executive/state.h"

#include <algorithm>

namespace host {
namespace {

// Header.Type of the objects that can be waited for, as the kernel numbers them.
enum : UCHAR {
    kNotificationEvent = 0,
    kSynchronizationEvent = 1,
    kMutant = 2,
    kSemaphore = 5,
    kThread = 6,
};

template <class T> constexpr UCHAR HeaderSize() {
    return sizeof(T) / sizeof(ULONG);
}

DISPATCHER_HEADER &HeaderOf(const void *object) {
    return *static_cast<DISPATCHER_HEADER *>(const_cast<void *>(object));
}

// 2024-01-01, so that a run in virtual time is the same every day.
constexpr Ticks kVirtualStart = 133'485'408'000'000'000;
constexpr Ticks kUnixEpoch = 116'444'736'000'000'000;

Ticks SystemClock() {
    using Tick = std::chrono::duration<Ticks, std::ratio<1, 10'000'000>>;
    return kUnixEpoch + std::chrono::duration_cast<Tick>(std::chrono::system_clock::now().time_since_epoch()).count();
}

} // namespace

std::string DescribeObject(const void *object) {
    const DISPATCHER_HEADER &header = HeaderOf(object);
    switch (header.Type) {
    case kNotificationEvent:
        return Format("notification event %p", object);
    case kSynchronizationEvent:
        return Format("synchronization event %p", object);
    case kMutant: {
        const auto *owner = reinterpret_cast<const Thread *>(static_cast<const KMUTEX *>(object)->OwnerThread);
        return Format("mutex %p owned by '%s'", object, owner != nullptr ? owner->name.c_str() : "nobody");
    }
    case kSemaphore:
        return Format("semaphore %p", object);
    case kThread:
        return Format("thread '%s'", static_cast<const Thread *>(object)->name.c_str());
    }
    return Format("object %p of unknown type %u", object, header.Type);
}

Dispatcher::Dispatcher(ClockKind clock)
    : clock_(clock), realStart_(std::chrono::steady_clock::now()),
      start_(clock == ClockKind::Virtual ? kVirtualStart : SystemClock()), virtualNow_(start_) {}

void Dispatcher::Attach(const std::shared_ptr<Thread> &thread) {
    Lock lock(mutex_);
    thread->header.Type = kThread;
    thread->header.Size = HeaderSize<DISPATCHER_HEADER>();
    threads_.push_back(thread);
    ++running_;
}

void Dispatcher::Finish(Thread &thread, const char *routine) {
    CheckNoMutexes(thread, routine);
    Lock lock(mutex_);
    thread.header.SignalState = 1;
    Signalled(&thread);
    threads_.remove_if([&](const auto &other) { return other.get() == &thread; });
    --running_;
    if (!threads_.empty())
        MoveTimeIfAllWait();
}

std::string Dispatcher::ForgottenThreads() {
    Lock lock(mutex_);
    std::string names;
    for (const auto &thread : threads_) {
        if (thread->kind == ThreadKind::System || thread->kind == ThreadKind::Attached)
            names += (names.empty() ? "'" : ", '") + thread->name + "'";
    }
    return names;
}

bool Dispatcher::OwnsThread(const void *object) {
    Lock lock(mutex_);
    return std::any_of(threads_.begin(), threads_.end(), [&](const auto &thread) { return thread.get() == object; });
}

Ticks Dispatcher::Now() {
    Lock lock(mutex_);
    return NowLocked();
}

Ticks Dispatcher::NowLocked() const {
    if (IsVirtual())
        return virtualNow_;
    using Tick = std::chrono::duration<Ticks, std::ratio<1, 10'000'000>>;
    return start_ + std::chrono::duration_cast<Tick>(std::chrono::steady_clock::now() - realStart_).count();
}

void Dispatcher::CheckObject(const void *object, const char *routine) const {
    if (object == nullptr)
        Violation("no object", routine, "null pointer");
    if (Machine().pagedArena.Contains(object))
        Violation("dispatcher object in paged pool", routine, Format("%p", object));
    const DISPATCHER_HEADER &header = HeaderOf(object);
    UCHAR size = 0;
    switch (header.Type) {
    case kNotificationEvent:
    case kSynchronizationEvent:
        size = HeaderSize<KEVENT>();
        break;
    case kMutant:
        size = HeaderSize<KMUTEX>();
        break;
    case kSemaphore:
        size = HeaderSize<KSEMAPHORE>();
        break;
    case kThread:
        size = HeaderSize<DISPATCHER_HEADER>();
        break;
    }
    if (size == 0 || header.Size != size)
        Violation("object not initialised", routine,
                  Format("%p has type %u and size %u", object, header.Type, header.Size));
}

bool Dispatcher::IsSignalled(const DISPATCHER_HEADER &header, const Thread &thread) const {
    if (header.Type == kMutant &&
        reinterpret_cast<const KMUTEX &>(header).OwnerThread == reinterpret_cast<const struct _KTHREAD *>(&thread))
        return true;
    return header.SignalState > 0;
}

void Dispatcher::Consume(DISPATCHER_HEADER &header, Thread &thread) {
    switch (header.Type) {
    case kSynchronizationEvent:
        header.SignalState = 0;
        break;
    case kSemaphore:
        --header.SignalState;
        break;
    case kMutant: {
        auto &mutex = reinterpret_cast<KMUTEX &>(header);
        if (header.SignalState == 1) {
            mutex.OwnerThread = reinterpret_cast<PKTHREAD>(&thread);
            thread.mutexes.push_back(&mutex);
        }
        --header.SignalState;
        break;
    }
    default:
        break;
    }
}

// Mutex held. Consumes what the wait is for, when it is there.
bool Dispatcher::TrySatisfy(Thread &thread, Wait &wait) {
    if (wait.objects.empty())
        return false;
    const auto signalled = [&](PVOID object) { return IsSignalled(HeaderOf(object), thread); };
    if (wait.all) {
        if (!std::all_of(wait.objects.begin(), wait.objects.end(), signalled))
            return false;
        for (PVOID object : wait.objects)
            Consume(HeaderOf(object), thread);
        wait.status = STATUS_WAIT_0;
        return true;
    }
    const auto found = std::find_if(wait.objects.begin(), wait.objects.end(), signalled);
    if (found == wait.objects.end())
        return false;
    Consume(HeaderOf(*found), thread);
    wait.status = STATUS_WAIT_0 + static_cast<NTSTATUS>(found - wait.objects.begin());
    return true;
}

NTSTATUS Dispatcher::WaitFor(Wait &wait) {
    Thread &thread = CurrentThread(wait.routine);
    for (PVOID object : wait.objects)
        CheckObject(object, wait.routine);
    Lock lock(mutex_);
    if (TrySatisfy(thread, wait))
        return wait.status;
    if (wait.deadline && *wait.deadline <= NowLocked())
        return STATUS_TIMEOUT;

    thread.wait = &wait;
    waiting_.push_back(&thread);
    --running_;
    MoveTimeIfAllWait();
    while (!wait.over) {
        if (IsVirtual() || !wait.deadline) {
            thread.wake.wait(lock);
        } else {
            thread.wake.wait_until(lock, realStart_ + std::chrono::nanoseconds(100) * (*wait.deadline - start_));
            if (!wait.over && *wait.deadline <= NowLocked())
                StopWaiting(thread, STATUS_TIMEOUT);
        }
    }
    return wait.status;
}

// Mutex held. The thread counts as running from here, before it has really woken, so that time stands still for it.
void Dispatcher::StopWaiting(Thread &thread, NTSTATUS status) {
    thread.wait->over = true;
    thread.wait->status = status;
    thread.wait = nullptr;
    waiting_.remove(&thread);
    ++running_;
    thread.wake.notify_one();
}

// Mutex held. Serves those who wait for the object, the longest waiter first.
void Dispatcher::Signalled(const void *object) {
    for (auto next = waiting_.begin(); next != waiting_.end();) {
        Thread &thread = **next++;
        Wait &wait = *thread.wait;
        if (std::find(wait.objects.begin(), wait.objects.end(), object) == wait.objects.end())
            continue;
        if (TrySatisfy(thread, wait))
            StopWaiting(thread, wait.status);
    }
}

// Mutex held.
void Dispatcher::MoveTimeIfAllWait() {
    if (!IsVirtual() || running_ != 0)
        return;
    std::optional<Ticks> earliest;
    for (const Thread *thread : waiting_) {
        const auto &deadline = thread->wait->deadline;
        if (deadline && (!earliest || *deadline < *earliest))
            earliest = deadline;
    }
    if (!earliest)
        ReportDeadlock();
    virtualNow_ = std::max(virtualNow_, *earliest);
    for (auto next = waiting_.begin(); next != waiting_.end();) {
        Thread &thread = **next++;
        if (thread.wait->deadline && *thread.wait->deadline <= virtualNow_)
            StopWaiting(thread, STATUS_TIMEOUT);
    }
}

void Dispatcher::ReportDeadlock() {
    std::string report = "no thread can ever run again";
    for (const Thread *thread : waiting_) {
        if (thread->wait->idle)
            continue;
        report += "; '" + thread->name + "' waits for";
        for (const void *object : thread->wait->objects)
            report += " " + DescribeObject(object);
        report += " at " + Place::Of(thread->wait->caller).Text();
    }
    Violation("deadlock", "wait", report);
}

void Dispatcher::InitialiseEvent(PKEVENT event, EVENT_TYPE type, bool signalled, const char *routine) {
    if (Machine().pagedArena.Contains(event))
        Violation("dispatcher object in paged pool", routine, Format("event %p", event));
    Lock lock(mutex_);
    for (const Thread *thread : waiting_) {
        const auto objects = thread->wait->objects;
        if (std::find(objects.begin(), objects.end(), event) != objects.end())
            Violation("event initialised while in use", routine,
                      Format("thread '%s' waits for event %p", thread->name.c_str(), static_cast<void *>(event)));
    }
    event->Header = {};
    event->Header.Type = static_cast<UCHAR>(type);
    event->Header.Size = HeaderSize<KEVENT>();
    event->Header.SignalState = signalled;
    InitializeListHead(&event->Header.WaitListHead);
}

LONG Dispatcher::SetEvent(PKEVENT event, const char *routine) {
    CheckObject(event, routine);
    Lock lock(mutex_);
    const LONG before = event->Header.SignalState;
    event->Header.SignalState = 1;
    if (before == 0)
        Signalled(event);
    return before;
}

LONG Dispatcher::ResetEvent(PKEVENT event, const char *routine) {
    CheckObject(event, routine);
    Lock lock(mutex_);
    return std::exchange(event->Header.SignalState, 0);
}

LONG Dispatcher::ReadState(PVOID object, UCHAR size, const char *routine) {
    CheckObject(object, routine);
    if (HeaderOf(object).Size != size)
        Violation("object of another type", routine, DescribeObject(object));
    Lock lock(mutex_);
    return HeaderOf(object).SignalState;
}

void Dispatcher::InitialiseMutex(PKMUTEX mutex) {
    Lock lock(mutex_);
    *mutex = {};
    mutex->Header.Type = kMutant;
    mutex->Header.Size = HeaderSize<KMUTEX>();
    mutex->Header.SignalState = 1;
    InitializeListHead(&mutex->Header.WaitListHead);
}

LONG Dispatcher::ReleaseMutex(PKMUTEX mutex) {
    constexpr const char *kRoutine = "KeReleaseMutex";
    CheckObject(mutex, kRoutine);
    Thread &thread = CurrentThread(kRoutine);
    Lock lock(mutex_);
    if (mutex->OwnerThread != reinterpret_cast<PKTHREAD>(&thread))
        Violation("lock released by another thread", kRoutine,
                  DescribeObject(mutex) + ", released by '" + thread.name + "'");
    const LONG before = mutex->Header.SignalState++;
    if (mutex->Header.SignalState == 1) {
        mutex->OwnerThread = nullptr;
        std::erase(thread.mutexes, mutex);
        Signalled(mutex);
    }
    return before;
}

void Dispatcher::InitialiseSemaphore(PKSEMAPHORE semaphore, LONG count, LONG limit) {
    Lock lock(mutex_);
    *semaphore = {};
    semaphore->Header.Type = kSemaphore;
    semaphore->Header.Size = HeaderSize<KSEMAPHORE>();
    semaphore->Header.SignalState = count;
    semaphore->Limit = limit;
    InitializeListHead(&semaphore->Header.WaitListHead);
}

LONG Dispatcher::ReleaseSemaphore(PKSEMAPHORE semaphore, LONG adjustment) {
    constexpr const char *kRoutine = "KeReleaseSemaphore";
    CheckObject(semaphore, kRoutine);
    Lock lock(mutex_);
    const LONG before = semaphore->Header.SignalState;
    if (adjustment <= 0 || before > semaphore->Limit - adjustment)
        Violation("semaphore limit exceeded", kRoutine, DescribeObject(semaphore));
    semaphore->Header.SignalState += adjustment;
    Signalled(semaphore);
    return before;
}

void Dispatcher::CheckFreed(const void *begin, std::size_t size, const char *routine) {
    const auto inside = [&](const void *address) {
        return address >= begin && address < static_cast<const char *>(begin) + size;
    };
    Lock lock(mutex_);
    for (const auto &thread : threads_) {
        for (const HeldSpinLock &held : thread->spinLocks) {
            const void *spinLock = held.lock.load(std::memory_order_relaxed);
            if (spinLock != nullptr && inside(spinLock))
                Violation("held lock freed", routine,
                          Format("spin lock %p, held by '%s', lies in freed memory %p", spinLock, thread->name.c_str(),
                                 begin));
        }
        for (const KMUTEX *mutex : thread->mutexes) {
            if (inside(mutex))
                Violation("held lock freed", routine,
                          DescribeObject(mutex) + Format(" lies in freed memory %p", begin));
        }
    }
    for (const Thread *thread : waiting_) {
        for (const void *object : thread->wait->objects) {
            if (inside(object))
                Violation("object freed while waited for", routine,
                          DescribeObject(object) +
                              Format(" lies in freed memory %p, '%s' waits for it", begin, thread->name.c_str()));
        }
    }
}

void Dispatcher::CheckNoMutexes(Thread &thread, const char *routine) {
    Lock lock(mutex_);
    if (!thread.mutexes.empty())
        Violation("mutex kept", routine, DescribeObject(thread.mutexes.front()));
}

} // namespace host
