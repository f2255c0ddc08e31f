#include "usb/probe_commit.h"

#include "camera/uvc_camera.h"
#include "platform/shared_field.h"
#include "usb/uvc_request.h"

namespace uvc {

namespace {

// Control selectors of the video streaming interface (UVC 1.1, table A-11), as wValue.
constexpr USHORT kProbeControl = 0x0100;
constexpr USHORT kCommitControl = 0x0200;

bool IsInWantedState(const ProbeCommitBlock &current, const ProbeCommitBlock &wanted) {
    return wanted.bmHint == kKeepFrameInterval && current.bFormatIndex == wanted.bFormatIndex &&
           current.bFrameIndex == wanted.bFrameIndex && current.dwFrameInterval == wanted.dwFrameInterval;
}

// A camera that shows the wanted state already is not probed again, unless negotiation is forced.
NTSTATUS Probe(UvcCamera &camera, bool force, ProbeCommitBlock &wanted, const ProbeCommitBlock &current,
               ProbeCommitBlock &result) {
    if (!force && IsInWantedState(current, wanted)) {
        result = current;
        return STATUS_SUCCESS;
    }
    if (!NT_SUCCESS(UvcStreamingRequest(camera, false, kSetCur, wanted)) ||
        !NT_SUCCESS(UvcStreamingRequest(camera, false, kGetCur, result)))
        return STATUS_INVALID_PARAMETER;
    return camera.CheckProbeResult(wanted, result);
}

// A result that is no change against the current block is not committed again, unless negotiation is forced.
NTSTATUS Commit(UvcCamera &camera, bool force, ProbeCommitBlock &result, const ProbeCommitBlock &current,
                ProbeCommitBlock &committed) {
    if (!force && RtlEqualMemory(&result, &current, sizeof(result))) {
        committed = current;
        return STATUS_SUCCESS;
    }
    NTSTATUS status = UvcStreamingRequest(camera, true, kSetCur, result);
    if (!NT_SUCCESS(status))
        return status;
    return UvcStreamingRequest(camera, true, kGetCur, committed);
}

void FillImageParameters(UvcCamera &camera, const DescriptorBlock &block) {
    const UCHAR *format = nullptr;
    const UCHAR *frame = nullptr;
    if (FindDescribedFrame(block, block.committed.bFormatIndex, block.committed.bFrameIndex, format, frame))
        camera.FillImageParameters(format, frame);
}

} // namespace

NTSTATUS UvcStreamingRequest(UvcCamera &camera, bool commit, UCHAR request, ProbeCommitBlock &block) {
    // A copy on the stack travels: the camera's own block is paged, and the bus driver fills above PASSIVE_LEVEL.
    ProbeCommitBlock travelling = block;
    const UvcControlRequest control{.out = request == kSetCur,
                                    .vendor = 0,
                                    .recipient = kRecipientInterface,
                                    .request = request,
                                    .value = commit ? kCommitControl : kProbeControl,
                                    .index = kStreamingInterface,
                                    .length = sizeof(travelling),
                                    .data = &travelling};
    ULONG transferred = 0;
    NTSTATUS status = UvcSendControlRequest(camera, control, transferred);
    if (NT_SUCCESS(status))
        block = travelling;
    return status;
}

NTSTATUS UvcNegotiateStream(UvcCamera &camera, const KS_VIDEOINFOHEADER &format) {
    DescriptorBlock *block = camera.descriptors.Get();
    if (block == nullptr)
        return STATUS_INVALID_PARAMETER;
    const bool force = SharedLoad(camera.parameters.forceNegotiation);

    ProbeCommitBlock wanted{};
    NTSTATUS status = camera.BuildProbeRequest(format, wanted);
    if (!NT_SUCCESS(status))
        return status;
    ProbeCommitBlock current{};
    if (!NT_SUCCESS(UvcStreamingRequest(camera, false, kGetCur, current)))
        return STATUS_INVALID_PARAMETER;
    ProbeCommitBlock result{};
    status = Probe(camera, force, wanted, current, result);
    if (!NT_SUCCESS(status))
        return status;
    ProbeCommitBlock committed{};
    status = Commit(camera, force, result, current, committed);
    if (!NT_SUCCESS(status))
        return status;

    block->committed = committed;
    FillImageParameters(camera, *block);
    camera.stream.output = format;
    camera.OnCommitted(format);
    return STATUS_SUCCESS;
}

} // namespace uvc
