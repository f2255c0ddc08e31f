// Product 0x8101: a UVC camera with a few vendor settings. Its images go to the application as they come.
#pragma once

#include "camera/family_a_controls.h"
#include "camera/uvc_camera.h"

namespace uvc {

class CameraFamilyA : public UvcCamera {
  public:
    CameraFamilyA(PDEVICE_OBJECT device, FrameSink *sink);

    void Destroy(ULONG flags) override;
    void GetCameraInfo(CameraInfo &info) override;
    // Beside the generic parameters: 3 (set) restart into the loader, 4 (get) firmware revision, 5 (get) device status,
    // 11 (set) user register.
    bool IsParameterSupported(ULONG id) override;
    NTSTATUS SetParameter(ULONG id, ULONG value) override;
    NTSTATUS GetParameter(ULONG id, ULONG &value) override;
    NTSTATUS CreateControls() override;

  protected:
    ~CameraFamilyA();

  private:
    StatelessProvider familyProviders_[kFamilyAProviders];
};

} // namespace uvc
