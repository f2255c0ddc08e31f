// The motorised focus of family C: camera control 6, and private image control 124, which starts an autofocus run.
#pragma once

#include "camera/control.h"
#include "camera/control_command.h"
#include "camera/focus_search.h"

namespace uvc {

class FocusProvider final : public PropertyProvider {
  public:
    FocusProvider();

    // A camera without focus keeps the items, which answer STATUS_NOT_IMPLEMENTED.
    NTSTATUS Attach(UvcCamera &camera) override;

    // Looks at a frame and has the motor moved where the run under way, if any, wants it. IRQL: <= DISPATCH_LEVEL, on
    // the thread that converts frames. Lock: none.
    void Judge(const imaging::ImageDescriptor &source, WorkItemTracker &tracker);

  private:
    static NTSTATUS GetPosition(const ControlRequest &request);
    static NTSTATUS SetPosition(const ControlRequest &request);
    static NTSTATUS GetTrigger(const ControlRequest &request);
    static NTSTATUS SetTrigger(const ControlRequest &request);
    static const ControlItem kItems[2];

    bool Present() const { return command_.Control() != nullptr; }

    FocusSearch search_;
    ControlCommand command_;
};

} // namespace uvc
