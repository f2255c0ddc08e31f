// The video capture pin: the application's frame queue, the claim on the camera, and the counters of a stream.
//
// Transitions of the pin (rows: to, columns: from). The stream is stopped before the claim is dropped, so that the
// transport never finds a frame sink without a pin.
//
//            | STOP   | ACQUIRE  | PAUSE            | RUN
//   STOP     | release | release | stop, release    | stop, release
//   ACQUIRE  | claim  | -        | stop             | -
//   PAUSE    | -      | -        | -                | pause
//   RUN      | -      | -        | start or resume  | -
//
// A run resumes the stream that this pin has paused, where it is still there, and starts one otherwise.
#pragma once

#include "driver/property_request.h"

namespace uvc {

class UvcDevice;

class CapturePin {
  public:
    // What the camera's stream was last told by this pin.
    enum class RunState : ULONG { Idle = 0, Paused = 2, Running = 3 };

    explicit CapturePin(KSPIN *ksPin);

    static CapturePin *From(KSPIN *pin) { return static_cast<CapturePin *>(pin->Context); }

    // Ends one frame interval: stamps and completes the frame, or counts the interval as dropped when there is none.
    // IRQL: <= DISPATCH_LEVEL.
    virtual void CompleteFrame(KSSTREAM_POINTER *frame, NTSTATUS status);

    // A clone of the next queued frame that has a buffer, or null. It stays outstanding until CompleteFrame.
    // IRQL: <= DISPATCH_LEVEL. One caller at a time.
    virtual KSSTREAM_POINTER *AcquireFrame();

    // Answers the dropped-frames property; everything else is `defaultStatus`. IRQL: <= DISPATCH_LEVEL. Lock: control
    // mutex of the pin or pin lock of the device held.
    virtual NTSTATUS HandlePinProperty(PropertyRequest &request, NTSTATUS defaultStatus);

    // IRQL: PASSIVE_LEVEL. Lock: the filter's control mutex is held by the class driver.
    NTSTATUS SetState(KSSTATE to, KSSTATE from);

    // Makes a private copy of the pin's connection format the current one and tells a running stream which way up it
    // is. Null without memory. Earlier copies stay until the pin closes. IRQL: PASSIVE_LEVEL. Lock: control mutex held;
    // takes the camera's stream mutex.
    KS_VIDEOINFOHEADER *SetPinFormat();

    KSPIN *pin;
    UvcDevice *device;
    RunState runState;
    IKsReferenceClock *clock; // held from ACQUIRE to STOP, or null
    KS_VIDEOINFOHEADER *format;
    UCHAR attemptProcessing; // asks the class driver to process the pin again after each frame
    UCHAR acquired;          // this pin holds the camera
    ULONGLONG droppedFrames;
    ULONGLONG frames;
    KSPIN_LOCK countersLock; // over the two, which belong together: the worker and the completion path end frames

  private:
    using Transition = NTSTATUS (CapturePin::*)();
    struct TransitionTable;

    NTSTATUS Claim();
    NTSTATUS Release();
    NTSTATUS Run();
    NTSTATUS Pause();
    NTSTATUS Stop();
    NTSTATUS Stay();

    struct Counters {
        ULONGLONG frames;
        ULONGLONG dropped;
    };
    Counters Count(bool dropped);
    void Stamp(KSSTREAM_POINTER *frame, const Counters &counters);
    void TurnStreamOver(LONG height);
};

// KSPIN_DISPATCH and the pin's property item.
NTSTATUS CreateCapturePin(PKSPIN pin, PIRP irp);
NTSTATUS ProcessCapturePin(PKSPIN pin);
NTSTATUS SetCapturePinState(PKSPIN pin, KSSTATE to, KSSTATE from);
NTSTATUS GetPinProperty(PIRP irp, PKSIDENTIFIER property, PVOID data);

} // namespace uvc
