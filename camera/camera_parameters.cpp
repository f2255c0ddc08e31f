// The driver parameters that every camera has.
#include "camera/parameter.h"
#include "camera/uvc_camera.h"
#include "imaging/processor_features.h"
#include "platform/lock.h"
#include "platform/shared_field.h"
#include "usb/bulk_engine.h"
#include "usb/usb_request.h"
#include "usb/uvc_request.h"

#include <iterator>

namespace uvc {

namespace {

// Instruction-set levels and the feature masks they stand for. Levels 6 and 7 leave out the lower features, so a
// client can force one kernel variant: with 6 there is SSE4.1 but no SSE2.
constexpr ULONG kLevelMasks[] = {0, 0, 3, 7, 31, 63, 96, 320};
constexpr ULONG kDetectedLevel = 0; // its mask is what the processor has
constexpr ULONG kLevelCount = std::size(kLevelMasks);
static_assert(kLevelCount == 8);

// The highest level whose features the mask has; level 1 asks for none.
ULONG LevelOf(ULONG mask) {
    ULONG level = kLevelCount - 1;
    while (level > 1 && (mask & kLevelMasks[level]) != kLevelMasks[level])
        --level;
    return level;
}

} // namespace

bool UvcCamera::IsParameterSupported(ULONG id) {
    switch (id) {
    case kStatisticsOverlayParameter:
    case kDiscardIncompleteParameter:
    case kPassThroughParameter:
    case kTransferCountParameter:
    case kControlTimeoutParameter:
    case kMeasureFrameRateParameter:
    case kZeroBuffersParameter:
    case kCyclePortParameter:
    case kIgnoredParameter:
    case kInstructionSetParameter:
    case kResetPortParameter:
        return true;
    default:
        return false;
    }
}

NTSTATUS UvcCamera::SetParameterBlock(ULONG id, UCHAR *data, ULONG length) {
    return id == kPassThroughParameter ? UvcPassThroughSet(*this, data, length) : STATUS_NOT_IMPLEMENTED;
}

NTSTATUS UvcCamera::GetParameterBlock(ULONG id, const UCHAR *instance, ULONG instanceLength, UCHAR *data, ULONG length,
                                      ULONG &information) {
    return id == kPassThroughParameter ? UvcPassThroughGet(*this, instance, instanceLength, data, length, information)
                                       : STATUS_NOT_IMPLEMENTED;
}

NTSTATUS UvcCamera::SetParameter(ULONG id, ULONG value) {
    switch (id) {
    case kStatisticsOverlayParameter:
        SharedStore(parameters.statisticsOverlay, value != 0);
        return STATUS_SUCCESS;
    case kDiscardIncompleteParameter:
        SharedStore(parameters.discardIncomplete, value != 0);
        return STATUS_SUCCESS;
    case kTransferCountParameter:
        SharedStore(parameters.transferCount, value);
        return STATUS_SUCCESS;
    case kControlTimeoutParameter:
        SharedStore(parameters.controlTimeoutMs, static_cast<LONG>(value));
        return STATUS_SUCCESS;
    case kMeasureFrameRateParameter:
        SharedStore(parameters.measureFrameRate, value != 0);
        return STATUS_SUCCESS;
    case kZeroBuffersParameter: {
        MutexGuard guard(stream.mutex); // a stop frees the engine
        SharedStore(parameters.zeroBuffers, value != 0);
        if (stream.engine != nullptr)
            SharedStore(stream.engine->zeroBuffers, value != 0);
        return STATUS_SUCCESS;
    }
    case kCyclePortParameter:
        return UsbSendInternalIoctl(link->lowerDevice, IOCTL_INTERNAL_USB_CYCLE_PORT);
    case kIgnoredParameter:
        return STATUS_SUCCESS;
    case kInstructionSetParameter:
        if (value >= kLevelCount)
            return STATUS_INVALID_PARAMETER;
        SharedStore(parameters.processorMask,
                    value == kDetectedLevel ? ULONG{imaging::DetectProcessorFeatures()} : kLevelMasks[value]);
        return STATUS_SUCCESS;
    case kResetPortParameter:
        return UsbSendInternalIoctl(link->lowerDevice, IOCTL_INTERNAL_USB_RESET_PORT);
    default:
        return STATUS_NOT_IMPLEMENTED;
    }
}

NTSTATUS UvcCamera::GetParameter(ULONG id, ULONG &value) {
    switch (id) {
    case kStatisticsOverlayParameter:
        value = SharedLoad(parameters.statisticsOverlay);
        return STATUS_SUCCESS;
    case kDiscardIncompleteParameter:
        value = SharedLoad(parameters.discardIncomplete);
        return STATUS_SUCCESS;
    case kTransferCountParameter:
        value = SharedLoad(parameters.transferCount);
        return STATUS_SUCCESS;
    case kControlTimeoutParameter:
        value = static_cast<ULONG>(SharedLoad(parameters.controlTimeoutMs));
        return STATUS_SUCCESS;
    case kMeasureFrameRateParameter:
        value = SharedLoad(parameters.measureFrameRate);
        return STATUS_SUCCESS;
    case kZeroBuffersParameter:
        value = SharedLoad(parameters.zeroBuffers);
        return STATUS_SUCCESS;
    case kIgnoredParameter:
        value = 0;
        return STATUS_SUCCESS;
    case kInstructionSetParameter:
        value = LevelOf(SharedLoad(parameters.processorMask));
        return STATUS_SUCCESS;
    default:
        return STATUS_NOT_IMPLEMENTED;
    }
}

NTSTATUS UvcCamera::OptionalOperation() {
    return STATUS_NOT_IMPLEMENTED;
}

} // namespace uvc
