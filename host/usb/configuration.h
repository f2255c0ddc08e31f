// What a client has configured: the interfaces of the selected configuration and the pipes that are open on them.
#pragma once

#include "host/usb/request.h"

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

namespace host::usb {

struct Pipe {
    USBD_PIPE_HANDLE handle = nullptr;
    UCHAR interfaceNumber = 0;
    UCHAR endpoint = 0;
    UCHAR interval = 0;
    USHORT maximumPacketSize = 0;
    USBD_PIPE_TYPE type = UsbdPipeTypeBulk;
    ULONG maximumTransferSize = 0;

    bool halted = false;
    Ticks askAgain = 0; // the device has nothing before this time
    RequestQueue queue;
};
using PipeList = std::vector<std::unique_ptr<Pipe>>;

// Handles are numbers that are never given out twice, so that a stale one is always recognised.
class HandleSource {
  public:
    PVOID Next() { return reinterpret_cast<PVOID>(next_ += 0x10); }

  private:
    std::uintptr_t next_ = 0x5553'0000;
};

struct Configuration {
    USBD_CONFIGURATION_HANDLE handle = nullptr; // null: not configured
    std::vector<std::uint8_t> descriptor;       // as the client passed it
    std::map<UCHAR, UCHAR> alternates;          // the selected setting by interface number
    PipeList pipes;

    Pipe *FindPipe(USBD_PIPE_HANDLE pipe) const;
};

// Opens the pipes of the interface and setting that `information` names, appends them to `pipes` and fills the
// information. `room` is how many bytes the URB has for it. USBD_STATUS_BUFFER_TOO_SMALL when the pipes do not fit,
// USBD_STATUS_INTERFACE_NOT_FOUND, or USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR when endpoints are missing.
USBD_STATUS OpenInterface(const std::vector<std::uint8_t> &descriptor, USBD_INTERFACE_INFORMATION &information,
                          std::size_t room, ULONG maximumTransferSize, HandleSource &handles, PipeList &pipes);

} // namespace host::usb
