// A request that the bus holds: a URB, or one of the requests to a port.
#pragma once

#include "host/executive/fault_plan.h"
#include "host/usb/usb_device.h"
#include "platform/platform.h"

#include <deque>
#include <optional>

namespace host::usb {

// Where the dispatch routine of a request that is carried out synchronously waits for the bus thread.
struct Rendezvous {
    KEVENT event;
    bool pended = false; // the request turned out to take long and is pending after all
};

struct Request {
    PIRP irp = nullptr;
    PURB urb = nullptr;           // null: a request to the port
    ULONG controlCode = 0;        // of a request to the port
    Rendezvous *waiter = nullptr; // null: the IRP is pending
    bool cancelled = false;       // the cancel routine has been and gone; the bus thread completes it
    bool owned = false;           // no cancel routine any more: the bus thread has the last word
    bool admitted = false;        // the fault plan has been asked
    bool aborted = false; // a transfer that ends as cancelled when its time has come; an abort that has done its work
    std::optional<TransferFault> fault;
    Ticks notBefore = 0; // a delayed request; a hung one waits for ever
};

using RequestQueue = std::deque<Request>;

} // namespace host::usb
