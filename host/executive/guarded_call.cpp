// The fault handler: pages the paged pool in, and turns a fault inside a guarded call into a status.
#include "platform/guarded_call.h"

#include "host/executive/state.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <ucontext.h>
#include <unistd.h>
#include <utility>

namespace host {
namespace {

struct Handled {
    int signal;
    NTSTATUS status;
    struct sigaction before;
};
Handled handled[] = {
    {SIGSEGV, STATUS_ACCESS_VIOLATION, {}},
    {SIGBUS, STATUS_IN_PAGE_ERROR, {}},
    {SIGFPE, STATUS_INTEGER_DIVIDE_BY_ZERO, {}},
};

[[noreturn]] void Leave(Thread &thread, NTSTATUS status) {
    GuardFrame *frame = thread.guard;
    siglongjmp(frame->context, static_cast<int>(status));
}

// As Violation, within what a signal handler may do.
[[noreturn]] void ReportPagedTouch(void *address, const ucontext_t &context, KIRQL level) {
    auto *code = reinterpret_cast<char *>(context.uc_mcontext.gregs[REG_RIP]);
    Dl_info where{};
    const bool known = dladdr(code, &where) != 0;
    char line[512];
    const int length = std::snprintf(
        line, sizeof line,
        "uvc runtime: violation: paged pool at raised IRQL: memory access: address %p at level %u by %s+0x%tx\n",
        address, level, known && where.dli_sname != nullptr ? where.dli_sname : "code",
        code - static_cast<char *>(where.dli_sname != nullptr ? where.dli_saddr : where.dli_fbase));
    static_cast<void>(!write(STDERR_FILENO, line, std::min<std::size_t>(length, sizeof line - 1)));
    std::abort();
}

void OnFault(int signal, siginfo_t *info, void *context) {
    Thread *thread = CurrentThreadOrNull();
    if (thread != nullptr && signal == SIGSEGV) {
        PagedArena &arena = Machine().pagedArena;
        if (arena.Contains(info->si_addr)) {
            if (thread->irql >= DISPATCH_LEVEL && thread->ownPagedAccess == 0)
                ReportPagedTouch(info->si_addr, *static_cast<ucontext_t *>(context), thread->irql);
            arena.PageIn();
            return;
        }
    }
    for (const Handled &entry : handled) {
        if (entry.signal != signal)
            continue;
        if (thread != nullptr && thread->guard != nullptr) {
            // The jump does not restore what was blocked for the handler; a sanitizer blocks more than was asked for.
            pthread_sigmask(SIG_SETMASK, &static_cast<ucontext_t *>(context)->uc_sigmask, nullptr);
            Leave(*thread, entry.status);
        }
        sigaction(signal, &entry.before, nullptr); // the instruction runs again and meets whoever was there before
    }
}

} // namespace

void InstallFaultHandler() {
    struct sigaction action {};
    action.sa_sigaction = OnFault;
    // Not blocked while it runs: it is left by a jump.
    action.sa_flags = SA_SIGINFO | SA_NODEFER | SA_ONSTACK;
    for (Handled &entry : handled)
        sigaction(entry.signal, &action, &entry.before);
}

void RemoveFaultHandler() {
    for (Handled &entry : handled)
        sigaction(entry.signal, &entry.before, nullptr);
}

} // namespace host

using namespace host;

NTSTATUS GuardedCall(GuardedRoutine routine, void *context) {
    constexpr const char *kRoutine = "GuardedCall";
    Thread &thread = CurrentThread(kRoutine);
    RequireIrqlAtMost(PASSIVE_LEVEL, kRoutine);
    GuardFrame frame;
    frame.outer = thread.guard;
    const int status = sigsetjmp(frame.context, 0);
    if (status == 0) {
        thread.guard = &frame;
        routine(context);
    }
    thread.guard = frame.outer;
    RequireCleanReturn(thread, PASSIVE_LEVEL, 0, kRoutine, "the guarded routine");
    return status;
}

extern "C" {

void NTAPI ExRaiseStatus(NTSTATUS status) {
    Thread &thread = CurrentThread("ExRaiseStatus");
    if (thread.guard == nullptr)
        Violation("exception without a handler", "ExRaiseStatus", Format("status 0x%08x", status));
    Leave(thread, status);
}

void NTAPI ExRaiseAccessViolation() {
    ExRaiseStatus(STATUS_ACCESS_VIOLATION);
}
void NTAPI ExRaiseDatatypeMisalignment() {
    ExRaiseStatus(STATUS_DATATYPE_MISALIGNMENT);
}

} // extern "C"
