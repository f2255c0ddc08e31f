// The walk of a pin through its states, one step at a time in either direction.
#include "host/streaming/clock.h"
#include "host/streaming/pin.h"
#include "host/streaming/rules.h"

namespace host::streaming {

namespace {

NTSTATUS Step(Pin &pin, KSSTATE to, KSSTATE from) {
    if (to > from && pin.device->gone)
        return STATUS_DEVICE_NOT_CONNECTED;
    const KSPIN_DISPATCH *dispatch = pin.Descriptor->Dispatch;
    if (dispatch == nullptr || dispatch->SetDeviceState == nullptr)
        return STATUS_SUCCESS;
    return CallDriver(CallbackKind::PinSetDeviceState, "pin set device state", nullptr, dispatch->SetDeviceState,
                      static_cast<PKSPIN>(&pin), to, from);
}

} // namespace

// A step up that the driver refuses ends the walk: the pin stays in the state it has reached. A step down cannot be
// refused, or a pin whose device fails could never be stopped: the walk goes on and the first failure is reported.
// Frames are accepted from before the first step up until after the last step down, which gives back what is left.
NTSTATUS Pin::SetState(KSSTATE target) {
    NTSTATUS result = STATUS_SUCCESS;
    while (DeviceState != target) {
        KSSTATE from = DeviceState;
        bool up = target > from;
        auto to = static_cast<KSSTATE>(from + (up ? 1 : -1));
        if (from == KSSTATE_STOP)
            queue.Open();
        NTSTATUS status = Step(*this, to, from);
        if (NT_SUCCESS(result))
            result = status;
        bool refused = up && !NT_SUCCESS(status);
        if (to == KSSTATE_STOP)
            queue.RequireNoPointers("pin stop");
        if (refused ? from == KSSTATE_STOP : to == KSSTATE_STOP)
            queue.Close();
        if (refused)
            break;
        DeviceState = to;
        state = to;
        if (clock != nullptr)
            clock->SetState(to);
    }
    ClientState = DeviceState;
    if (NT_SUCCESS(result) && DeviceState >= KSSTATE_PAUSE)
        AttemptProcessing(false);
    return result;
}

// `master` null: none. A running stream keeps its clock.
NTSTATUS Pin::SetMasterClock(Clock *master) {
    if (DeviceState == KSSTATE_RUN)
        return STATUS_INVALID_DEVICE_STATE;
    if (master != nullptr)
        master->AddRef();
    if (clock != nullptr)
        clock->Release();
    clock = master;
    return STATUS_SUCCESS;
}

} // namespace host::streaming
