// Stream negotiation: the video probe and commit controls of UVC 1.1 (section 4.3.1.1).
#pragma once

#include "platform/platform.h"

namespace uvc {

class UvcCamera;

#pragma pack(push, 1)
// Little-endian on the wire, as in memory.
struct ProbeCommitBlock {
    USHORT bmHint;
    UCHAR bFormatIndex;
    UCHAR bFrameIndex;
    ULONG dwFrameInterval; // 100 ns
    USHORT wKeyFrameRate;
    USHORT wPFrameRate;
    USHORT wCompQuality;
    USHORT wCompWindowSize;
    USHORT wDelay;
    ULONG dwMaxVideoFrameSize;
    ULONG dwMaxPayloadTransferSize;
    ULONG dwClockFrequency;
    UCHAR bmFramingInfo;
    UCHAR bPreferedVersion;
    UCHAR bMinVersion;
    UCHAR bMaxVersion;
};
#pragma pack(pop)
static_assert(sizeof(ProbeCommitBlock) == 34);

inline constexpr USHORT kKeepFrameInterval = 1; // bmHint: dwFrameInterval is to be kept

// One request on the probe (commit false) or commit control: SET_CUR or GET_CUR of the 34-byte block, which
// may be paged and stays as it was when the request fails. IRQL: PASSIVE_LEVEL.
NTSTATUS UvcStreamingRequest(UvcCamera &camera, bool commit, UCHAR request, ProbeCommitBlock &block);

// Agrees with the camera on `format` and keeps the committed block and the format in the camera object. A failed probe
// request, a format that is not in the list and a refused result are STATUS_INVALID_PARAMETER; a failed commit returns
// its status. IRQL: PASSIVE_LEVEL. Lock: stream mutex held.
NTSTATUS UvcNegotiateStream(UvcCamera &camera, const KS_VIDEOINFOHEADER &format);

} // namespace uvc
