// Family C by sensor.
#pragma once

#include "camera/camera_family_c.h"

namespace uvc {

// Products 0x8201 and 0x8202.
class CameraFamilyC1 : public CameraFamilyC {
  public:
    using CameraFamilyC::CameraFamilyC;
    NTSTATUS ApplyStreamingMode() override;
    NTSTATUS GetFrameIntervals(const KS_VIDEOINFOHEADER &format, FrameIntervalList &list) override;
};

// Product 0x8203. Other widths than 2048 and 1024 have no rates: STATUS_INVALID_PARAMETER.
class CameraFamilyC2 : public CameraFamilyC {
  public:
    using CameraFamilyC::CameraFamilyC;
    NTSTATUS ApplyStreamingMode() override;
    NTSTATUS GetFrameIntervals(const KS_VIDEOINFOHEADER &format, FrameIntervalList &list) override;
};

// Product 0x8204. Offers the sensor's first frame-based frame only.
class CameraFamilyC3 : public CameraFamilyC {
  public:
    using CameraFamilyC::CameraFamilyC;
    NTSTATUS AddOtherFrame(const UCHAR *formatDescriptor, const UCHAR *frameDescriptor) override;
    NTSTATUS ApplyStreamingMode() override;
    NTSTATUS GetFrameIntervals(const KS_VIDEOINFOHEADER &format, FrameIntervalList &list) override;
};

// Product 0x8205.
class CameraFamilyC4 : public CameraFamilyC {
  public:
    using CameraFamilyC::CameraFamilyC;
    NTSTATUS ApplyStreamingMode() override;
    NTSTATUS GetFrameIntervals(const KS_VIDEOINFOHEADER &format, FrameIntervalList &list) override;
};

// Product 0x8206.
class CameraFamilyC5 : public CameraFamilyC {
  public:
    using CameraFamilyC::CameraFamilyC;
    NTSTATUS ApplyStreamingMode() override;
    NTSTATUS GetFrameIntervals(const KS_VIDEOINFOHEADER &format, FrameIntervalList &list) override;
};

// Product 0x8207.
class CameraFamilyC6 : public CameraFamilyC {
  public:
    using CameraFamilyC::CameraFamilyC;
    NTSTATUS ApplyStreamingMode() override;
};

} // namespace uvc
