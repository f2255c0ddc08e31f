#include "host/streaming/rules.h"

#include <string>

namespace host::streaming {

namespace {

struct KindRules {
    const char *level;
    const char *time;
    LONGLONG milliseconds;
};

constexpr KindRules kRules[] = {
    {.level = "KsIrqlDeviceCallbacks", .time = "KsTimedDeviceCallbacks", .milliseconds = 500},
    {.level = "KsIrqlFilterCallbacks", .time = "KsTimedFilterCallbacks", .milliseconds = 500},
    {.level = "KsIrqlPinCallbacks", .time = "KsTimedPinCallbacks", .milliseconds = 500},
    {.level = "KsIrqlPinCallbacks", .time = "KsTimedPinSetDeviceState", .milliseconds = 500},
    {.level = "KsIrqlPinCallbacks", .time = "KsTimedProcessingMutex", .milliseconds = 100},
};

// A loaded machine stretches real time; there the limit only catches what hangs.
constexpr LONGLONG kRealTimeAllowance = 20;

const KindRules &RulesOf(CallbackKind kind) {
    return kRules[static_cast<int>(kind)];
}

bool MarkedPending(PIRP irp) {
    return (IoGetCurrentIrpStackLocation(irp)->Control & SL_PENDING_RETURNED) != 0;
}

} // namespace

void RequireLevel(const char *routine, KIRQL highest) {
    if (KIRQL level = KeGetCurrentIrql(); level > highest)
        Violation("KsIrqlDDIs", routine, "called at level " + std::to_string(level));
}

LONGLONG SystemTicks() {
    LARGE_INTEGER frequency;
    LONGLONG count = KeQueryPerformanceCounter(&frequency).QuadPart;
    LONGLONG seconds = count / frequency.QuadPart;
    return seconds * 10'000'000 + count % frequency.QuadPart * 10'000'000 / frequency.QuadPart;
}

CallbackScope::CallbackScope(CallbackKind kind, const char *name, PIRP irp)
    : kind_(kind), name_(name), irp_(irp), start_(SystemTicks()) {
    if (KeGetCurrentIrql() != PASSIVE_LEVEL)
        Violation(RulesOf(kind).level, name, "called at level " + std::to_string(KeGetCurrentIrql()));
}

CallbackScope::~CallbackScope() {
    const KindRules &rules = RulesOf(kind_);
    if (KIRQL level = KeGetCurrentIrql(); level != PASSIVE_LEVEL)
        Violation(rules.level, name_, "returned at level " + std::to_string(level));
    LONGLONG taken = (SystemTicks() - start_) / kTicksPerMillisecond;
    Runtime &runtime = Runtime::Current();
    LONGLONG limit = runtime.HasVirtualTime() ? rules.milliseconds : rules.milliseconds * kRealTimeAllowance;
    if (taken > limit && runtime.Faults().FaultsDealt() == 0) {
        Violation(rules.time, name_,
                  "took " + std::to_string(taken) + " ms, more than " + std::to_string(limit) + " ms");
    }
}

NTSTATUS CallbackScope::Returned(NTSTATUS status) const {
    if (status == STATUS_PENDING && kind_ != CallbackKind::Process) {
        if (irp_ != nullptr && !MarkedPending(irp_))
            Violation("KsMarkPendingIrp", name_, "returned STATUS_PENDING for a request it did not mark");
        Violation("KsCallbackReturn", name_, "returned STATUS_PENDING");
    }
    if (irp_ != nullptr && MarkedPending(irp_))
        Violation("KsMarkPendingIrp", name_, "marked a request pending and returned another status");
    return status;
}

void NotModelled(const char *routine, const char *what) {
    Violation("not modelled", routine, what);
}

} // namespace host::streaming
