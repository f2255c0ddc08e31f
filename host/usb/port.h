// One port of the bus and the device in it: the requests that wait for it and how they are carried out.
//
// Requests come in on any thread at up to DISPATCH_LEVEL. Only the bus thread talks to the device, and only it ends
// requests that are pending; it does so at DISPATCH_LEVEL, one at a time and with no lock held, as a host controller's
// deferred procedure call does. A cancel routine therefore only marks its request.
#pragma once

#include "host/usb/configuration.h"
#include "host/usb/plug_options.h"
#include "host/usb/request.h"
#include "host/usb/usb_device.h"

#include <atomic>
#include <memory>
#include <random>
#include <vector>

namespace host::usb {

class Port {
  public:
    // `bell` wakes the bus thread.
    Port(KEVENT &bell, PDEVICE_OBJECT pdo, std::shared_ptr<UsbDevice> device, PlugOptions options);

    PDEVICE_OBJECT Pdo() const { return pdo_; }
    bool IsHighSpeed() const { return isHighSpeed_; }
    ULONG Cycles() const { return cycles_; }

    // IOCTL_INTERNAL_USB_SUBMIT_URB. Completes the IRP or leaves it pending. IRQL: <= DISPATCH_LEVEL.
    NTSTATUS SubmitUrb(PIRP irp, PURB urb);

    // IOCTL_INTERNAL_USB_RESET_PORT and _CYCLE_PORT: likewise. IRQL: PASSIVE_LEVEL.
    NTSTATUS SubmitPortRequest(PIRP irp, ULONG controlCode);

    // The device is gone from here on: what waits and what comes later ends with USBD_STATUS_DEVICE_GONE.
    // IRQL: <= DISPATCH_LEVEL.
    void Depart();
    bool HasDeparted() const;

    // Returns once a departed device is never called again and nothing waits for it. Not on the bus thread.
    // IRQL: PASSIVE_LEVEL.
    void WaitUntilQuiet();

    // The device says that it may have data after all. IRQL: <= DISPATCH_LEVEL.
    void Wake();

    // The function driver has let go of the device: its handles die. When the device is gone too, any later request is
    // a violation. IRQL: <= DISPATCH_LEVEL.
    void Release();

    bool HasOutstanding() const;

    // Bus thread: carries out what can be carried out. False when nothing could; `next` is then lowered to the time
    // at which something can. IRQL: PASSIVE_LEVEL.
    bool Serve(Ticks now, Ticks &next);

  private:
    NTSTATUS Submit(Request request);
    USBD_STATUS Refusal(const URB &urb) const;

    // IRQL: DISPATCH_LEVEL. Lock: held.
    RequestQueue *QueueFor(const Request &request);
    template <class Visitor> void ForEachQueue(Visitor visit);
    void MakeCancellable(Request &request);
    bool Own(Request &request);
    void Pend(Request &request);
    void Admit(Request &request, Ticks now);
    void Abandon(Pipe &pipe);

    static VOID NTAPI CancelRoutine(PDEVICE_OBJECT pdo, PIRP irp);
    void MarkCancelled(PIRP irp);

    // The bus thread's, IRQL: PASSIVE_LEVEL.
    std::optional<Request> TakeHead(RequestQueue &queue, Ticks now, Ticks &next);
    void PutBack(RequestQueue &queue, Request request);
    bool FinishAll(RequestQueue &queue, USBD_STATUS status, bool *all = nullptr);
    bool FinishCancelled();
    void Finish(Request &request, USBD_STATUS status, std::size_t length = 0);
    void ForgetReleased();
    void AskPipesAgain();
    bool ServeManagement(Ticks now, Ticks &next);
    bool AbortPipe(Request &request, Ticks now);
    void Recall(Pipe &pipe, Ticks when);
    bool ServeControl(Ticks now, Ticks &next);
    bool ServePipe(Pipe &pipe, Ticks now, Ticks &next);
    bool Drain();
    void Disappear(Request &request);

    USBD_STATUS CarryOut(Request &request, Ticks now, std::size_t &length);
    USBD_STATUS ControlTransfer(Request &request, Ticks now, std::size_t &length);
    USBD_STATUS BulkTransfer(Request &request, Pipe &pipe, Ticks now, std::size_t &length);
    USBD_STATUS SelectConfiguration(_URB_SELECT_CONFIGURATION &request, Ticks now);
    USBD_STATUS SelectInterface(_URB_SELECT_INTERFACE &request, Ticks now);
    USBD_STATUS ResetPipe(const _URB_PIPE_REQUEST &request);
    USBD_STATUS ResetPort(Ticks now);
    bool SetConfiguration(UCHAR value, Ticks now);
    bool SetInterface(UCHAR interfaceNumber, UCHAR alternate, Ticks now);
    void ReplaceConfiguration(Configuration configuration);

    KEVENT &bell_;
    const PDEVICE_OBJECT pdo_;
    std::shared_ptr<UsbDevice> device_; // the bus thread's; null once it is gone and all is quiet
    const PlugOptions options_;
    const bool isHighSpeed_;
    KEVENT quiet_;
    std::atomic<bool> woken_{false};
    std::atomic<ULONG> cycles_{0};

    mutable KSPIN_LOCK lock_; // over what follows; the bus thread alone opens and closes pipes
    bool departed_ = false;
    bool released_ = false;     // until the bus thread has seen it; for ever when the device is gone
    bool anyCancelled_ = false; // spares the bus thread the search
    ULONG outstanding_ = 0;
    std::vector<PURB> inFlight_; // also those that the bus thread has taken out of their queue
    std::minstd_rand chance_;
    RequestQueue management_; // aborts and requests to the port: they do not wait for the wire
    RequestQueue control_;    // the default pipe
    RequestQueue leaving_;    // of closed pipes, with a cancel routine under way
    Configuration configuration_;
    HandleSource handles_;
};

// The extension of a device object that stands for the device in a port.
struct PdoExtension {
    Port *port;
};
inline Port &PortOf(PDEVICE_OBJECT pdo) {
    return *static_cast<PdoExtension *>(pdo->DeviceExtension)->port;
}

} // namespace host::usb
