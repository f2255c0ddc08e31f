// I/O request packets: who owns each one, and whether the rules of its life are kept.
#pragma once

#include "host/executive/place.h"
#include "host/executive/runtime.h"

#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace host {

enum class IrpOrigin {
    Driver,   // IoAllocateIrp: its owner takes it back in a completion routine
    InPlace,  // IoInitializeIrp on the owner's memory: as Driver
    Threaded, // IoBuildDeviceIoControlRequest and its like: the I/O manager finishes and frees it
    Manager,  // made by the I/O or PnP manager itself
};

class IrpTable {
  public:
    ~IrpTable();

    PIRP Allocate(CCHAR stackSize, IrpOrigin origin, Place place);
    void InitialiseInPlace(PIRP irp, USHORT size, CCHAR stackSize, Place place);
    void Reuse(PIRP irp, NTSTATUS status);
    void Free(PIRP irp, const char *routine);
    void Abandon(PIRP irp); // a manager's, never sent

    // For a request of the managers: takes the result from the complete IRP, and returns what tells the requestor,
    // which is done after the IRP is gone. So nobody can wake up and still find it.
    using Finisher = std::function<std::function<void()>(PIRP)>;
    void OnFinish(PIRP irp, Finisher finish);

    NTSTATUS Call(PDEVICE_OBJECT device, PIRP irp);
    void Complete(PIRP irp);
    bool Cancel(PIRP irp);
    // The same for whoever only remembers the IRP's address: one that has been completed meanwhile is left alone.
    void CancelIfAlive(PIRP irp);

    void CheckFreed(const void *begin, std::size_t size, const char *routine);
    std::string Leaks();

  private:
    // One call of a dispatch routine. Its return value and the completion of its stack location come in either order;
    // the later of the two is held against the earlier.
    struct DispatchCall {
        PDEVICE_OBJECT device = nullptr;
        UCHAR major = 0;
        bool returned = false, completed = false;
        NTSTATUS returnedStatus = 0, completedStatus = 0;
        bool markedPending = false;
    };
    struct Record {
        IrpOrigin origin;
        Place place;
        std::uint64_t generation;
        bool inFlight = false;
        int cancels = 0;                                                 // calls of IoCancelIrp that look at it now
        bool finished = false;                                           // the last of them discards it
        std::map<int, std::vector<std::shared_ptr<DispatchCall>>> calls; // by stack location
        Finisher finish;
    };

    Record &Find(PIRP irp, const char *routine);
    static void Judge(const DispatchCall &call);
    void CompleteLocation(PIRP irp, int location, bool markedPending);
    void Finish(PIRP irp);
    void Discard(PIRP irp);
    void EndCancel(PIRP irp);

    std::mutex mutex_;
    std::map<PIRP, Record> irps_;
    std::uint64_t generation_ = 0;
    std::deque<PIRP> quarantine_; // freed; their addresses are not used again soon
};

} // namespace host
