#include "host/executive/state.h"
#include "host/executive/work_queue.h"

// Opaque in the headers: only its address matters.
struct _IO_WORKITEM {
    char unused[64];
};

namespace host {

WorkQueue::WorkQueue(Dispatcher &dispatcher) {
    dispatcher.InitialiseSemaphore(&ready_, 0, MAXLONG);
}

void WorkQueue::Run(std::function<void()> job, const void *owner) {
    State &state = Machine();
    std::lock_guard lock(mutex_);
    jobs_.push_back({std::move(job), owner});
    if (jobs_.size() > idle_ && workers_.size() < kMostWorkers) {
        auto thread = std::make_shared<Thread>();
        thread->name = Format("system worker %zu", workers_.size() + 1);
        thread->kind = ThreadKind::Worker;
        state.dispatcher.Attach(thread);
        ++idle_;
        std::thread body([this, thread] {
            SetCurrentThread(thread.get());
            Work(*thread);
            Machine().dispatcher.Finish(*thread, "worker");
            SetCurrentThread(nullptr);
        });
        workers_.emplace_back(std::move(thread), std::move(body));
    }
    state.dispatcher.ReleaseSemaphore(&ready_, 1);
}

void WorkQueue::Work(Thread &thread) {
    for (;;) {
        PVOID ready = &ready_;
        Wait wait{.objects = {&ready, 1}, .idle = true, .routine = "worker", .caller = nullptr};
        static_cast<void>(Machine().dispatcher.WaitFor(wait));
        Job job;
        {
            std::lock_guard lock(mutex_);
            if (jobs_.empty())
                return; // the end
            job = std::move(jobs_.front());
            jobs_.pop_front();
            --idle_;
        }
        job.run();
        RequireCleanReturn(thread, PASSIVE_LEVEL, 0, "work item", "the routine");
        Machine().dispatcher.CheckNoMutexes(thread, "work item");
        std::lock_guard lock(mutex_);
        ++idle_;
    }
}

void WorkQueue::Stop() {
    for (;;) { // the last jobs may queue more
        std::vector<std::pair<std::shared_ptr<Thread>, std::thread>> workers;
        {
            std::lock_guard lock(mutex_);
            workers.swap(workers_);
        }
        if (workers.empty())
            return;
        Machine().dispatcher.ReleaseSemaphore(&ready_, static_cast<LONG>(workers.size()));
        for (auto &[thread, body] : workers) {
            WaitForObject(thread.get(), "Runtime");
            body.join();
        }
    }
}

PIO_WORKITEM WorkQueue::Allocate(PDEVICE_OBJECT device, Place place) {
    auto *item = new _IO_WORKITEM;
    std::lock_guard lock(mutex_);
    items_.emplace(item, Item{device, place});
    return item;
}

void WorkQueue::Queue(PIO_WORKITEM item, PIO_WORKITEM_ROUTINE routine, PIO_WORKITEM_ROUTINE_EX routineEx, PVOID context,
                      const char *name) {
    PDEVICE_OBJECT device = nullptr;
    {
        std::lock_guard lock(mutex_);
        const auto found = items_.find(item);
        if (found == items_.end())
            Violation("work item not known", name, Format("%p", static_cast<void *>(item)));
        if (found->second.queued)
            Violation("work item queued twice", name, "from " + found->second.place.Text());
        found->second.queued = true;
        device = found->second.device;
    }
    Machine().objects.Reference(device, name);
    Run([=, this] {
        {
            std::lock_guard lock(mutex_);
            items_.at(item).queued = false;
        }
        if (routine != nullptr)
            routine(device, context);
        else
            routineEx(device, context, item);
        Machine().objects.Dereference(device, "work item");
    });
}

void WorkQueue::Free(PIO_WORKITEM item) {
    std::lock_guard lock(mutex_);
    const auto found = items_.find(item);
    if (found == items_.end())
        Violation("work item not known", "IoFreeWorkItem", Format("%p, freed already?", static_cast<void *>(item)));
    if (found->second.queued)
        Violation("work item freed while queued", "IoFreeWorkItem", "from " + found->second.place.Text());
    items_.erase(found);
    delete item;
}

void WorkQueue::CheckFreed(const void *begin, std::size_t size, const char *routine) {
    std::lock_guard lock(mutex_);
    for (const Job &job : jobs_) {
        if (job.owner != nullptr && job.owner >= begin && job.owner < static_cast<const char *>(begin) + size)
            Violation("work item freed while queued", routine, Format("%p lies in freed memory %p", job.owner, begin));
    }
}

std::string WorkQueue::Leaks() {
    std::lock_guard lock(mutex_);
    std::string text;
    for (const auto &[item, record] : items_)
        text +=
            (text.empty() ? "" : "; ") + Format("work item %p from ", static_cast<void *>(item)) + record.place.Text();
    return text;
}

} // namespace host

using namespace host;

extern "C" {

PIO_WORKITEM NTAPI IoAllocateWorkItem(PDEVICE_OBJECT device) {
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoAllocateWorkItem");
    State &state = Machine();
    if (!state.objects.Is(device, ObjectKind::Device))
        Violation("not a device", "IoAllocateWorkItem", Format("%p", static_cast<void *>(device)));
    if (state.faults.Fails(FaultSite::WorkItem))
        return nullptr;
    return state.workQueue.Allocate(device, CALLER_PLACE());
}

void NTAPI IoQueueWorkItem(PIO_WORKITEM item, PIO_WORKITEM_ROUTINE routine, WORK_QUEUE_TYPE, PVOID context) {
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoQueueWorkItem");
    Machine().workQueue.Queue(item, routine, nullptr, context, "IoQueueWorkItem");
}

void NTAPI IoQueueWorkItemEx(PIO_WORKITEM item, PIO_WORKITEM_ROUTINE_EX routine, WORK_QUEUE_TYPE, PVOID context) {
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoQueueWorkItemEx");
    Machine().workQueue.Queue(item, nullptr, routine, context, "IoQueueWorkItemEx");
}

void NTAPI IoFreeWorkItem(PIO_WORKITEM item) {
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoFreeWorkItem");
    Machine().workQueue.Free(item);
}

void NTAPI ExQueueWorkItem(PWORK_QUEUE_ITEM item, WORK_QUEUE_TYPE) {
    RequireIrqlAtMost(DISPATCH_LEVEL, "ExQueueWorkItem");
    const auto routine = item->WorkerRoutine;
    const auto context = item->Parameter;
    Machine().workQueue.Run([=] { routine(context); }, item);
}

} // extern "C"
