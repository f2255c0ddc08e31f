#include "camera/automatic_control.h"

#include "platform/shared_field.h"

namespace uvc {

void AutomaticControl::Attach(UvcCamera &camera, UvcControl *control) {
    command_.Attach(camera, control);
    SharedStore(automatic_, control != nullptr && control->rangeValid);
    if (control != nullptr)
        SharedStore(current_, UvcControlNumber(*control, SharedLoad(control->current)));
}

NTSTATUS AutomaticControl::Read(UvcCamera &camera, LONG &value) {
    UvcControl *control = command_.Control();
    if (control == nullptr)
        return STATUS_NOT_IMPLEMENTED;
    ULONGLONG raw = 0;
    NTSTATUS status = UvcReadControl(camera, *control, raw);
    if (NT_SUCCESS(status))
        value = UvcControlNumber(*control, raw);
    return status;
}

NTSTATUS AutomaticControl::Tell(const ControlRequest &request, ControlAnswer &answer) {
    answer.flags = SharedLoad(automatic_) ? kControlAutomatic : kControlManual;
    if (command_.Control() == nullptr || !CanAnswerControl(request))
        return STATUS_NOT_IMPLEMENTED;
    return request.kind == kControlRange ? STATUS_SUCCESS : Read(request.camera, answer.value);
}

NTSTATUS AutomaticControl::Set(UvcCamera &camera, const ControlSetting &setting) {
    if ((setting.flags & kControlAutomatic) != 0) {
        if (SharedLoad(automatic_))
            return STATUS_SUCCESS; // a step may be on its way: what the camera has is older
        LONG value = SharedLoad(current_);
        NTSTATUS status = Read(camera, value);
        if (!NT_SUCCESS(status))
            return status;
        SharedStore(current_, value);
        SharedStore(automatic_, true);
        return status;
    }
    SharedStore(automatic_, false); // first: no queued step is sent after the value
    NTSTATUS status = command_.Send(setting.value);
    if (NT_SUCCESS(status))
        SharedStore(current_, setting.value);
    return status;
}

void AutomaticControl::Follow(WorkItemTracker &tracker, LONG value) {
    // A step that cannot be queued has not happened: the next one starts from what the camera still has. One that the
    // camera did not take is repeated, for the automatic may be at the end of its range and have no other to send.
    const bool wanted = value != SharedLoad(current_) || command_.Failed();
    if (SharedLoad(automatic_) && wanted && NT_SUCCESS(command_.Queue(tracker, value)))
        SharedStore(current_, value);
}

} // namespace uvc
