#include "host/cameras/model.h"

#include "host/cameras/region.h"

#include <algorithm>
#include <array>

namespace host::cameras {
namespace {

constexpr std::uint16_t kVendorId = 0xF055;
constexpr std::string_view kManufacturer = "UVC Simulation";

constexpr FrameInterval kVideoRates[] = {{166666}, {333333}, {400000}, {666666}, {1000000}, {2000000}};
constexpr FrameInterval kSlowRates[] = {{333333}, {666666}, {1000000}, {2000000}};
constexpr FrameInterval kAnyRate[] = {{333333}, {2000000}};

// The lists of family C: the intervals that a sensor of that kind can keep, with their codes.
constexpr FrameInterval kC1At320[] = {{62500, 7}, {83333, 6}, {125000, 0}, {166666, 1}, {333333, 2}};
constexpr FrameInterval kC1At640[] = {{114942, 7}, {166666, 6}, {333333, 0}, {666666, 2}, {1333332, 3}, {2000000, 4}};
constexpr FrameInterval kC1Larger[] = {{131578, 7}, {166666, 6}, {333333, 0}, {666666, 2}, {1333332, 3}, {2000000, 4}};
constexpr FrameInterval kC2At2048[] = {{1000000, 0}, {1333332, 1}, {2000000, 2}, {2666664, 3}};
constexpr FrameInterval kC2At1024[] = {{281690, 0}, {333333, 1}, {666666, 2}, {1000000, 3}};
constexpr FrameInterval kC3[] = {{361000, 0}, {500000, 1}, {666666, 2}, {1333333, 3}};
constexpr FrameInterval kC4[] = {{370009, 0}, {500000, 1}, {666666, 2}, {1333333, 3}, {2000000, 4}};
constexpr FrameInterval kC5[] = {{666666, 2}, {1333333, 3}, {2000000, 4}};

constexpr FrameModel kGenericFrames[] = {{640, 480, kVideoRates}, {320, 240, kVideoRates}, {1280, 960, kSlowRates}};
constexpr FrameModel kAFrames[] = {{640, 480, kVideoRates}, {1280, 960, kSlowRates}, {320, 240, kVideoRates}};
constexpr FrameModel kBFrames[] = {{1600, 1200, kSlowRates}, {800, 600, kVideoRates}, {640, 480, kVideoRates}};
constexpr FrameModel kC1Frames[] = {{640, 480, kC1At640}, {320, 240, kC1At320}, {1280, 960, kC1Larger}};
constexpr FrameModel kC2Frames[] = {{2048, 1536, kC2At2048}, {1024, 768, kC2At1024}};
constexpr FrameModel kC3Frames[] = {{2592, 1944, kC3}};
constexpr FrameModel kC4Frames[] = {{2592, 1944, kC4}, {1296, 972, kC4}, {640, 480, kC4}};
constexpr FrameModel kC5Frames[] = {{2592, 1944, kC5}, {1296, 972, kC5}};
constexpr FrameModel kC6Frames[] = {{1600, 1200, kAnyRate, true}, {800, 600, kAnyRate, true}};

constexpr FormatModel kGenericFormats[] = {{PixelFormat::Yuy2, false, kGenericFrames},
                                           {PixelFormat::Grey8, false, kGenericFrames}};
constexpr FormatModel kAFormats[] = {{PixelFormat::Yuy2, false, kAFrames},
                                     {PixelFormat::Grey8, false, kAFrames},
                                     {PixelFormat::Bayer8, false, kAFrames}};
constexpr FormatModel kBFormats[] = {{PixelFormat::Bayer8, false, kBFrames}};
constexpr FormatModel kC1ColourFormats[] = {{PixelFormat::Bayer8, true, kC1Frames}};
constexpr FormatModel kC1GreyFormats[] = {{PixelFormat::Grey8, true, kC1Frames}};
constexpr FormatModel kC2Formats[] = {{PixelFormat::Bayer8, true, kC2Frames}};
constexpr FormatModel kC3Formats[] = {{PixelFormat::Grey8, true, kC3Frames}};
constexpr FormatModel kC4Formats[] = {{PixelFormat::Bayer8, true, kC4Frames}};
constexpr FormatModel kC5Formats[] = {{PixelFormat::Bayer8, true, kC5Frames}};
constexpr FormatModel kC6Formats[] = {{PixelFormat::Bayer8, true, kC6Frames}};

// bmControls from a list of selectors.
constexpr std::uint32_t Selectors(std::initializer_list<unsigned> selectors) {
    std::uint32_t controls = 0;
    for (unsigned selector : selectors)
        controls |= 1u << (selector - 1);
    return controls;
}

// Camera terminal: 2 exposure mode, 3 exposure priority, 4 exposure time, 6 focus, 8 focus automatic, 9 iris, 11 zoom,
// 15 roll, 17 external trigger (families A to C).
constexpr std::uint32_t kGenericTerminal = Selectors({2, 3, 4, 6, 8, 9, 11, 15});
constexpr std::uint32_t kExposure = Selectors({4});
constexpr std::uint32_t kExposureTrigger = Selectors({4, 17});
constexpr std::uint32_t kExposureFocusTrigger = Selectors({4, 6, 17});

// Processing unit: 1 backlight, 2 brightness, 3 contrast, 4 gain, 5 mains frequency, 6 hue, 7 saturation, 8 sharpness,
// 9 gamma, 10 and 11 white balance temperature, 12 and 13 components, 14 and 15 digital multiplier, 16 hue automatic.
constexpr std::uint32_t kGenericProcessing = 0xFFFF;
constexpr std::uint32_t kAProcessing = Selectors({2, 3, 4, 7, 8, 9, 10, 12, 13});
constexpr std::uint32_t kBProcessing = Selectors({2, 4, 9});
constexpr std::uint32_t kGain = Selectors({4});

// Extension unit of families A and B: docs/camera-protocol.md lists the selectors.
constexpr std::uint32_t kExtension = Selectors({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 15});

// Offsets and binning of family C.
constexpr std::uint32_t kOffsets = Selectors({1, 2});
constexpr std::uint32_t kBinning = Selectors({3});

// Where a model differs from the ranges in control_store.cpp. Cameras in the field have fixed irises that only tell
// where they are, and firmware that forgot about an attribute or gives it wrongly.
constexpr EntityKind kTerminal = EntityKind::CameraTerminal;
constexpr EntityKind kProcessing = EntityKind::ProcessingUnit;
constexpr EntityKind kUnit = EntityKind::ExtensionUnit;

constexpr CameraControl kGenericControls[] = {
    Of(kTerminal, ReadOnly(Ranged(9, 2, 10, 220, 28))),
    Of(kProcessing, Stalling(Ranged(1, 2, 0, 4, 0), kGetMin)),
    Of(kProcessing, Stalling(Ranged(14, 2, 0, 255, 0), kGetDef)),
    Of(kProcessing, Stalling(Ranged(15, 2, 0, 255, 255), kGetRes)),
};
constexpr CameraControl k8101Controls[] = {
    Of(kProcessing, Ranged(2, 2, -128, 127, 0)),  Of(kProcessing, Ranged(3, 2, 0, 255, 128)),
    Of(kProcessing, Ranged(7, 2, 0, 255, 128)),   Of(kProcessing, Ranged(8, 2, 0, 7, 2)),
    Of(kProcessing, Ranged(9, 2, 100, 300, 220)), Of(kProcessing, Ranged(10, 2, 2500, 7500, 5000)),
};
constexpr CameraControl k8102Controls[] = {
    Of(kProcessing, Ranged(2, 2, -255, 255, -16)),
    Of(kProcessing, Ranged(9, 2, 50, 250, 100)),
    Of(kUnit, Claiming(Ranged(12, 2, 0, 1000, 0), 12)),
    Of(kUnit, Claiming(Ranged(13, 2, 0, 1000, 0), 0)),
};
constexpr CameraControl k8203Controls[] = {Of(kProcessing, Ranged(4, 2, 64, 511, 64))};
constexpr CameraControl k8204Controls[] = {Of(kTerminal, Ranged(4, 4, 1, 5000, 333)),
                                           Of(kProcessing, Ranged(4, 2, 64, 255, 64))};
constexpr CameraControl k8206Controls[] = {Of(kTerminal, Ranged(4, 4, 2, 12000, 333)),
                                           Of(kProcessing, Ranged(4, 2, 64, 767, 64))};

constexpr std::array<Model, 10> kModels{{
    {.name = "generic",
     .vendorId = kVendorId,
     .productId = 0x8000,
     .bcdDevice = 0x0100,
     .manufacturer = kManufacturer,
     .product = "Generic UVC Camera",
     .serial = "80000001",
     .family = Family::Generic,
     .colour = true,
     .pattern = BayerPattern::GreenBlue,
     .sensorWidth = 1280,
     .sensorHeight = 960,
     .binning = true,
     .terminalControls = kGenericTerminal,
     .processingControls = kGenericProcessing,
     .controls = kGenericControls,
     .formats = kGenericFormats,
     .payloadSize = 32768},
    {.name = "8101",
     .vendorId = kVendorId,
     .productId = 0x8101,
     .bcdDevice = 0x0110,
     .manufacturer = kManufacturer,
     .product = "Model 8101 Colour",
     .serial = "81010001",
     .family = Family::A,
     .firmwareRevision = 0x0123,
     .colour = true,
     .pattern = BayerPattern::GreenBlue,
     .sensorWidth = 1280,
     .sensorHeight = 960,
     .binning = true,
     .terminalControls = kExposure,
     .processingControls = kAProcessing,
     .extensionControls = kExtension,
     .controls = k8101Controls,
     .formats = kAFormats,
     .payloadSize = 65536},
    {.name = "8102",
     .vendorId = kVendorId,
     .productId = 0x8102,
     .bcdDevice = 0x0110,
     .manufacturer = kManufacturer,
     .product = "Model 8102 Colour",
     .serial = "81020001",
     .family = Family::B,
     .firmwareRevision = 0x0204,
     .colour = true,
     .pattern = BayerPattern::RedGreen,
     .sensorWidth = 1600,
     .sensorHeight = 1200,
     .binning = true,
     .terminalControls = kExposure,
     .processingControls = kBProcessing,
     .extensionControls = kExtension,
     .controls = k8102Controls,
     .formats = kBFormats},
    {.name = "8201",
     .vendorId = kVendorId,
     .productId = 0x8201,
     .bcdDevice = 0x0120,
     .manufacturer = kManufacturer,
     .product = "Model 8201 Colour",
     .serial = "82010001",
     .family = Family::C,
     .firmwareRevision = 301,
     .colour = true,
     .pattern = BayerPattern::BlueGreen,
     .sensorWidth = 1280,
     .sensorHeight = 960,
     .registerBlock = true,
     .binning = true,
     .userData = true,
     .terminalControls = kExposureTrigger,
     .processingControls = kGain,
     .extensionControls = kBinning,
     .formats = kC1ColourFormats,
     .payloadSize = 49152},
    {.name = "8202",
     .vendorId = kVendorId,
     .productId = 0x8202,
     .bcdDevice = 0x0120,
     .manufacturer = kManufacturer,
     .product = "Model 8202 Monochrome",
     .serial = "82020001",
     .family = Family::C,
     .firmwareRevision = 302,
     .colour = false,
     .sensorWidth = 1280,
     .sensorHeight = 960,
     .registerBlock = true,
     .binning = true,
     .userData = true,
     .terminalControls = kExposureTrigger,
     .processingControls = kGain,
     .extensionControls = kBinning,
     .formats = kC1GreyFormats},
    {.name = "8203",
     .vendorId = kVendorId,
     .productId = 0x8203,
     .bcdDevice = 0x0120,
     .manufacturer = kManufacturer,
     .product = "Model 8203 Colour",
     .serial = "82030001",
     .family = Family::C,
     .firmwareRevision = 303,
     .colour = true,
     .pattern = BayerPattern::GreenBlue,
     .sensorWidth = 2048,
     .sensorHeight = 1536,
     .binning = true,
     .userData = true,
     .terminalControls = kExposureTrigger,
     .processingControls = kGain,
     .extensionControls = kBinning,
     .controls = k8203Controls,
     .formats = kC2Formats,
     .payloadSize = 262144},
    {.name = "8204",
     .vendorId = kVendorId,
     .productId = 0x8204,
     .bcdDevice = 0x0120,
     .manufacturer = kManufacturer,
     .product = "Model 8204 Monochrome",
     .serial = "82040001",
     .family = Family::C,
     .firmwareRevision = 304,
     .colour = false,
     .sensorWidth = 2592,
     .sensorHeight = 1944,
     .userData = true,
     .terminalControls = kExposureTrigger,
     .processingControls = kGain,
     .controls = k8204Controls,
     .formats = kC3Formats},
    {.name = "8205",
     .vendorId = kVendorId,
     .productId = 0x8205,
     .bcdDevice = 0x0120,
     .manufacturer = kManufacturer,
     .product = "Model 8205 Colour Autofocus",
     .serial = "82050001",
     .family = Family::C,
     .firmwareRevision = 305,
     .colour = true,
     .pattern = BayerPattern::GreenRed,
     .sensorWidth = 2592,
     .sensorHeight = 1944,
     .motorisedFocus = true,
     .registerBlock = true,
     .binning = true,
     .regionOfInterest = true,
     .userData = true,
     .terminalControls = kExposureFocusTrigger,
     .processingControls = kGain,
     .extensionControls = kOffsets | kBinning,
     .formats = kC4Formats,
     .payloadSize = 524288},
    {.name = "8206",
     .vendorId = kVendorId,
     .productId = 0x8206,
     .bcdDevice = 0x0120,
     .manufacturer = kManufacturer,
     .product = "Model 8206 Colour",
     .serial = "82060001",
     .family = Family::C,
     .firmwareRevision = 306,
     .colour = true,
     .pattern = BayerPattern::RedGreen,
     .sensorWidth = 2592,
     .sensorHeight = 1944,
     .binning = true,
     .userData = true,
     .terminalControls = kExposureTrigger,
     .processingControls = kGain,
     .extensionControls = kBinning,
     .controls = k8206Controls,
     .formats = kC5Formats},
    {.name = "8207",
     .vendorId = kVendorId,
     .productId = 0x8207,
     .bcdDevice = 0x0120,
     .manufacturer = kManufacturer,
     .product = "Model 8207 Colour",
     .serial = "82070001",
     .family = Family::C,
     .firmwareRevision = 0, // this camera has none to tell
     .colour = true,
     .pattern = BayerPattern::BlueGreen,
     .sensorWidth = 1600,
     .sensorHeight = 1200,
     .regionOfInterest = true,
     .terminalControls = kExposureTrigger,
     .processingControls = kGain,
     .extensionControls = kOffsets,
     .formats = kC6Formats,
     .payloadSize = 131072},
}};

// The host of a family C camera knows where a frame lies by the extension unit alone: the unit has a control for all
// that can vary, and a camera without offsets shows the whole sensor in every frame.
constexpr bool TellsWhereFramesLie(const Model &model) {
    if (model.family != Family::C)
        return true;
    if (model.extensionControls != ((model.regionOfInterest ? kOffsets : 0) | (model.binning ? kBinning : 0)))
        return false;
    const Extent sensor{model.sensorWidth, model.sensorHeight};
    for (const FormatModel &format : model.formats) {
        for (const FrameModel &frame : format.frames) {
            const Extent size{frame.width, frame.height};
            const std::uint32_t binning = LargestBinning(sensor, size, model.binning ? 4 : 1);
            if (!model.regionOfInterest && sensor != Extent{size.width * binning, size.height * binning})
                return false;
        }
    }
    return true;
}
static_assert(std::all_of(kModels.begin(), kModels.end(), TellsWhereFramesLie));

} // namespace

std::span<const Model> Models() {
    return kModels;
}

const Model *FindModel(std::string_view name) {
    for (const Model &model : kModels)
        if (model.name == name)
            return &model;
    return nullptr;
}

} // namespace host::cameras
