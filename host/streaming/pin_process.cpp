// Pin-centric processing: when the driver's process routine is called, and under which mutex.
#include "host/streaming/pin.h"
#include "host/streaming/rules.h"
#include "platform/lock.h"

namespace host::streaming {

namespace {

constexpr LONGLONG kLongestHold = 100; // ms

bool MayProcess(Pin &pin) {
    ULONG flags = pin.Descriptor->Flags;
    KSSTATE least = (flags & KSPIN_FLAG_PROCESS_IN_RUN_STATE_ONLY) != 0 ? KSSTATE_RUN : KSSTATE_PAUSE;
    if (pin.state < least)
        return false;
    return (flags & KSPIN_FLAG_FRAMES_NOT_REQUIRED_FOR_PROCESSING) != 0 || pin.queue.HasFrame();
}

void NTAPI RunWorkItem(PDEVICE_OBJECT, PVOID context) {
    auto &pin = *static_cast<Pin *>(context);
    bool again = true;
    while (again) {
        {
            SpinLockGuard guard(pin.workLock);
            pin.workQueued = false;
        }
        pin.Process();
        SpinLockGuard guard(pin.workLock);
        again = pin.workQueued; // an attempt came while this one ran
        if (!again) {
            pin.workRunning = false;
            KeSetEvent(&pin.workIdle, IO_NO_INCREMENT, FALSE);
        }
    }
}

} // namespace

void Pin::AttemptProcessing(bool asynchronous) {
    if (workItem == nullptr)
        return;
    if (!asynchronous && KeGetCurrentIrql() == PASSIVE_LEVEL) {
        Process();
        return;
    }
    SpinLockGuard guard(workLock);
    workQueued = true;
    if (!workRunning) {
        workRunning = true;
        KeClearEvent(&workIdle);
        IoQueueWorkItem(workItem, RunWorkItem, DelayedWorkQueue, this);
    }
}

// STATUS_PENDING ends the processing until the next triggering event: a frame that arrives at an exhausted queue, an
// attempt by the driver, or the step into a processing state. STATUS_SUCCESS asks for more while there are frames; to
// ask without having taken one would go on for ever.
void Pin::Process() {
    AcquireProcessing("pin process");
    while (MayProcess(*this)) {
        const void *before = queue.Position();
        NTSTATUS status = CallDriver(CallbackKind::Process, "pin process", nullptr, Descriptor->Dispatch->Process,
                                     static_cast<PKSPIN>(this));
        if (status == STATUS_PENDING || !NT_SUCCESS(status))
            break;
        if (queue.Position() == before)
            Violation("KsCallbackReturn", "pin process", "asked to continue without having taken a frame");
    }
    ReleaseProcessing("pin process");
}

void Pin::AcquireProcessing(const char *routine) {
    processing.Acquire(routine);
    processingSince = SystemTicks();
}

void Pin::ReleaseProcessing(const char *routine) {
    LONGLONG held = (SystemTicks() - processingSince) / kTicksPerMillisecond;
    processing.Release(routine);
    if (held > kLongestHold && Runtime::Current().HasVirtualTime() && Runtime::Current().Faults().FaultsDealt() == 0)
        Violation("KsTimedProcessingMutex", routine, "held for " + std::to_string(held) + " ms");
}

} // namespace host::streaming

using namespace host::streaming;

// Asynchronous attempts may be made at DISPATCH_LEVEL; the routine itself always runs at PASSIVE_LEVEL.
extern "C" void NTAPI KsPinAttemptProcessing(PKSPIN pin, BOOLEAN asynchronous) {
    RequireLevel("KsPinAttemptProcessing", DISPATCH_LEVEL);
    FromPublic<Pin>(pin, "KsPinAttemptProcessing")->AttemptProcessing(asynchronous != FALSE);
}

extern "C" void NTAPI KsPinAcquireProcessingMutex(PKSPIN pin) {
    FromPublic<Pin>(pin, "KsPinAcquireProcessingMutex")->AcquireProcessing("KsPinAcquireProcessingMutex");
}

extern "C" void NTAPI KsPinReleaseProcessingMutex(PKSPIN pin) {
    FromPublic<Pin>(pin, "KsPinReleaseProcessingMutex")->ReleaseProcessing("KsPinReleaseProcessingMutex");
}
