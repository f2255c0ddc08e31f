// Product 0x8102: family A with a raw sensor whose images the driver converts.
#pragma once

#include "camera/camera_family_a.h"
#include "camera/colour_matrix_provider.h"
#include "camera/vendor_protocol.h"
#include "camera/white_balance_provider.h"

namespace uvc {

class CameraFamilyB : public CameraFamilyA {
  public:
    CameraFamilyB(PDEVICE_OBJECT device, FrameSink *sink);

    void Destroy(ULONG flags) override;
    // Reads the camera's description, allocates the colour samples and registers white balance and colour matrix.
    NTSTATUS CreateControls() override;
    NTSTATUS FinishFormats() override;
    void ConvertFrame(imaging::ImageDescriptor &destination, imaging::ImageDescriptor &source, ULONG flags) override;

  protected:
    ~CameraFamilyB() = default;

  private:
    CameraDescription description_{};
    PoolPointer<imaging::ColourSamples, pool_tag::Context> colourSamples_;
    WhiteBalanceProvider whiteBalance_{description_};
    ColourMatrixProvider colourMatrix_{description_};
};

} // namespace uvc
