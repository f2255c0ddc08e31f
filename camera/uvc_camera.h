// The camera object: everything the driver knows about the attached camera, behind 28 operations that the families
// override. This is also the one header through which usb/ sees the camera.
#pragma once

#include "camera/control.h"
#include "camera/descriptor_block.h"
#include "camera/frame_interval.h"
#include "imaging/image.h"
#include "platform/pool.h"
#include "usb/device_link.h"
#include "usb/frame_sink.h"
#include "usb/stream.h"
#include "usb/video_format.h"

namespace uvc {

// Answer of GetCameraInfo: 424 bytes, three texts and ten numbers.
struct CameraInfo {
    char product[128];
    char manufacturer[128];
    char serialText[128];
    ULONG informationKind; // 0 generic, 6 once a family has answered
    ULONG vendorId;
    ULONG productId;
    ULONG sensorCode;  // 4: "YUY2" is offered, 2: "BY8 ", 1: neither
    ULONGLONG serial;  // the serial text read as a hexadecimal number
    ULONGLONG version; // upper half: firmware revision
    ULONG reserved[2];
};
static_assert(sizeof(CameraInfo) == 424);

// Driver parameters (ids of the private parameter set) that live in the camera object.
struct CameraParameters {
    bool statisticsOverlay = false; // 1
    bool discardIncomplete = true;  // 2
    ULONG transferCount = 6;        // 10, used without a range check
    LONG controlTimeoutMs = 1000;   // 12; negative counts as 1000
    bool measureFrameRate = true;   // 17
    bool zeroBuffers = false;       // 18
    ULONG processorMask = 0;        // 26: features the conversion kernels may use
    bool forceNegotiation = false;  // probe and commit even when the camera is in the wanted state
};

class UvcCamera {
  public:
    UvcCamera(PDEVICE_OBJECT device, FrameSink *sink);
    UvcCamera(const UvcCamera &) = delete;
    UvcCamera &operator=(const UvcCamera &) = delete;

    // Configures the device, reads its descriptors and builds controls and formats. Starts from empty lists, so it may
    // run again. On failure the caller destroys the object. IRQL: PASSIVE_LEVEL.
    NTSTATUS Initialise();

    // The operations, in slot order. IRQL: PASSIVE_LEVEL unless noted.
    virtual void Destroy(ULONG flags);                                       // 0; bit 0: free
    virtual void GetCameraInfo(CameraInfo &info);                            // 1
    virtual bool IsParameterSupported(ULONG id);                             // 2
    virtual NTSTATUS SetParameterBlock(ULONG id, UCHAR *data, ULONG length); // 3
    virtual NTSTATUS SetParameter(ULONG id, ULONG value);                    // 4
    virtual NTSTATUS GetParameterBlock(ULONG id, const UCHAR *instance, ULONG instanceLength, UCHAR *data, ULONG length,
                                       ULONG &information);                                             // 5
    virtual NTSTATUS GetParameter(ULONG id, ULONG &value);                                              // 6
    virtual NTSTATUS OptionalOperation();                                                               // 7
    virtual bool ItemExists(ULONG set, ULONG id);                                                       // 8
    virtual PropertyProvider *FindOwner(ULONG set, ULONG id);                                           // 9
    virtual NTSTATUS GetControl(ULONG set, ULONG id, ULONG kind, void *buffer, ULONG length);           // 10
    virtual NTSTATUS SetControl(ULONG set, ULONG id, ULONG kind, void *buffer, ULONG length);           // 11
    virtual NTSTATUS CreateControls();                                                                  // 12
    virtual NTSTATUS CreateWorker();                                                                    // 13
    virtual void ResetStreamState();                                                                    // 14
    virtual NTSTATUS BuildProbeRequest(const KS_VIDEOINFOHEADER &format, ProbeCommitBlock &block);      // 15
    virtual NTSTATUS CheckProbeResult(const ProbeCommitBlock &asked, const ProbeCommitBlock &got);      // 16
    virtual void OnCommitted(const KS_VIDEOINFOHEADER &format);                                         // 17
    virtual void FillImageParameters(const UCHAR *formatDescriptor, const UCHAR *frameDescriptor);      // 18
    virtual NTSTATUS AddUncompressedFrame(const UCHAR *formatDescriptor, const UCHAR *frameDescriptor); // 19
    virtual NTSTATUS AddOtherFrame(const UCHAR *formatDescriptor, const UCHAR *frameDescriptor);        // 20
    virtual NTSTATUS FinishFormats();                                                                   // 21
    virtual ULONG TransferSize();                                                                       // 22
    virtual const ControlItem *FindItem(ULONG set, ULONG id);                                           // 23
    // Converts a sensor image into an output frame. IRQL: PASSIVE_LEVEL, on the worker thread. Lock: none.
    virtual void ConvertFrame(imaging::ImageDescriptor &destination, imaging::ImageDescriptor &source,
                              ULONG flags); // 24
    // Output frames. IRQL: <= DISPATCH_LEVEL.
    virtual void GetOutputFrame(FrameRecord &record);          // 25
    virtual void CompleteFrame(FrameRecord &record);           // 26
    virtual void DropFrame(FrameRecord &record, bool release); // 27

