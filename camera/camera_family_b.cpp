#include "camera/camera_family_b.h"

#include "camera/colour_correction.h"

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
    colourSamples_ = decltype(colourSamples_)::Allocate(NonPagedPool);
    if (!colourSamples_)
        return STATUS_INSUFFICIENT_RESOURCES;
    status = RegisterProvider(whiteBalance_);
    return NT_SUCCESS(status) ? RegisterProvider(colourMatrix_) : status;
}

NTSTATUS CameraFamilyB::FinishFormats() {
    return AddConvertedFormats(description_.colour);
}

// A colour camera of this family applies its gains even where they are switched off.
void CameraFamilyB::ConvertFrame(imaging::ImageDescriptor &destination, imaging::ImageDescriptor &source, ULONG flags) {
    const bool colour = description_.colour;
    ColourCorrection correction{.matrixEnabled = colourMatrix_.Enabled(), .gainsEnabled = colour};
    colourMatrix_.ReadMatrix(correction.matrix);
    if (colour) {
        LabelSource(destination, colourMatrix_.Pattern(), source);
        // The cameras of this family expose by themselves: nobody asks how bright the frame was.
        std::uint32_t brightness;
        static_cast<void>(whiteBalance_.Judge(source, correction.matrixEnabled ? &correction.matrix : nullptr,
                                              *colourSamples_, brightness));
    }
    correction.gains = whiteBalance_.Gains();
    ConvertImage(destination, source, colour, correction, flags);
}

} // namespace uvc
