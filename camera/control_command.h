// A command to a UVC control that follows from what the driver sees in frames. It is sent from a work item: the thread
// that converts frames never waits for the camera.
#pragma once

#include "camera/uvc_control_table.h"
#include "platform/platform.h"
#include "usb/work_item_tracker.h"

namespace uvc {

class UvcCamera;

class ControlCommand {
  public:
    // With `enabled`, queued values are sent only while it is set.
    explicit ControlCommand(const bool *enabled = nullptr) : enabled_(enabled) { KeInitializeMutex(&sending_, 0); }

    // The control to command; null when the camera lacks it. No item may be outstanding. IRQL: PASSIVE_LEVEL.
    void Attach(UvcCamera &camera, UvcControl *control);

    UvcControl *Control() const { return control_; }

    // Has the value sent by a work item. One item at most is outstanding, which sends the value that is the newest when
    // it runs. A failure is that of the queue: nothing will be sent. IRQL: <= DISPATCH_LEVEL. Lock: none.
    NTSTATUS Queue(WorkItemTracker &tracker, LONG value);

    // Whether the camera refused the value sent last. IRQL: <= DISPATCH_LEVEL. Lock: none.
    bool Failed() const;

    // Sends the value now, as an application asks for it: after an item that is just sending. Whoever wants no further
    // item to send clears `enabled` first. STATUS_NOT_IMPLEMENTED without a control. IRQL: PASSIVE_LEVEL.
    NTSTATUS Send(LONG value);

  private:
    enum State : LONG {
        kIdle,    // no item is outstanding
        kAsked,   // the item that is outstanding has not looked at the newest value
        kSending, // it has
    };

    static void Run(PDEVICE_OBJECT device, void *context);
    NTSTATUS SendNewest();

    const bool *enabled_; // shared
    UvcCamera *camera_ = nullptr;
    UvcControl *control_ = nullptr;
    bool failed_ = false; // shared
    LONG value_ = 0;      // shared
    LONG state_ = kIdle;  // atomic
    KMUTEX sending_;
};

} // namespace uvc
