#include "camera/control_command.h"

#include "platform/lock.h"
#include "platform/shared_field.h"

namespace uvc {

namespace {

ULONGLONG RawValue(LONG value) {
    return static_cast<ULONGLONG>(LONGLONG{value});
}

} // namespace

void ControlCommand::Attach(UvcCamera &camera, UvcControl *control) {
    camera_ = &camera;
    control_ = control;
}

NTSTATUS ControlCommand::Queue(WorkItemTracker &tracker, LONG value) {
    if (control_ == nullptr)
        return STATUS_NOT_IMPLEMENTED;
    SharedStore(value_, value);
    if (InterlockedExchange(&queued_, 1) != 0) // an item that has not yet looked at the value
        return STATUS_SUCCESS;
    NTSTATUS status = WorkItemQueue(tracker, Run, this, 0);
    if (!NT_SUCCESS(status))
        InterlockedExchange(&queued_, 0);
    return status;
}

void ControlCommand::Run(PDEVICE_OBJECT, void *context) {
    auto &command = *static_cast<ControlCommand *>(context);
    InterlockedExchange(&command.queued_, 0); // before the value is read: a later one needs another item
    MutexGuard guard(command.sending_);
    if (command.enabled_ != nullptr && !SharedLoad(*command.enabled_))
        return;
    // A camera that refuses stays as it is; the next frames tell what that looks like.
    static_cast<void>(UvcWriteControl(*command.camera_, *command.control_, RawValue(SharedLoad(command.value_))));
}

NTSTATUS ControlCommand::Send(LONG value) {
    if (control_ == nullptr)
        return STATUS_NOT_IMPLEMENTED;
    MutexGuard guard(sending_);
    return UvcWriteControl(*camera_, *control_, RawValue(value));
}

} // namespace uvc
