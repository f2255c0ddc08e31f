#include "driver/property_sets.h"

#include "driver/capture_pin.h"
#include "driver/property_router.h"

namespace uvc {

// {6E0C59B1-3C83-4A78-9838-10D5C883E3CB}
extern const GUID kDriverParameterSet = {0x6E0C59B1, 0x3C83, 0x4A78, {0x98, 0x38, 0x10, 0xD5, 0xC8, 0x83, 0xE3, 0xCB}};

namespace {

constexpr ULONG kDroppedFramesSize = sizeof(KSPROPERTY_DROPPEDFRAMES_CURRENT_S);

constexpr KSPROPERTY_ITEM Parameter(ULONG id, ULONG size) {
    return {.PropertyId = id,
            .GetPropertyHandler = HandleFilterProperty,
            .MinProperty = size,
            .MinData = size,
            .SetPropertyHandler = HandleFilterProperty,
            .SupportHandler = HandleFilterProperty};
}

constexpr KSPROPERTY_ITEM kDriverParameters[] = {
    Parameter(1, 4),  Parameter(2, 4),  Parameter(3, 4),  Parameter(4, 4),  Parameter(5, 4),  Parameter(6, 10),
    Parameter(10, 4), Parameter(11, 4), Parameter(12, 4), Parameter(14, 4), Parameter(15, 8), Parameter(16, 4),
    Parameter(17, 4), Parameter(18, 4), Parameter(19, 8), Parameter(20, 4), Parameter(21, 4), Parameter(22, 4),
    Parameter(23, 4), Parameter(24, 4), Parameter(25, 4), Parameter(26, 4), Parameter(27, 4),
};
static_assert(ARRAYSIZE(kDriverParameters) == 23);

constexpr KSPROPERTY_ITEM kFilterDroppedFrames[] = {
    {.PropertyId = KSPROPERTY_DROPPEDFRAMES_CURRENT,
     .GetPropertyHandler = HandleFilterProperty,
     .MinProperty = kDroppedFramesSize,
     .MinData = kDroppedFramesSize},
};

constexpr KSPROPERTY_ITEM kPinDroppedFrames[] = {
    {.PropertyId = KSPROPERTY_DROPPEDFRAMES_CURRENT,
     .GetPropertyHandler = GetPinProperty,
     .MinProperty = kDroppedFramesSize,
     .MinData = kDroppedFramesSize},
};

const KSPROPERTY_SET kFilterSets[] = {
    {.Set = &kDriverParameterSet, .PropertiesCount = ARRAYSIZE(kDriverParameters), .PropertyItem = kDriverParameters},
    {.Set = &PROPSETID_VIDCAP_DROPPEDFRAMES,
     .PropertiesCount = ARRAYSIZE(kFilterDroppedFrames),
     .PropertyItem = kFilterDroppedFrames},
};

const KSPROPERTY_SET kPinSets[] = {
    {.Set = &PROPSETID_VIDCAP_DROPPEDFRAMES,
     .PropertiesCount = ARRAYSIZE(kPinDroppedFrames),
     .PropertyItem = kPinDroppedFrames},
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