    // The intervals of a stream format, in 100 ns: at most `room` are stored (none with room 0) and `count` becomes how
    // many were stored, or how many there are with room 0. STATUS_INVALID_PARAMETER for a range index or dimensions
    // that the list does not have.
    NTSTATUS QueryFrameIntervals(ULONG rangeIndex, LONG width, LONG height, LONGLONG *intervals, ULONG room,
                                 ULONG &count);

    // Draws the three statistics lines into a finished frame when the overlay is on and the buffer holds the picture.
    // IRQL: <= DISPATCH_LEVEL.
    void DrawStatistics(const FrameRecord &frame);

    // Owned by the device context.
    FrameSink *const sink;

    // Owned by the device context: the camera of the start before.
    UvcCamera *earlier = nullptr;

    // On whose behalf work items run: the system keeps the driver of this object loaded until they have returned. The
    // device context puts the driver's own device object here; requests go to the link's lower device.
    PDEVICE_OBJECT workItemDevice;

    // Set once the format list is valid.
    bool formatsReady = false;
    GrowableArray<FormatRecord> formats;

    CameraParameters parameters;
    StreamState stream;

    // Null when the pool was exhausted at construction.
    UsbDeviceLink *link = nullptr;
    PoolPointer<DescriptorBlock, pool_tag::Context> descriptors; // paged
    UvcControlTable controls;

    // The two text lines of the overlay: the driver's banner, and "firmware_rev=%d" or nothing.
    char bannerText[128] = {};
    char infoText[128] = {};

    // Attaches a provider of this camera and asks it for items before those that are registered already. A provider
    // that cannot be attached is left out; only STATUS_INSUFFICIENT_RESOURCES is a failure. IRQL: PASSIVE_LEVEL.
    NTSTATUS RegisterProvider(PropertyProvider &provider);

  protected:
    ~UvcCamera();

    // The end of Destroy: gives the block of a destroyed camera back to the pool when bit 0 of the flags is set.
    static void Release(void *camera, ULONG flags);

    // The rest of GetCameraInfo for the families: information kind, firmware revision, sensor code.
    void FillFamilyInfo(CameraInfo &info);

    // Appends one record for a frame descriptor as it stands, at `bitsPerPixel` where that is not 0. A descriptor that
    // says nothing usable is STATUS_INVALID_PARAMETER.
    NTSTATUS AddSensorFrame(const UCHAR *formatDescriptor, const UCHAR *frameDescriptor, USHORT bitsPerPixel);

    // Appends what the conversion makes of each 8-bit sensor record and the list does not have in that size: RGB32,
    // RGB24 and "Y800".
    NTSTATUS AddConvertedFormats(bool colour);

    bool HasFormat(const GUID &subtype) const;
    bool HasFormat(const GUID &subtype, LONG width, LONG height) const;

    UCHAR familyFlag_ = 0; // 1 once CameraFamilyA has constructed

    // Where a family knows the sensor's intervals better than the descriptors do.
    using IntervalQuery = NTSTATUS (*)(UvcCamera &camera, const KS_VIDEOINFOHEADER &format, FrameIntervalList &list);
    IntervalQuery intervalQuery_ = nullptr;

  private:
    NTSTATUS HandleControl(ControlHandler ControlItem::*handler, ULONG set, ULONG id, ULONG kind, void *buffer,
                           ULONG length);
    NTSTATUS BuildFormatList();
    NTSTATUS AddDescribedFrames();
    void ReadFirmwareRevision();

    GrowableArray<PropertyProvider *> providers_; // the camera's own members
};

// Constructs the object in a block of pool; null without memory. The factory of the model table's rows.
template <class Camera> UvcCamera *MakeCamera(PDEVICE_OBJECT device, FrameSink *sink) {
    void *block = PoolAllocateZeroed(NonPagedPool, sizeof(Camera), pool_tag::Context);
    return block == nullptr ? nullptr : new (PlaceInPool{block}) Camera(device, sink);
}

} // namespace uvc
