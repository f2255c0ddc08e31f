// The pieces of one property request, on their way from the class driver to whoever answers.
#pragma once

#include "platform/platform.h"

namespace uvc {

// The access that a support query tells of.
inline constexpr ULONG kGetAndSet = KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_SET;

struct PropertyRequest {
    PIRP irp; // null for a request that the driver makes itself
    KSPROPERTY *property;
    void *instance; // instance data behind the property header, or null; the caller's memory, for guarded reads only
    void *data;     // the class driver's copy
    ULONG inputLength;
    ULONG outputLength;
    ULONG information; // bytes returned
};

// A request that asks which operations a property supports and has room for exactly the 32-bit answer.
inline bool IsSupportQuery(const PropertyRequest &request) {
    return (request.property->Flags & (KSPROPERTY_TYPE_SETSUPPORT | KSPROPERTY_TYPE_BASICSUPPORT)) != 0 &&
           request.outputLength == sizeof(ULONG);
}

// Answers a support query. Returns STATUS_SUCCESS.
inline NTSTATUS AnswerSupport(PropertyRequest &request, ULONG access) {
    RtlCopyMemory(request.data, &access, sizeof(access));
    request.information = sizeof(access);
    return STATUS_SUCCESS;
}

inline bool IsGet(const PropertyRequest &request) {
    return (request.property->Flags & KSPROPERTY_TYPE_GET) != 0;
}

inline bool IsSet(const PropertyRequest &request) {
    return (request.property->Flags & KSPROPERTY_TYPE_SET) != 0;
}

// Where the answer to a get goes; null when there is no room for `size` bytes.
inline void *AnswerBuffer(const PropertyRequest &request, ULONG size) {
    return request.outputLength >= size ? request.data : nullptr;
}

// The block that answers a get: the property header that was asked for, then zeros. A get brings no data, so what is
// not written is whatever the memory held before. Sets the information to the block's size; null when there is no room.
template <class Block> Block *StartAnswer(PropertyRequest &request) {
    void *block = AnswerBuffer(request, sizeof(Block));
    if (block == nullptr)
        return nullptr;
    RtlZeroMemory(block, sizeof(Block));
    RtlCopyMemory(block, request.property, sizeof(KSPROPERTY));
    request.information = sizeof(Block);
    return static_cast<Block *>(block);
}

// What a set brings; null when it is shorter than `size` bytes. The input length counts the property header that a
// client sends in front, and the data lie in the output buffer: both must reach.
inline void *SettingBuffer(const PropertyRequest &request, ULONG size) {
    return request.inputLength >= size && request.outputLength >= size ? request.data : nullptr;
}

} // namespace uvc
