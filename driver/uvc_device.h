// The per-device context: one for every camera that the plug-and-play manager hands to the driver.
//
//   created  -> Add made the context; no camera, no filter factory
//   started  -> camera built, per-device descriptors built, filter factory "GLOBAL" registered
//   stopped  -> the class driver dropped the factory; everything else stays, a restart builds a further camera
//   removed  -> the class driver emptied the device's object bag, which destroys the context
#pragma once

#include "driver/allocation_list.h"
#include "usb/frame_sink.h"
#include "usb/rundown.h"

namespace uvc {

class CapturePin;
class UvcCamera;

class UvcDevice final : public FrameSink {
  public:
    // KSDEVICE_DISPATCH::Add: makes the context and ties it to the device. STATUS_INSUFFICIENT_RESOURCES, or the status
    // of the object bag. IRQL: PASSIVE_LEVEL. Lock: takes the device mutex.
    static NTSTATUS Add(KSDEVICE *device);

    static UvcDevice *From(KSDEVICE *device) { return static_cast<UvcDevice *>(device->Context); }

    // The start sequence; nothing to do on a device that is started already. IRQL: PASSIVE_LEVEL. Lock: takes the
    // device mutex for the filter factory.
    NTSTATUS Start();

    // The camera, for one use that LeaveCamera ends; null while there is none. A restart waits for uses under way and
    // keeps others out until the next camera is ready. IRQL: PASSIVE_LEVEL. Lock: none that a start takes.
    UvcCamera *EnterCamera();
    void LeaveCamera();

    // FrameSink: both go to the connected pin, unconditionally. The transport calls them only while a pin holds the
    // claim; the pin stops the stream before it drops the claim.
    void CompleteFrame(KSSTREAM_POINTER *frame, NTSTATUS status) override;
    KSSTREAM_POINTER *AcquireFrame() override;

    KSDEVICE *device;
    LONG pinClaim; // 1 while a pin owns the camera; interlocked operations only
    CapturePin *pin;
    KS_VIDEOINFOHEADER *format; // the connected pin's format copy
    UvcCamera
        *camera; // published; null unless the last start found and initialised one; published to property requests
    AllocationList allocations;
    KSPIN_LOCK pinLock; // over `pin` and what the pin holds while it is connected, against requests at other filters

  private:
    explicit UvcDevice(KSDEVICE *ksDevice) : device(ksDevice) {}

    static void Free(void *context);
    UvcCamera *IdentifyCamera();
    void StoreNames(const USB_DEVICE_DESCRIPTOR &descriptor);
    UvcCamera *Withdraw();
    void Retire();

    Rundown cameraUses_;

    // The cameras of earlier starts, the newest first. A start replaces the camera without destroying it, since the
    // memory of a start is reclaimed only when the device goes.
    UvcCamera *earlierCameras_ = nullptr;
};

// One use of the device's camera, as long as the scope.
class CameraUse {
  public:
    explicit CameraUse(UvcDevice &device) : device_(device), camera_(device.EnterCamera()) {}
    ~CameraUse() {
        if (camera_ != nullptr)
            device_.LeaveCamera();
    }
    CameraUse(const CameraUse &) = delete;
    CameraUse &operator=(const CameraUse &) = delete;

    explicit operator bool() const { return camera_ != nullptr; }
    UvcCamera &operator*() const { return *camera_; }

  private:
    UvcDevice &device_;
    UvcCamera *const camera_;
};

} // namespace uvc
