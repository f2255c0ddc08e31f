// System worker threads and what is queued to them.
#pragma once

#include "host/executive/place.h"
#include "host/executive/thread.h"

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace host {

class Dispatcher;

class WorkQueue {
  public:
    explicit WorkQueue(Dispatcher &dispatcher);

    // Runs `job` on a worker at PASSIVE_LEVEL. `owner`, when given, is memory that must live until the job begins.
    void Run(std::function<void()> job, const void *owner = nullptr);
    // Waits for what is queued and ends the workers. Creator's thread, PASSIVE_LEVEL.
    void Stop();

    // Work items made by IoAllocateWorkItem.
    PIO_WORKITEM Allocate(PDEVICE_OBJECT device, Place place);
    void Queue(PIO_WORKITEM item, PIO_WORKITEM_ROUTINE routine, PIO_WORKITEM_ROUTINE_EX routineEx, PVOID context,
               const char *name);
    void Free(PIO_WORKITEM item);

    void CheckFreed(const void *begin, std::size_t size, const char *routine);
    std::string Leaks();

  private:
    struct Item {
        PDEVICE_OBJECT device;
        Place place;
        bool queued = false;
    };
    struct Job {
        std::function<void()> run;
        const void *owner;
    };
    void Work(Thread &thread);

    static constexpr std::size_t kMostWorkers = 4;

    std::mutex mutex_;
    KSEMAPHORE ready_; // one count per job, and one per worker at the end
    std::deque<Job> jobs_;
    std::vector<std::pair<std::shared_ptr<Thread>, std::thread>> workers_;
    std::size_t idle_ = 0;
    std::map<PIO_WORKITEM, Item> items_;
};

} // namespace host
