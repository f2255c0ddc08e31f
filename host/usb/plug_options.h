// How a device is plugged in.
#pragma once

#include "platform/platform.h"

#include <cstdint>
#include <functional>

namespace host::usb {

struct PlugOptions {
    // What every pipe tells. 0 and USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE, as newer systems have it, tell nothing:
    // transfers of any length are taken.
    ULONG maximumTransferSize = 0x400000;
    bool withoutBandwidth = false; // the bus refuses configurations with USBD_STATUS_NO_BANDWIDTH

    // 0: every control request pends, as with a real controller. Else the seed by which some of those sent at
    // PASSIVE_LEVEL complete before the driver's call returns.
    std::uint32_t synchronousSeed = 0;

    // Called on the bus thread, at PASSIVE_LEVEL; they may not wait for the bus. The device disappeared of itself; the
    // client asked for a port cycle: the owner then removes the device stack, and plugs in again, on another thread.
    std::function<void(PDEVICE_OBJECT)> onGone;
    std::function<void(PDEVICE_OBJECT)> onCyclePort;
};

} // namespace host::usb
