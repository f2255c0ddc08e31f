// The rate at which frames are delivered, for the statistics overlay.
#pragma once

#include "platform/platform.h"

namespace uvc {

// Written by whoever ends a frame and by the start of the transfers, read by the overlay: single fields without a lock.
struct FrameRate {
    LONGLONG startTime; // performance counter
    ULONG deliveredAtStart;
    ULONG periodMs;            // a measurement takes more than this
    ULONG hundredths;          // frames per second x 100
    LONGLONG counterFrequency; // read once
};

// Defaults: a period of 3000 ms. IRQL: <= DISPATCH_LEVEL.
void FrameRateInitialise(FrameRate &rate);

// Forgets the rate and begins a measurement at `delivered` frames. IRQL: <= DISPATCH_LEVEL.
void FrameRateRestart(FrameRate &rate, ULONG delivered);

// Takes the rate and begins anew once the period is over. IRQL: <= DISPATCH_LEVEL.
void FrameRateUpdate(FrameRate &rate, ULONG delivered);

} // namespace uvc
