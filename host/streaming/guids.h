// The GUIDs the model compares with, as constants of its own: the driver defines the platform's names.
#pragma once

#include "platform/platform.h"

namespace host::streaming {

template <class... Bytes> constexpr GUID MakeGuid(ULONG data1, USHORT data2, USHORT data3, Bytes... data4) {
    return {.Data1 = data1, .Data2 = data2, .Data3 = data3, .Data4 = {static_cast<UCHAR>(data4)...}};
}

inline constexpr GUID kGuidNull = MakeGuid(STATIC_GUID_NULL);
inline constexpr GUID kPropSetPin = MakeGuid(STATIC_KSPROPSETID_Pin);
inline constexpr GUID kPropSetTopology = MakeGuid(STATIC_KSPROPSETID_Topology);
inline constexpr GUID kPropSetConnection = MakeGuid(STATIC_KSPROPSETID_Connection);
inline constexpr GUID kPropSetStream = MakeGuid(STATIC_KSPROPSETID_Stream);
inline constexpr GUID kPropSetClock = MakeGuid(STATIC_KSPROPSETID_Clock);
inline constexpr GUID kInterfaceSetStandard = MakeGuid(STATIC_KSINTERFACESETID_Standard);
inline constexpr GUID kMediumSetStandard = MakeGuid(STATIC_KSMEDIUMSETID_Standard);
inline constexpr GUID kPinNameVideoCapture = MakeGuid(STATIC_PINNAME_VIDEO_CAPTURE);

inline bool SameGuid(const GUID &one, const GUID &other) {
    return RtlEqualMemory(&one, &other, sizeof(GUID));
}

} // namespace host::streaming
