#include "usb/frame_rate.h"

#include "platform/shared_field.h"

namespace uvc {

namespace {

constexpr ULONG kDefaultPeriodMs = 3000;

void BeginMeasurement(FrameRate &rate, LONGLONG now, ULONG delivered) {
    SharedStore(rate.startTime, now);
    SharedStore(rate.deliveredAtStart, delivered);
}

} // namespace

void FrameRateInitialise(FrameRate &rate) {
    LARGE_INTEGER frequency{};
    KeQueryPerformanceCounter(&frequency);
    rate = {.periodMs = kDefaultPeriodMs, .counterFrequency = frequency.QuadPart};
}

void FrameRateRestart(FrameRate &rate, ULONG delivered) {
    SharedStore(rate.hundredths, 0u);
    BeginMeasurement(rate, KeQueryPerformanceCounter(nullptr).QuadPart, delivered);
}

void FrameRateUpdate(FrameRate &rate, ULONG delivered) {
    const LONGLONG now = KeQueryPerformanceCounter(nullptr).QuadPart;
    const LONGLONG elapsedMs = (now - SharedLoad(rate.startTime)) * 1000 / rate.counterFrequency;
    if (elapsedMs <= static_cast<LONGLONG>(rate.periodMs))
        return;
    const LONGLONG frames = delivered - SharedLoad(rate.deliveredAtStart); // right across a wrap of the counter, too
    SharedStore(rate.hundredths, static_cast<ULONG>(frames * 100'000 / elapsedMs));
    BeginMeasurement(rate, now, delivered);
}

} // namespace uvc
