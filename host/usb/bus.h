// The USB bus of the runtime: hub and host controller in one. It owns the physical device objects of what is plugged in
// and a thread that stands for the controller.
//
// How transfers end, as the pair of USBD status in the URB and NTSTATUS of the IRP:
//   stall            USBD_STATUS_STALL_PID             STATUS_UNSUCCESSFUL
//   babble           USBD_STATUS_BABBLE_DETECTED       STATUS_UNSUCCESSFUL
//   halted endpoint  USBD_STATUS_ENDPOINT_HALTED       STATUS_UNSUCCESSFUL      after a stall or babble, until a reset
//   reset while busy USBD_STATUS_ERROR_BUSY            STATUS_UNSUCCESSFUL      the pipe still has transfers
//   cancelled        USBD_STATUS_CANCELED              STATUS_CANCELLED         or aborted, or the pipe was closed
//   unplugged        USBD_STATUS_DEVICE_GONE           STATUS_DEVICE_NOT_CONNECTED
//   bad handle       USBD_STATUS_INVALID_PIPE_HANDLE   STATUS_INVALID_PARAMETER
//   bad request      USBD_STATUS_INVALID_URB_FUNCTION, USBD_STATUS_INVALID_PARAMETER     STATUS_INVALID_PARAMETER
// A short control transfer succeeds; a short bulk transfer without USBD_SHORT_TRANSFER_OK is
// USBD_STATUS_ERROR_SHORT_TRANSFER.
#pragma once

#include "host/executive/runtime.h"
#include "host/usb/plug_options.h"
#include "host/usb/usb_device.h"

#include <memory>
#include <string>
#include <vector>

namespace host::usb {

class Port;

class Bus {
  public:
    // Needs a live Runtime and must go before it.
    Bus();
    // Everything must have been removed: a driver that still sits on a device, or a request in flight, is a violation.
    ~Bus();
    Bus(const Bus &) = delete;
    Bus &operator=(const Bus &) = delete;

    // Resets the device, reads who it is and reports it to plug and play. The caller starts a driver on it
    // (StartDeviceStack). The same device in the same port comes back under the same instance path. Null when there is
    // no device object to be had. IRQL: PASSIVE_LEVEL.
    PDEVICE_OBJECT Plug(std::shared_ptr<UsbDevice> device, PlugOptions options = {});

    // The device is gone. When this returns it is not called any more and no request waits for it. The caller then
    // removes the stack (RemoveDeviceStack with surprise). Unknown ones and second calls are ignored, so that it may
    // follow PlugOptions::onGone. The device object itself stays until the bus goes, so that a late caller finds it
    // gone rather than freed. IRQL: PASSIVE_LEVEL, not on the bus thread.
    void Unplug(PDEVICE_OBJECT pdo);

    // False from the moment on at which the device's transfers fail because it is gone. IRQL: <= DISPATCH_LEVEL.
    bool IsPlugged(PDEVICE_OBJECT pdo) const;

    struct Identity {
        USHORT vendor = 0; // 0 and product 2: the device did not say
        USHORT product = 2;
        std::u16string instancePath; // USB\VID_xxxx&PID_xxxx\<serial number, or a text made from the port>
    };
    const Identity &IdentityOf(PDEVICE_OBJECT pdo) const;

    // How many port cycles the device's driver has asked for.
    ULONG PortCycles(PDEVICE_OBJECT pdo) const;

  private:
    struct Slot {
        std::unique_ptr<Port> port;
        ULONG number; // of the socket
        Identity identity;
    };
    struct WakeGate;

    const Slot *Find(PDEVICE_OBJECT pdo) const;
    ULONG FreeNumber() const;
    Identity Identify(UsbDevice &device, ULONG number) const;
    void Run();

    KEVENT bell_;
    std::shared_ptr<WakeGate> gate_;
    PDRIVER_OBJECT driver_ = nullptr;
    mutable KSPIN_LOCK lock_; // over the two below
    bool stopping_ = false;
    // Ports stay to the end, also those of devices long gone: a bus interface may still point at one.
    std::vector<std::unique_ptr<Slot>> slots_;
    std::unique_ptr<AttachedThread> thread_;
};

} // namespace host::usb
