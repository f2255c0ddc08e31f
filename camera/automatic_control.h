// A camera control that the driver's own automatic moves while it is on, and applications while it is off.
#pragma once

#include "camera/control.h"
#include "camera/control_command.h"

namespace uvc {

class AutomaticControl {
  public:
    // The fields of the automatic's state: the value it goes on from, and whether it is on. Shared with the thread that
    // converts frames.
    AutomaticControl(LONG &current, bool &automatic) : current_(current), automatic_(automatic), command_(&automatic) {}

    // The automatic is on when there is a control that tells its range, and goes on from its value. IRQL:
    // PASSIVE_LEVEL.
    void Attach(UvcCamera &camera, UvcControl *control);

    // What the camera has now. STATUS_NOT_IMPLEMENTED without a control. IRQL: PASSIVE_LEVEL.
    NTSTATUS Read(UvcCamera &camera, LONG &value);

    // Fills value and flags of an answer, the value from the camera unless the request asks for the range only.
    NTSTATUS Tell(const ControlRequest &request, ControlAnswer &answer);

    // Flag bit 0 turns the automatic on, which then goes on from what the camera has; without it the automatic is
    // turned off and the value sent. IRQL: PASSIVE_LEVEL.
    NTSTATUS Set(UvcCamera &camera, const ControlSetting &setting);

    // A step of the automatic: has a new value sent while the automatic is on. IRQL: <= DISPATCH_LEVEL. Lock: none.
    void Follow(WorkItemTracker &tracker, LONG value);

  private:
    LONG &current_;
    bool &automatic_;
    ControlCommand command_;
};

} // namespace uvc
