#include "driver/property_sets.h"

#include "driver/capture_pin.h"
#include "driver/property_router.h"
#include "uvc_drv/properties.h"

namespace uvc {

namespace {

// Items whose property and data have the same least size, as most have here.

constexpr KSPROPERTY_ITEM GetOnly(ULONG id, ULONG size) {
    return {.PropertyId = id, .GetPropertyHandler = HandleFilterProperty, .MinProperty = size, .MinData = size};
}

constexpr KSPROPERTY_ITEM GetAndSet(ULONG id, ULONG size) {
    KSPROPERTY_ITEM item = GetOnly(id, size);
    item.SetPropertyHandler = HandleFilterProperty;
    return item;
}

// The class driver tells of the access to the others; these tell it themselves.
constexpr KSPROPERTY_ITEM Supported(ULONG id, ULONG size) {
    KSPROPERTY_ITEM item = GetAndSet(id, size);
    item.SupportHandler = HandleFilterProperty;
    return item;
}

// A control of the standard sets: a value and flags, of which the value is kept when a graph is stored.
constexpr KSPROPERTY_ITEM Standard(ULONG id) {
    KSPROPERTY_ITEM item = GetAndSet(id, 40);
    item.SerializedSize = 4;
    return item;
}

// A control of our own sets, in the common layout.
constexpr KSPROPERTY_ITEM Private(ULONG id) {
    return Supported(id, 48);
}

constexpr KSPROPERTY_ITEM Parameter(ULONG id, ULONG size = 4) {
    return Supported(id, size);
}

constexpr ULONG kDroppedFramesSize = sizeof(KSPROPERTY_DROPPEDFRAMES_CURRENT_S);
static_assert(kDroppedFramesSize == 48);

constexpr KSPROPERTY_ITEM kDeviceInformation[] = {
    GetOnly(100, 288),
    GetOnly(101, 288),
    GetOnly(102, 296),
    GetOnly(103, 288),
};
static_assert(ARRAYSIZE(kDeviceInformation) == 4);

constexpr KSPROPERTY_ITEM kDriverInformation[] = {
    Supported(0, 144),
    Supported(1, 424),
};
static_assert(ARRAYSIZE(kDriverInformation) == 2);

constexpr KSPROPERTY_ITEM kVideoProcAmp[] = {
    Standard(0), Standard(1), Standard(2), Standard(3),  Standard(4),  Standard(5),  Standard(6),
    Standard(7), Standard(8), Standard(9), Standard(10), Standard(11), Standard(13),
};
static_assert(ARRAYSIZE(kVideoProcAmp) == 13);

constexpr KSPROPERTY_ITEM kCameraControl[] = {
    Standard(0), Standard(1),  Standard(2),  Standard(3),  Standard(4),  Standard(5),  Standard(6),  Standard(7),
    Standard(8), Standard(10), Standard(11), Standard(12), Standard(13), Standard(14), Standard(15), Standard(16),
};
static_assert(ARRAYSIZE(kCameraControl) == 16);

constexpr KSPROPERTY_ITEM kImageControls[] = {
    Private(101), Private(102), Private(107), Private(106), Private(115), Supported(125, 88), Supported(122, 40),
    Private(109), Private(201), Private(202), Private(203), Private(204), Private(205),       Private(206),
    Private(118), Private(119), Private(210), Private(211), Private(212), Private(213),       Private(214),
    Private(215), Private(216), Private(226), Private(227), Private(228), Private(229),       Private(124),
};
static_assert(ARRAYSIZE(kImageControls) == 28);

// A list of intervals may be of any length, and its size may be asked for without a buffer.
constexpr KSPROPERTY_ITEM FrameRates() {
    KSPROPERTY_ITEM item = GetOnly(KSPROPERTY_VIDEOCONTROL_FRAME_RATES, sizeof(KSPROPERTY_VIDEOCONTROL_FRAME_RATES_S));
    item.MinData = 0;
    return item;
}
static_assert(FrameRates().MinProperty == 40);

constexpr KSPROPERTY_ITEM kVideoControl[] = {
    FrameRates(),
    GetOnly(KSPROPERTY_VIDEOCONTROL_CAPS, sizeof(KSPROPERTY_VIDEOCONTROL_CAPS_S)),
    GetAndSet(KSPROPERTY_VIDEOCONTROL_MODE, sizeof(KSPROPERTY_VIDEOCONTROL_MODE_S)),
};
static_assert(ARRAYSIZE(kVideoControl) == 3);

constexpr KSPROPERTY_ITEM kDriverParameters[] = {
    Parameter(1),  Parameter(2),  Parameter(3),     Parameter(4),  Parameter(5),     Parameter(6, 10),
    Parameter(10), Parameter(11), Parameter(12),    Parameter(14), Parameter(15, 8), Parameter(16),
    Parameter(17), Parameter(18), Parameter(19, 8), Parameter(20), Parameter(21),    Parameter(22),
    Parameter(23), Parameter(24), Parameter(25),    Parameter(26), Parameter(27),
};
static_assert(ARRAYSIZE(kDriverParameters) == 23);

constexpr KSPROPERTY_ITEM kFilterDroppedFrames[] = {
    GetOnly(KSPROPERTY_DROPPEDFRAMES_CURRENT, kDroppedFramesSize),
};

constexpr ULONG kDefectListSize = 1028;

constexpr KSPROPERTY_ITEM kColourMatrix[] = {
    Private(0),
    Private(1),
    Private(2),
    Private(3),
    Private(4),
    Private(5),
    Private(6),
    Private(7),
    Private(8),
    Private(9),
    Private(10),
    Private(11),
    Private(12),
    Private(32),
    Supported(33, kDefectListSize),
    Supported(34, kDefectListSize),
    Supported(35, kDefectListSize),
};
static_assert(ARRAYSIZE(kColourMatrix) == 17);

constexpr KSPROPERTY_ITEM kPinDroppedFrames[] = {
    {.PropertyId = KSPROPERTY_DROPPEDFRAMES_CURRENT,
     .GetPropertyHandler = GetPinProperty,
     .MinProperty = kDroppedFramesSize,
     .MinData = kDroppedFramesSize},
};

template <SIZE_T N> constexpr KSPROPERTY_SET Set(const GUID &set, const KSPROPERTY_ITEM (&items)[N]) {
    return {.Set = &set, .PropertiesCount = N, .PropertyItem = items};
}

constexpr KSPROPERTY_SET kFilterSets[] = {
    Set(PROPSETID_DEVICE_INFO, kDeviceInformation),     Set(PROPSETID_DRIVER_INFO, kDriverInformation),
    Set(PROPSETID_VIDCAP_VIDEOPROCAMP, kVideoProcAmp),  Set(PROPSETID_VIDCAP_CAMERACONTROL, kCameraControl),
    Set(PROPSETID_PRIVATE_IMAGE, kImageControls),       Set(PROPSETID_VIDCAP_VIDEOCONTROL, kVideoControl),
    Set(PROPSETID_DRIVER_PARAMETER, kDriverParameters), Set(PROPSETID_VIDCAP_DROPPEDFRAMES, kFilterDroppedFrames),
    Set(PROPSETID_PRIVATE_COLORMATRIX, kColourMatrix),
};
static_assert(ARRAYSIZE(kFilterSets) == 9);

constexpr KSPROPERTY_SET kPinSets[] = {
    Set(PROPSETID_VIDCAP_DROPPEDFRAMES, kPinDroppedFrames),
};

} // namespace

const KSAUTOMATION_TABLE kFilterAutomationTable = {
    .PropertySetsCount = ARRAYSIZE(kFilterSets),
    .PropertyItemSize = sizeof(KSPROPERTY_ITEM),
    .PropertySets = kFilterSets,
};

const KSAUTOMATION_TABLE kPinAutomationTable = {
    .PropertySetsCount = ARRAYSIZE(kPinSets),
    .PropertyItemSize = sizeof(KSPROPERTY_ITEM),
    .PropertySets = kPinSets,
};

} // namespace uvc
