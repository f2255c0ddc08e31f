#include "host/executive/runtime.h"

#include "host/executive/state.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace host {
namespace {

std::atomic<Runtime *> current{nullptr};

} // namespace

void Violation(const char *rule, const char *routine, const std::string &detail) {
    std::fflush(stdout);
    std::fprintf(stderr, "uvc runtime: violation: %s: %s: %s\n", rule, routine, detail.c_str());
    std::fflush(stderr);
    std::abort();
}

Runtime::State::State(RuntimeOptions &&given)
    : options(std::move(given)), faults(options.faults), pool(pagedArena), dispatcher(options.clock),
      startTime(dispatcher.Now()), debugLog(options.onDebugPrint), workQueue(dispatcher),
      registry(options.registryFile) {}

State &Machine() {
    Runtime *runtime = current.load(std::memory_order_acquire);
    if (runtime == nullptr)
        Violation("no runtime", "kernel routine", "called while no Runtime lives");
    return runtime->Internal();
}

Runtime::Runtime(RuntimeOptions options) : state_(std::make_unique<State>(std::move(options))) {
    Runtime *none = nullptr;
    if (!current.compare_exchange_strong(none, this))
        Violation("second runtime", "Runtime", "one lives already");
    auto creator = std::make_shared<Thread>();
    creator->name = "creator";
    creator->kind = ThreadKind::Creator;
    state_->dispatcher.Attach(creator);
    SetCurrentThread(creator.get());
    InstallFaultHandler();
}

Runtime::~Runtime() {
    constexpr const char *kRoutine = "Runtime";
    Thread &thread = CurrentThread(kRoutine);
    if (thread.kind != ThreadKind::Creator)
        Violation("runtime ended by another thread", kRoutine, "thread '" + thread.name + "'");
    RequireCleanReturn(thread, PASSIVE_LEVEL, 0, kRoutine, "the creator");
    state_->dispatcher.CheckNoMutexes(thread, kRoutine);
    state_->workQueue.Stop();
    if (const std::string threads = state_->dispatcher.ForgottenThreads(); !threads.empty())
        Violation("threads left", kRoutine, threads);
    for (std::thread &body : state_->systemThreads)
        body.join();

    const std::pair<const char *, std::string> leaks[] = {
        {"IRPs left", state_->irps.Leaks()},
        {"MDLs left", state_->mdls.Leaks()},
        {"work items left", state_->workQueue.Leaks()},
        {"handles or objects left", state_->objects.Leaks()},
        {"lookaside lists left", state_->lookasides.Leaks()},
        {"pool left", state_->pool.Leaks()},
    };
    for (const auto &[rule, text] : leaks) {
        if (!text.empty())
            Violation(rule, kRoutine, text);
    }
    RemoveFaultHandler();
    state_->dispatcher.Finish(thread, kRoutine);
    SetCurrentThread(nullptr);
    current.store(nullptr, std::memory_order_release);
}

Runtime &Runtime::Current() {
    static_cast<void>(Machine());
    return *current.load(std::memory_order_acquire);
}

void Runtime::Arm(const FaultPlan &plan) {
    state_->faults = plan;
}
FaultPlan &Runtime::Faults() {
    return state_->faults;
}
Ticks Runtime::Now() const {
    return state_->dispatcher.Now();
}
bool Runtime::HasVirtualTime() const {
    return state_->dispatcher.IsVirtual();
}
Runtime::PoolUse Runtime::OutstandingPool() const {
    return state_->pool.Use();
}
std::string Runtime::DebugLog() const {
    return state_->debugLog.Text();
}

} // namespace host
