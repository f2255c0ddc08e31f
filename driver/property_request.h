// The pieces of one property request, on their way from the class driver to whoever answers.
#pragma once

#include "platform/platform.h"

namespace uvc {

struct PropertyRequest {
    PIRP irp; // null for a request that the driver makes itself
    KSPROPERTY *property;
    void *instance; // instance data behind the property header, or null
    void *data;
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

} // namespace uvc
