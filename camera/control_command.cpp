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
    if (InterlockedExchange(&state_, kAsked) != kIdle) // the item that is there will see the value
        return STATUS_SUCCESS;
    NTSTATUS status = WorkItemQueue(tracker, Run, this, 0);
    if (!NT_SUCCESS(status))
        InterlockedExchange(&state_, kIdle);
    return status;
}

void ControlCommand::Run(PDEVICE_OBJECT, void *context) {
    auto &command = *static_cast<ControlCommand *>(context);
    do {
        InterlockedExchange(&command.state_, kSending); // before the value is read: a later one is another round
        command.SendQueued();
    } while (InterlockedCompareExchange(&command.state_, kIdle, kSending) != kSending);
}

void ControlCommand::SendQueued() {
    MutexGuard guard(sending_);
    if (enabled_ != nullptr && !SharedLoad(*enabled_))
        return;
    // A camera that refuses stays as it is; the next frames tell what that looks like.
    static_cast<void>(UvcWriteControl(*camera_, *control_, RawValue(SharedLoad(value_))));
}

NTSTATUS ControlCommand::Send(LONG value) {
    if (control_ == nullptr)
        return STATUS_NOT_IMPLEMENTED;
    MutexGuard guard(sending_);
    return UvcWriteControl(*camera_, *control_, RawValue(value));
}

} // namespace uvc
