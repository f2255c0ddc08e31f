#include "camera/camera_family_b.h"

namespace uvc {

CameraFamilyB::CameraFamilyB(PDEVICE_OBJECT device, FrameSink *sink) : CameraFamilyA(device, sink) {
    stream.workerMode = true;
}

void CameraFamilyB::Destroy(ULONG flags) {
    this->CameraFamilyB::~CameraFamilyB();
    Release(this, flags);
}

NTSTATUS CameraFamilyB::CreateControls() {
    NTSTATUS status = CameraFamilyA::CreateControls();
    if (NT_SUCCESS(status))
        status = VendorReadDescription(*this, description_);
    if (!NT_SUCCESS(status))
        return status;
    colourSamples_ = decltype(colourSamples_)::AllocateArray(NonPagedPool, kColourSampleBytes);
    return colourSamples_ ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

NTSTATUS CameraFamilyB::FinishFormats() {
    return AddConvertedFormats(description_.colour);
}

// A colour camera of this family applies its gains even where they are switched off.
void CameraFamilyB::ConvertFrame(imaging::ImageDescriptor &destination, imaging::ImageDescriptor &source, ULONG flags) {
    if (description_.colour) {
        LabelSource(destination, description_.pattern, source);
        flags |= imaging::kApplyGains;
    }
    ConvertImage(destination, source, description_.colour, correction_, flags);
}

} // namespace uvc
