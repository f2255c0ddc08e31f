#include "camera/camera_family_c.h"

#include "camera/colour_correction.h"
#include "camera/descriptor_parser.h"
#include "camera/parameter.h"
#include "imaging/brightness.h"
#include "platform/shared_field.h"

namespace uvc {

namespace {

// The firmware negotiates one interval for all; the rate is set by vendor command.
constexpr ULONG kNegotiatedInterval = 333333;

constexpr ULONG kLargestPayloadHeader = 12;

constexpr USHORT kRawBits = 8;

bool IsRaw(const GUID &subtype) {
    return subtype == kSubtypeBy8 || subtype == kSubtypeY800;
}

// Of any two numbers: the one that an application names is not checked.
ULONGLONG Distance(LONGLONG a, LONGLONG b) {
    const auto difference = static_cast<ULONGLONG>(a) - static_cast<ULONGLONG>(b);
    return a < b ? 0 - difference : difference;
}

} // namespace

CameraFamilyC::CameraFamilyC(PDEVICE_OBJECT device, FrameSink *sink) : UvcCamera(device, sink) {
    stream.workerMode = true;
    WorkItemTrackerInitialise(workItems_, device);
    intervalQuery_ = [](UvcCamera &camera, const KS_VIDEOINFOHEADER &format, FrameIntervalList &list) {
        return static_cast<CameraFamilyC &>(camera).GetFrameIntervals(format, list);
    };
}

// The leaves have nothing of their own to destroy.
void CameraFamilyC::Destroy(ULONG flags) {
    this->CameraFamilyC::~CameraFamilyC();
    Release(this, flags);
}

void CameraFamilyC::GetCameraInfo(CameraInfo &info) {
    UvcCamera::GetCameraInfo(info);
    FillFamilyInfo(info);
}

bool CameraFamilyC::IsParameterSupported(ULONG id) {
    switch (id) {
    case kStreamingModeParameter:
    case kCameraDescriptionParameter:
    case kSensorColoursParameter:
        return description_.colour;
    case kFamilySwitchParameter:
        return true;
    case kWriteUserDataParameter:
    case kLoadUserDataParameter:
    case kDumpUserDataParameter:
    case kClearUserDataParameter:
    case kVendorRegisterParameter:
        return description_.registerBlock;
    default:
        return UvcCamera::IsParameterSupported(id);
    }
}

NTSTATUS CameraFamilyC::SetParameter(ULONG id, ULONG value) {
    switch (id) {
    case kStreamingModeParameter:
        if (!description_.colour)
            return STATUS_NOT_IMPLEMENTED;
        SharedStore(streamingMode_, value); // a stream may just be starting
        return STATUS_SUCCESS;
    case kFamilySwitchParameter:
        SharedStore(familySwitch_, value != 0);
        return STATUS_SUCCESS;
    case kWriteUserDataParameter:
        return description_.userDataStore && value == 0 ? STATUS_INVALID_PARAMETER : defects_.SaveStore(*this);
    case kLoadUserDataParameter:
        return defects_.LoadStore(*this);
    case kDumpUserDataParameter:
        return defects_.DumpStore(*this);
    case kClearUserDataParameter:
        return defects_.ClearStore(*this);
    case kVendorRegisterParameter:
        return description_.registerBlock ? WriteRegister(*this, 0, value) : STATUS_NOT_IMPLEMENTED;
    default:
        return UvcCamera::SetParameter(id, value);
    }
}

NTSTATUS CameraFamilyC::GetParameterBlock(ULONG id, const UCHAR *instance, ULONG instanceLength, UCHAR *data,
                                          ULONG length, ULONG &information) {
    const ULONG colours[] = {CapabilityBit(), description_.pattern};
    static_assert(sizeof(colours) == sizeof(description_.bytes));
    const void *answer;
    switch (id) {
    case kCameraDescriptionParameter:
        answer = description_.bytes;
        break;
    case kSensorColoursParameter:
        answer = colours;
        break;
    default:
        return UvcCamera::GetParameterBlock(id, instance, instanceLength, data, length, information);
    }
    if (!description_.colour)
        return STATUS_NOT_IMPLEMENTED;
    if (length < sizeof(colours))
        return STATUS_BUFFER_OVERFLOW;
    RtlCopyMemory(data, answer, sizeof(colours));
    information = sizeof(colours);
    return STATUS_SUCCESS;
}

NTSTATUS CameraFamilyC::GetParameter(ULONG id, ULONG &value) {
    switch (id) {
    case kFirmwareRevisionParameter:
        if (firmwareRevision_ < 1)
            return STATUS_NOT_IMPLEMENTED;
        value = firmwareRevision_;
        return STATUS_SUCCESS;
    case kStreamingModeParameter:
        if (!description_.colour)
            return STATUS_NOT_IMPLEMENTED;
        value = SharedLoad(streamingMode_);
        return STATUS_SUCCESS;
    case kFamilySwitchParameter:
        value = SharedLoad(familySwitch_);
        return STATUS_SUCCESS;
    case kVendorRegisterParameter:
        return description_.registerBlock ? ReadRegister(*this, 0, value) : STATUS_NOT_IMPLEMENTED;
    default:
        return UvcCamera::GetParameter(id, value);
    }
}

NTSTATUS CameraFamilyC::OptionalOperation() {
    return ApplyStreamingMode();
}

NTSTATUS CameraFamilyC::CreateControls() {
    NTSTATUS status = UvcCamera::CreateControls();
    if (NT_SUCCESS(status))
        status = VendorReadDescription(*this, description_);
    if (!NT_SUCCESS(status))
        return status;
    firmwareRevision_ = 0; // a camera without one stays at 0
    static_cast<void>(VendorReadWord(*this, kReadFirmwareRevision, firmwareRevision_));
    colourSamples_ = decltype(colourSamples_)::Allocate(NonPagedPool);
    return colourSamples_ ? RegisterProviders() : STATUS_INSUFFICIENT_RESOURCES;
}

NTSTATUS CameraFamilyC::RegisterProviders() {
    // The store first: it is the sensor's own, and what applications have set comes later.
    PropertyProvider *const providers[] = {&defects_,    &exposure_, &gain_,    &whiteBalance_, &colourMatrix_,
                                           &conversion_, &region_,   &trigger_, &registers_,    &focus_};
    for (PropertyProvider *provider : providers) {
        NTSTATUS status = RegisterProvider(*provider);
        if (!NT_SUCCESS(status))
            return status;
    }
    return STATUS_SUCCESS;
}

NTSTATUS CameraFamilyC::CreateWorker() {
    workItems_.device = workItemDevice;
    WorkItemOpen(workItems_);
    return UvcCamera::CreateWorker();
}

void CameraFamilyC::ResetStreamState() {
    WorkItemClose(workItems_);
}

NTSTATUS CameraFamilyC::BuildProbeRequest(const KS_VIDEOINFOHEADER &format, ProbeCommitBlock &block) {
    NTSTATUS status = UvcCamera::BuildProbeRequest(format, block);
    if (NT_SUCCESS(status))
        block.dwFrameInterval = kNegotiatedInterval;
    return status;
}

// A camera that refuses streams on in the mode and at the rate that it had.
void CameraFamilyC::OnCommitted(const KS_VIDEOINFOHEADER &format) {
    static_cast<void>(ApplyStreamingMode());
    static_cast<void>(SendFrameRate(format));
    region_.Refresh(*this);
}

// Raw images have 8 bits a pixel, whatever a frame-based format announces.
void CameraFamilyC::FillImageParameters(const UCHAR *formatDescriptor, const UCHAR *frameDescriptor) {
    FormatDescription format;
    FrameDescription frame;
    if (!ReadFormatDescriptor(formatDescriptor, format) || !ReadFrameDescriptor(frameDescriptor, frame))
        return;
    BuildSensorHeader(format.subtype, frame.width, frame.height, IsRaw(format.subtype) ? kRawBits : format.bitsPerPixel,
                      frame.defaultInterval, stream.sensor);
}

NTSTATUS CameraFamilyC::AddOtherFrame(const UCHAR *formatDescriptor, const UCHAR *frameDescriptor) {
    FormatDescription format;
    bool raw = ReadFormatDescriptor(formatDescriptor, format) && IsRaw(format.subtype);
    return AddSensorFrame(formatDescriptor, frameDescriptor, raw ? kRawBits : 0);
}

NTSTATUS CameraFamilyC::FinishFormats() {
    return AddConvertedFormats(description_.colour);
}

// A camera that leaves the size open sends a frame at a time.
ULONG CameraFamilyC::TransferSize() {
    ULONG size = UvcCamera::TransferSize();
    return size != 0 ? size : stream.sensor.bmiHeader.biSizeImage + kLargestPayloadHeader;
}

void CameraFamilyC::ConvertFrame(imaging::ImageDescriptor &destination, imaging::ImageDescriptor &source, ULONG flags) {
    if (description_.colour)
        LabelSource(destination, colourMatrix_.Pattern(), source);

    ++framesSinceStatistics_;
    bool statistics = framesSinceStatistics_ >= statisticsInterval_;
    ProcessRawFrame(source, statistics);
    if (statistics)
        framesSinceStatistics_ = 0;

    ColourCorrection correction{.matrixEnabled = colourMatrix_.Enabled(),
                                .gainsEnabled = conversion_.AppliesGains(),
                                .gains = whiteBalance_.Gains(),
                                .smoothing = conversion_.Smooths()};
    colourMatrix_.ReadMatrix(correction.matrix);
    ConvertImage(destination, source, description_.colour, correction, flags);
}

NTSTATUS CameraFamilyC::ApplyStreamingMode() {
    return STATUS_SUCCESS;
}

NTSTATUS CameraFamilyC::GetFrameIntervals(const KS_VIDEOINFOHEADER &, FrameIntervalList &list) {
    list = {};
    return STATUS_NOT_IMPLEMENTED;
}

void CameraFamilyC::ProcessRawFrame(imaging::ImageDescriptor &source, bool statistics) {
    focus_.Judge(source, workItems_);
    if (statistics)
        JudgeFrame(source);
    defects_.Correct(source, region_);
}

void CameraFamilyC::JudgeFrame(const imaging::ImageDescriptor &source) {
    std::uint32_t brightness = 0;
    if (description_.colour) {
        SHORT matrix[imaging::kMatrixCoefficients];
        colourMatrix_.ReadMatrix(matrix);
        if (!whiteBalance_.Judge(source, colourMatrix_.Enabled() ? &matrix : nullptr, *colourSamples_, brightness))
            return;
    } else if (!SharedLoad(exposure_.State().automatic) && !SharedLoad(gain_.State().automatic)) {
        return;
    } else if (!imaging::MeasureBrightness(source, brightness)) {
        return;
    }
    const ExposureAndGain next = ExposureStep(exposure_.State(), gain_.State(), brightness);
    gain_.Follow(workItems_, next.gain);
    exposure_.Follow(workItems_, next.exposure);
}

NTSTATUS CameraFamilyC::SendStreamingMode(UCHAR flags, USHORT mode, USHORT variant) {
    return VendorSend(*this, kSetStreamingMode, mode, variant, &flags, sizeof(flags));
}

NTSTATUS CameraFamilyC::SendFrameRate(const KS_VIDEOINFOHEADER &format) {
    FrameIntervalList list;
    NTSTATUS status = GetFrameIntervals(format, list);
    if (!NT_SUCCESS(status))
        return status;
    const FrameIntervalEntry *best = &list.front();
    for (const FrameIntervalEntry &entry : list)
        if (Distance(format.AvgTimePerFrame, entry.interval) < Distance(format.AvgTimePerFrame, best->interval))
            best = &entry;
    return VendorSend(*this, kSetFrameRate, static_cast<USHORT>(best->code), 0, nullptr, 0);
}

} // namespace uvc
