// Clocks: the default clock that an application opens on a pin, and the interface through which a driver reads the
// master clock of its pin.
#pragma once

#include "host/streaming/object.h"

#include <span>

namespace host::streaming {

struct Pin;

// A default clock. ks.sys makes one for a pin that implements a clock; the model gives one to every
// pin, so that an application needs no second device to pace a graph (on Windows it would take a renderer's or the
// system's). The clock can be made the master of any pin and then follows that pin's state: its time is the stream
// time, which runs while the state is KSSTATE_RUN, stands still in KSSTATE_PAUSE and begins again at 0 after
// KSSTATE_STOP. All times are in 100 ns units.
struct Clock : Object {
    static constexpr ObjectKind kKind = ObjectKind::Clock;

    LONG references; // its file, the pins whose master it is, the driver's interfaces to it
    KSPIN_LOCK lock;
    KSSTATE state;
    LONGLONG base;    // stream time when it last began to run
    LONGLONG started; // system ticks then

    // IRP_MJ_CREATE under a pin: `parameters` are a KSCLOCK_CREATE. The file's reference is released when it closes.
    static NTSTATUS Open(Pin &pin, PIRP irp, std::span<const UCHAR> parameters);
    void AddRef() { InterlockedIncrement(&references); }
    void Release();

    // IRQL of these: DISPATCH_LEVEL.
    void SetState(KSSTATE to);
    KSSTATE State();
    KSCORRELATED_TIME Now();

    // The clock behind a file, or null when the file is none of this model's clocks.
    static Clock *FromFile(PFILE_OBJECT file);
};

// IOCTL_KS_PROPERTY on a clock; does not complete the request.
NTSTATUS ClockProperty(PIRP irp);

} // namespace host::streaming
