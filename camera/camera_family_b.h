// Product 0x8102: family A with a raw sensor whose images the driver converts.
#pragma once

#include "camera/camera_family_a.h"
#include "camera/colour_correction.h"
#include "camera/vendor_protocol.h"

namespace uvc {

class CameraFamilyB : public CameraFamilyA {
  public:
    CameraFamilyB(PDEVICE_OBJECT device, FrameSink *sink);

    void Destroy(ULONG flags) override;
    // Reads the camera's description and allocates the colour samples.
    NTSTATUS CreateControls() override;
    NTSTATUS FinishFormats() override;
    void ConvertFrame(imaging::ImageDescriptor &destination, imaging::ImageDescriptor &source, ULONG flags) override;

  protected:
    ~CameraFamilyB() = default;

  private:
    CameraDescription description_{};
    ColourCorrection correction_;
    PoolPointer<UCHAR, pool_tag::Context> colourSamples_;
};

} // namespace uvc
