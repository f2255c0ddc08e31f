#include "driver/filter.h"

#include "driver/capture_pin.h"
#include "driver/pin_format.h"
#include "driver/property_sets.h"
#include "platform/pool.h"

namespace uvc {

namespace {

struct FilterContext {
    KSFILTER *filter;
};
static_assert(sizeof(FilterContext) == 8);

void FreeFilterContext(void *context) {
    ExFreePool(context);
}

// IRQL: PASSIVE_LEVEL. Lock: the filter's control mutex is held by the class driver.
NTSTATUS CreateFilter(PKSFILTER filter, PIRP) {
    auto context = PoolPointer<FilterContext, pool_tag::Context>::Allocate(NonPagedPool);
    if (!context)
        return STATUS_INSUFFICIENT_RESOURCES;
    context->filter = filter;
    NTSTATUS status = KsAddItemToObjectBag(filter->Bag, context.Get(), FreeFilterContext);
    if (!NT_SUCCESS(status))
        return status;
    filter->Context = context.Release();
    return status;
}

const KSFILTER_DISPATCH kFilterDispatch = {
    .Create = CreateFilter,
};

constexpr LONG kTemplateWidth = 640;
constexpr LONG kTemplateHeight = 480;
constexpr ULONG kTemplateFramesPerSecond = 30;
constexpr LONGLONG kTemplateInterval = 333667;
constexpr LONGLONG kTemplateMaximumInterval = 640000000;

constexpr ULONG FourCc(char a, char b, char c, char d) {
    return static_cast<UCHAR>(a) | static_cast<UCHAR>(b) << 8 | static_cast<UCHAR>(c) << 16 |
           static_cast<ULONG>(static_cast<UCHAR>(d)) << 24;
}

constexpr KS_DATARANGE_VIDEO TemplateRange(ULONG fourCc, USHORT bitsPerPixel) {
    const ULONG imageSize = kTemplateWidth * kTemplateHeight * bitsPerPixel / 8;
    const ULONG bytesPerSecond = imageSize * kTemplateFramesPerSecond;
    const SIZE size{kTemplateWidth, kTemplateHeight};
    return {
        .DataRange = {.FormatSize = sizeof(KS_DATARANGE_VIDEO),
                      .SampleSize = imageSize,
                      .MajorFormat = {STATICGUIDOF(KSDATAFORMAT_TYPE_VIDEO)},
                      .SubFormat = {fourCc, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}},
                      .Specifier = {STATICGUIDOF(KSDATAFORMAT_SPECIFIER_VIDEOINFO)}},
        .bFixedSizeSamples = TRUE,
        .bTemporalCompression = TRUE,
        .ConfigCaps = {.guid = {STATICGUIDOF(KSDATAFORMAT_SPECIFIER_VIDEOINFO)},
                       .InputSize = size,
                       .MinCroppingSize = size,
                       .MaxCroppingSize = size,
                       .CropGranularityX = 8,
                       .CropGranularityY = 1,
                       .CropAlignX = 8,
                       .CropAlignY = 1,
                       .MinOutputSize = size,
                       .MaxOutputSize = size,
                       .OutputGranularityX = 8,
                       .OutputGranularityY = 1,
                       .MinFrameInterval = kTemplateInterval,
                       .MaxFrameInterval = kTemplateMaximumInterval,
                       .MinBitsPerSecond = static_cast<LONG>(bytesPerSecond * 8),
                       .MaxBitsPerSecond = static_cast<LONG>(bytesPerSecond * 8)},
        .VideoInfoHeader = {.rcSource = {0, 0, kTemplateWidth, kTemplateHeight},
                            // Bytes, not bits: that is what clients of these two ranges have always seen.
                            .dwBitRate = bytesPerSecond,
                            .AvgTimePerFrame = kTemplateInterval,
                            .bmiHeader = {.biSize = sizeof(KS_BITMAPINFOHEADER),
                                          .biWidth = kTemplateWidth,
                                          .biHeight = kTemplateHeight,
                                          .biPlanes = 1,
                                          .biBitCount = bitsPerPixel,
                                          .biCompression = fourCc,
                                          .biSizeImage = imageSize}},
    };
}

constexpr KS_DATARANGE_VIDEO kYuy2Range = TemplateRange(FourCc('Y', 'U', 'Y', '2'), 16);
constexpr KS_DATARANGE_VIDEO kY800Range = TemplateRange(FourCc('Y', '8', '0', '0'), 8);

// The class driver's type for a list of ranges is not const; nobody writes through it.
const PKSDATARANGE kTemplateRanges[] = {
    const_cast<PKSDATARANGE>(&kYuy2Range.DataRange),
    const_cast<PKSDATARANGE>(&kY800Range.DataRange),
};

// Edited for each pin to the size of its format.
const KSALLOCATOR_FRAMING_EX kTemplateFraming = {
    .CountItems = 1,
    .OutputCompression = {.RatioNumerator = 1, .RatioDenominator = 1, .RatioConstantMargin = 0},
    .FramingItem = {{.MemoryType = {STATICGUIDOF(KSMEMORY_TYPE_KERNEL_NONPAGED)},
                     .Flags = KSALLOCATOR_REQUIREMENTF_SYSTEM_MEMORY,
                     .Frames = 2,
                     .FileAlignment = FILE_BYTE_ALIGNMENT,
                     .PhysicalRange = {.MinFrameSize = 0, .MaxFrameSize = 0xFFFFFFFF, .Stepping = 1},
                     .FramingRange = {.Range = {.MinFrameSize = 8192, .MaxFrameSize = 8192, .Stepping = 1}}}},
};

const KSPIN_DISPATCH kPinDispatch = {
    .Create = CreateCapturePin,
    .Process = ProcessCapturePin,
    .SetDataFormat = SetCapturePinFormat,
    .SetDeviceState = SetCapturePinState,
};

const KSPIN_DESCRIPTOR_EX kPinDescriptors[] = {
    {.Dispatch = &kPinDispatch,
     .AutomationTable = &kPinAutomationTable,
     .PinDescriptor = {.DataRangesCount = ARRAYSIZE(kTemplateRanges),
                       .DataRanges = kTemplateRanges,
                       .DataFlow = KSPIN_DATAFLOW_OUT,
                       .Communication = KSPIN_COMMUNICATION_BOTH,
                       .Category = &PINNAME_VIDEO_CAPTURE,
                       .Name = &PINNAME_VIDEO_CAPTURE},
     .Flags = KSPIN_FLAG_PROCESS_IN_RUN_STATE_ONLY,
     .InstancesPossible = 1,
     .InstancesNecessary = 1,
     .AllocatorFraming = &kTemplateFraming,
     .IntersectHandler = IntersectVideoFormat},
};
static_assert(ARRAYSIZE(kPinDescriptors) == 1);

const GUID kCategories[] = {
    {STATICGUIDOF(KSCATEGORY_VIDEO)},
    {STATICGUIDOF(KSCATEGORY_CAPTURE)},
};

} // namespace

const KSFILTER_DESCRIPTOR CaptureFilterDescriptor = {
    .Dispatch = &kFilterDispatch,
    .AutomationTable = &kFilterAutomationTable,
    .Version = KSFILTER_DESCRIPTOR_VERSION,
    .ReferenceGuid = &KSNAME_Filter,
    .PinDescriptorsCount = ARRAYSIZE(kPinDescriptors),
    .PinDescriptorSize = sizeof(KSPIN_DESCRIPTOR_EX),
    .PinDescriptors = kPinDescriptors,
    .CategoriesCount = ARRAYSIZE(kCategories),
    .Categories = kCategories,
};

} // namespace uvc
