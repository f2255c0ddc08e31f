// The kernel's ways to ask for the time. All of them read one clock.
#include "host/executive/state.h"

#include <time.h>

using namespace host;

namespace {

constexpr ULONG kTimeIncrement = 156'250; // 15.625 ms, the usual timer interrupt

// Time since boot. The machine was started ten seconds before the runtime.
Ticks InterruptTime() {
    State &state = Machine();
    return state.dispatcher.Now() - state.startTime + 10'000 * kTicksPerMillisecond;
}

} // namespace

extern "C" {

LARGE_INTEGER NTAPI KeQueryPerformanceCounter(PLARGE_INTEGER frequency) {
    if (frequency != nullptr)
        frequency->QuadPart = 1000 * kTicksPerMillisecond;
    return {.QuadPart = InterruptTime()};
}

VOID NTAPI KeQuerySystemTime(PLARGE_INTEGER currentTime) {
    currentTime->QuadPart = Machine().dispatcher.Now();
}

VOID NTAPI KeQueryTickCount(PLARGE_INTEGER currentCount) {
    currentCount->QuadPart = InterruptTime() / kTimeIncrement;
}

ULONGLONG NTAPI KeQueryInterruptTime() {
    return static_cast<ULONGLONG>(InterruptTime());
}

ULONG NTAPI KeQueryTimeIncrement() {
    return kTimeIncrement;
}

VOID NTAPI ExSystemTimeToLocalTime(PLARGE_INTEGER systemTime, PLARGE_INTEGER localTime) {
    *localTime = *systemTime;
}

// Busy waiting keeps the processor: virtual time stands still, real time passes.
VOID NTAPI KeStallExecutionProcessor(ULONG microseconds) {
    State &state = Machine();
    if (state.dispatcher.IsVirtual())
        return;
    const Ticks end = state.dispatcher.Now() + static_cast<Ticks>(microseconds) * 10;
    while (state.dispatcher.Now() < end)
        __builtin_ia32_pause();
}

} // extern "C"
