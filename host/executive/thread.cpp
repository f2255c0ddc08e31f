// System threads and attached threads.
#include "host/executive/state.h"

namespace host {
namespace {

// A thread object with `references` references, counted as running from now on.
std::shared_ptr<Thread> MakeThread(std::string name, ThreadKind kind, Place place, int references) {
    State &state = Machine();
    auto thread = std::make_shared<Thread>();
    thread->name = std::move(name);
    thread->kind = kind;
    // The object keeps the memory for as long as anyone holds a reference.
    state.objects.Add(thread.get(), ObjectKind::Thread, thread->name, place, [thread] {});
    for (int i = 1; i < references; ++i)
        state.objects.Reference(thread.get(), "thread");
    state.dispatcher.Attach(thread);
    return thread;
}

void End(Thread &thread, const char *routine) {
    RequireCleanReturn(thread, PASSIVE_LEVEL, 0, routine, "the thread");
    State &state = Machine();
    state.dispatcher.CheckNoMutexes(thread, routine);
    if (thread.criticalRegions != 0)
        Violation("critical region kept", routine, "thread '" + thread.name + "'");
    // In this order: whoever has waited for the thread may take the runtime down.
    state.objects.Dereference(&thread, routine);
    state.dispatcher.Finish(thread, routine);
    SetCurrentThread(nullptr);
}

} // namespace

AttachedThread::AttachedThread(std::string name, std::function<void()> body) {
    const auto thread = MakeThread(std::move(name), ThreadKind::Attached, CALLER_PLACE(), 2);
    done_ = thread.get();
    thread_ = std::make_unique<std::thread>([thread, body = std::move(body)] {
        SetCurrentThread(thread.get());
        body();
        End(*thread, "AttachedThread");
    });
}

AttachedThread::~AttachedThread() {
    Join();
}

void AttachedThread::Join() {
    if (done_ == nullptr)
        return;
    WaitForObject(done_, "AttachedThread::Join");
    thread_->join();
    Machine().objects.Dereference(done_, "AttachedThread::Join");
    done_ = nullptr;
}

} // namespace host

using namespace host;

extern "C" {

NTSTATUS NTAPI PsCreateSystemThread(PHANDLE handle, ULONG access, POBJECT_ATTRIBUTES attributes, HANDLE, PCLIENT_ID,
                                    PKSTART_ROUTINE routine, PVOID context) {
    constexpr const char *kRoutine = "PsCreateSystemThread";
    RequireIrqlAtMost(PASSIVE_LEVEL, kRoutine);
    State &state = Machine();
    if (attributes == nullptr || (attributes->Attributes & OBJ_KERNEL_HANDLE) == 0)
        Violation("handle of the caller's process", kRoutine, "the attributes lack OBJ_KERNEL_HANDLE");
    if (state.faults.Fails(FaultSite::Thread))
        return STATUS_INSUFFICIENT_RESOURCES;
    const Place place = CALLER_PLACE();
    const auto thread = MakeThread("system thread from " + place.Text(), ThreadKind::System, place, 1);
    *handle = state.objects.Open(thread.get(), access, true, place);
    std::thread body([thread, routine, context] {
        SetCurrentThread(thread.get());
        std::jmp_buf exit;
        thread->exit = &exit;
        if (setjmp(exit) == 0)
            routine(context);
        End(*CurrentThreadOrNull(), "system thread");
    });
    std::lock_guard lock(state.systemThreadsMutex);
    state.systemThreads.push_back(std::move(body));
    return STATUS_SUCCESS;
}

// The frames below are abandoned, not unwound, as on Windows: a driver's thread holds nothing when it ends itself.
NTSTATUS NTAPI PsTerminateSystemThread(NTSTATUS) {
    Thread &thread = CurrentThread("PsTerminateSystemThread");
    if (thread.exit == nullptr)
        Violation("not a system thread", "PsTerminateSystemThread", "thread '" + thread.name + "'");
    std::longjmp(*thread.exit, 1);
}

KPRIORITY NTAPI KeSetPriorityThread(PKTHREAD, KPRIORITY priority) {
    RequireIrqlAtMost(DISPATCH_LEVEL, "KeSetPriorityThread");
    return priority;
}

HANDLE NTAPI PsGetCurrentThreadId() {
    return reinterpret_cast<HANDLE>(&CurrentThread("PsGetCurrentThreadId"));
}

HANDLE NTAPI PsGetCurrentProcessId() {
    return reinterpret_cast<HANDLE>(ULONG_PTR{4});
}

PEPROCESS NTAPI IoGetCurrentProcess() {
    static char process;
    return reinterpret_cast<PEPROCESS>(&process);
}

} // extern "C"
