// Products 0x8201 to 0x8207: raw sensors with vendor commands for streaming mode and frame rate. The leaves, one to a
// sensor, differ in these two and in which frames they offer.
#pragma once

#include "camera/colour_matrix_provider.h"
#include "camera/conversion_provider.h"
#include "camera/defect_provider.h"
#include "camera/exposure_provider.h"
#include "camera/focus_provider.h"
#include "camera/gain_provider.h"
#include "camera/region_provider.h"
#include "camera/trigger_provider.h"
#include "camera/uvc_camera.h"
#include "camera/vendor_protocol.h"
#include "camera/vendor_register_provider.h"
#include "camera/white_balance_provider.h"
#include "usb/work_item_tracker.h"

namespace uvc {

class CameraFamilyC : public UvcCamera {
  public:
    CameraFamilyC(PDEVICE_OBJECT device, FrameSink *sink);

    void Destroy(ULONG flags) override;
    void GetCameraInfo(CameraInfo &info) override;
    // Beside the generic parameters: 4 (get only, and not listed as supported) the firmware revision, 16 a switch, and
    // on colour cameras 14 the streaming mode of the next stream, 15 (get) the camera's description, 8 bytes as it sent
    // them, 19 (get) two numbers: 1 for a colour sensor, and its Bayer pattern. Cameras with a user-data store: 20
    // writes it, 21 loads it again, 22 prints it, 23 clears and loads it (all set). Cameras with a register block: 27,
    // register 0. The last five are listed as supported by cameras with a register block.
    bool IsParameterSupported(ULONG id) override;
    NTSTATUS SetParameter(ULONG id, ULONG value) override;
    NTSTATUS GetParameterBlock(ULONG id, const UCHAR *instance, ULONG instanceLength, UCHAR *data, ULONG length,
                               ULONG &information) override;
    NTSTATUS GetParameter(ULONG id, ULONG &value) override;
    // Applies the streaming mode at once.
    NTSTATUS OptionalOperation() override;
    // Reads the camera's description, firmware revision and user-data store, allocates the colour samples and registers
    // the family's providers.
    NTSTATUS CreateControls() override;
    // The family's work items may be queued from CreateWorker to ResetStreamState. Items take no stream mutex.
    NTSTATUS CreateWorker() override;
    void ResetStreamState() override;
    NTSTATUS BuildProbeRequest(const KS_VIDEOINFOHEADER &format, ProbeCommitBlock &block) override;
    // Sends the streaming mode and the rate that fits the format's interval best, and asks where the frame lies on the
    // sensor.
    void OnCommitted(const KS_VIDEOINFOHEADER &format) override;
    void FillImageParameters(const UCHAR *formatDescriptor, const UCHAR *frameDescriptor) override;
    NTSTATUS AddOtherFrame(const UCHAR *formatDescriptor, const UCHAR *frameDescriptor) override;
    NTSTATUS FinishFormats() override;
    ULONG TransferSize() override;
    void ConvertFrame(imaging::ImageDescriptor &destination, imaging::ImageDescriptor &source, ULONG flags) override;

    // Further operations of this family. IRQL: PASSIVE_LEVEL.

    // 28: puts the camera into its streaming mode. Lock: stream mutex held, but for parameter requests.
    virtual NTSTATUS ApplyStreamingMode();
    // 29: the intervals at a format's width, STATUS_NOT_IMPLEMENTED when the sensor has no list.
    virtual NTSTATUS GetFrameIntervals(const KS_VIDEOINFOHEADER &format, FrameIntervalList &list);
    // 30: sees every raw image before it is converted: the autofocus looks at it, with `statistics` (one of every
    // statisticsInterval_ frames) exposure, gain and white balance judge it, then defective pixels are corrected. What
    // the camera is to do about it is sent from work items. On the worker thread. Lock: none.
    virtual void ProcessRawFrame(imaging::ImageDescriptor &source, bool statistics);

  protected:
    ~CameraFamilyC() = default;

    NTSTATUS SendStreamingMode(UCHAR flags, USHORT mode, USHORT variant);

    // 1 for a colour sensor, else 0.
    ULONG CapabilityBit() const { return description_.colour ? 1 : 0; }

    ULONG streamingMode_ = 0;
    // In frames; 0 or 1 is every frame. The automatics judge a frame only when the settings they sent after the last
    // one show in it: sensor latency, two frames waiting for the worker and the work item make more than three frames.
    ULONG statisticsInterval_ = 4;

  private:
    NTSTATUS SendFrameRate(const KS_VIDEOINFOHEADER &format);
    NTSTATUS RegisterProviders();
    void JudgeFrame(const imaging::ImageDescriptor &source);

    CameraDescription description_{};
    ULONG firmwareRevision_ = 0;
    bool familySwitch_ = true;
    PoolPointer<imaging::ColourSamples, pool_tag::Context> colourSamples_;
    ULONG framesSinceStatistics_ = 0;
    ExposureProvider exposure_;
    GainProvider gain_;
    WhiteBalanceProvider whiteBalance_{description_};
    ColourMatrixProvider colourMatrix_{description_};
    ConversionProvider conversion_;
    RegionProvider region_;
    TriggerProvider trigger_;
    VendorRegisterProvider registers_{description_};
    FocusProvider focus_;
    DefectProvider defects_{description_};
    WorkItemTracker workItems_;
};

} // namespace uvc
