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
    const LONG before = InterlockedExchange(&value_, value);
    if (InterlockedExchange(&state_, kAsked) != kIdle) // the item that is there will see the value
        return STATUS_SUCCESS;
    NTSTATUS status = WorkItemQueue(tracker, Run, this, 0);
    if (!NT_SUCCESS(status)) {
        InterlockedExchange(&state_, kIdle);
        InterlockedCompareExchange(&value_, before, value); // not for whoever sends next
    }
    return status;
}

void ControlCommand::Run(PDEVICE_OBJECT, void *context) {
    auto &command = *static_cast<ControlCommand *>(context);
    do {
        InterlockedExchange(&command.state_, kSending); // before the value is read: a later one is another round
        MutexGuard guard(command.sending_);
        // A camera that refuses stays as it is; the next frames tell what that looks like.
        if (command.enabled_ == nullptr || SharedLoad(*command.enabled_))
            static_cast<void>(command.SendNewest());
    } while (InterlockedCompareExchange(&command.state_, kIdle, kSending) != kSending);
}

NTSTATUS ControlCommand::Send(LONG value) {
    if (control_ == nullptr)
        return STATUS_NOT_IMPLEMENTED;
    InterlockedExchange(&value_, value);
    MutexGuard guard(sending_);
    return SendNewest();
}

// Every value that was stored is followed by a sending of the newest, so the camera ends with that one.
NTSTATUS ControlCommand::SendNewest() {
    NTSTATUS status = UvcWriteControl(*camera_, *control_, RawValue(SharedLoad(value_)));
    SharedStore(failed_, !NT_SUCCESS(status));
    return status;
}

bool ControlCommand::Failed() const {
    return SharedLoad(failed_);
}

} // namespace uvc
