// One-push autofocus: a search for the sharpest focus position, one step per few frames.
#pragma once

#include "imaging/sharpness.h"
#include "platform/platform.h"

namespace uvc {

// The focus motor of a camera: positions and times in milliseconds.
struct FocusMotor {
    LONG minimum = 0;
    LONG maximum = 0;
    LONG fullTravelTime = 0; // from minimum to maximum
    LONG minimumSettleTime = 0;
};

// Frames belong to the worker thread; triggers and positions may come from any other at any time. A trigger is never
// lost: one that comes while a frame is looked at restarts the search at the next.
class FocusSearch {
  public:
    // Before the first frame.
    void SetMotor(const FocusMotor &motor) { motor_ = motor; }

    // Starts a run, or restarts the one that is under way, at the next frame. IRQL: <= DISPATCH_LEVEL. Lock: none.
    void Trigger();

    // Where the motor is, or is on its way to. Setting it does not move the motor, and does not end a run, which goes
    // on from there. IRQL: <= DISPATCH_LEVEL. Lock: none.
    LONG Position() const;
    void SetPosition(LONG position);

    // An application has sent the motor to `position` at `now`, system time in 100 ns: no frame is judged before it has
    // arrived. IRQL: <= DISPATCH_LEVEL. Lock: none.
    void MoveTo(LONG position, ULONGLONG now);

    // Whether a run is under way or asked for. IRQL: <= DISPATCH_LEVEL. Lock: none.
    bool Running() const;

    // Looks at an 8-bit image taken at `now`, system time in 100 ns. True when the motor must go to `target`, which
    // from then on is the position. A run ends by itself once it has narrowed the search to less than 5 positions, and
    // at once with an image that has no tile to look at; the motor stays at the position tried last.
    // IRQL: <= DISPATCH_LEVEL, on the one thread that converts frames. Lock: none.
    bool Step(const imaging::ImageDescriptor &image, ULONGLONG now, LONG &target);

  private:
    bool Start(const imaging::Region &region, const imaging::ImageDescriptor &image, ULONGLONG now, LONG &target);
    bool Search(const imaging::ImageDescriptor &image, ULONGLONG now, LONG &target);
    void Judge(LONG position, LONG score);
    bool GoToNextTarget(ULONGLONG now, LONG &target);
    ULONGLONG SettleTime(LONGLONG travel) const;
    bool End();

    FocusMotor motor_;
    LONG position_ = 0;       // shared
    ULONGLONG arrival_ = 0;   // shared; of a move that an application asked for
    bool startAsked_ = false; // shared
    bool running_ = false;    // shared; written by frames only
    imaging::Region region_{};
    LONG steps_ = 0; // done in this run
    LONG lower_ = 0; // the search interval
    LONG upper_ = 0;
    LONG bestScore_ = 0;
    LONG bestPosition_ = 0;
    LONG framesToSkip_ = 0; // after a new target
    ULONGLONG settled_ = 0; // no step before this time
};

} // namespace uvc
