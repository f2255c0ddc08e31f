// The buffers of control requests: what a set brings and what a get writes.
#include "camera/control.h"

namespace uvc {

namespace {

// 0: the kind has no such buffer here.
ULONG AnswerBytes(ULONG kind) {
    switch (kind) {
    case kControlValue:
        return sizeof(ControlValueBlock);
    case kControlRange:
        return sizeof(ControlRangeBlock);
    case kControlExtendedValue:
        return sizeof(ControlExtendedBlock);
    default:
        return 0;
    }
}

} // namespace

NTSTATUS ReadControlSetting(const ControlRequest &request, ControlSetting &setting) {
    setting = {};
    if (request.kind != kControlValue && request.kind != kControlExtendedValue)
        return STATUS_NOT_IMPLEMENTED;
    if (request.buffer == nullptr)
        return STATUS_INVALID_PARAMETER;
    if (request.length < AnswerBytes(request.kind))
        return STATUS_INVALID_BUFFER_SIZE;
    // Both blocks begin like this.
    const auto &block = *static_cast<const ControlValueBlock *>(request.buffer);
    setting = {.value = block.value, .flags = block.flags};
    return STATUS_SUCCESS;
}

bool CanAnswerControl(const ControlRequest &request) {
    const ULONG bytes = AnswerBytes(request.kind);
    return bytes != 0 && request.buffer != nullptr && request.length >= bytes;
}

NTSTATUS AnswerControl(const ControlRequest &request, const ControlAnswer &answer) {
    if (!CanAnswerControl(request))
        return STATUS_NOT_IMPLEMENTED;
    switch (request.kind) {
    case kControlRange:
        *static_cast<ControlRangeBlock *>(request.buffer) = {.minimum = answer.minimum,
                                                             .maximum = answer.maximum,
                                                             .defaultValue = answer.defaultValue,
                                                             .resolution = answer.resolution,
                                                             .capabilities = answer.capabilities};
        break;
    case kControlExtendedValue: {
        auto &extended = *static_cast<ControlExtendedBlock *>(request.buffer);
        extended.minimum = answer.minimum;
        extended.maximum = answer.maximum;
        extended.defaultValue = answer.defaultValue;
        [[fallthrough]];
    }
    case kControlValue: {
        auto &block = *static_cast<ControlValueBlock *>(request.buffer); // the extended block begins like this
        block.value = answer.value;
        block.flags = answer.flags;
        block.capabilities = answer.capabilities;
        break;
    }
    }
    return STATUS_SUCCESS;
}

} // namespace uvc
