#include "apps/uvcam/exit_code.h"

#include "platform/platform.h"

#include <cstdio>

namespace uvcam {

namespace {

struct StatusRow {
    int status;
    const char *name;
    ExitCode code;
};

constexpr StatusRow kRows[] = {
#define UVCAM_STATUS(name, code)                                                                                       \
    { static_cast<int>(name), #name, ExitCode::code }
    UVCAM_STATUS(STATUS_ACCESS_DENIED, Permission),
    UVCAM_STATUS(STATUS_SHARING_VIOLATION, Busy),
    UVCAM_STATUS(STATUS_DEVICE_BUSY, Busy),
    UVCAM_STATUS(STATUS_NO_MATCH, NotOffered),
    UVCAM_STATUS(STATUS_NOT_IMPLEMENTED, NotOffered),
    UVCAM_STATUS(STATUS_NOT_FOUND, NotOffered),
    UVCAM_STATUS(STATUS_NO_SUCH_DEVICE, DeviceLost),
    UVCAM_STATUS(STATUS_DEVICE_DOES_NOT_EXIST, DeviceLost),
    UVCAM_STATUS(STATUS_DEVICE_REMOVED, DeviceLost),
    UVCAM_STATUS(STATUS_DELETE_PENDING, DeviceLost),
    UVCAM_STATUS(STATUS_DEVICE_NOT_CONNECTED, DeviceLost),
    UVCAM_STATUS(STATUS_IO_TIMEOUT, TimedOut),
    UVCAM_STATUS(STATUS_TIMEOUT, TimedOut),
    UVCAM_STATUS(STATUS_CANCELLED, DeviceLost),
    UVCAM_STATUS(STATUS_INSUFFICIENT_RESOURCES, Failed),
    UVCAM_STATUS(STATUS_NO_MEMORY, Failed),
    UVCAM_STATUS(STATUS_INVALID_PARAMETER, Failed),
    UVCAM_STATUS(STATUS_DEVICE_CONFIGURATION_ERROR, Failed),
    UVCAM_STATUS(STATUS_UNSUCCESSFUL, Failed),
    UVCAM_STATUS(STATUS_BUFFER_OVERFLOW, Failed),
    UVCAM_STATUS(STATUS_INVALID_DEVICE_STATE, Failed),
#undef UVCAM_STATUS
};

const StatusRow *FindRow(int status) {
    for (const StatusRow &row : kRows) {
        if (row.status == status)
            return &row;
    }
    return nullptr;
}

} // namespace

std::string StatusName(int status) {
    char number[16];
    std::snprintf(number, sizeof(number), "0x%08X", static_cast<unsigned>(status));
    const StatusRow *row = FindRow(status);
    return row != nullptr ? std::string(row->name) + " (" + number + ")" : number;
}

Failure StatusFailure(const std::string &what, int status) {
    const StatusRow *row = FindRow(status);
    return Failure(row != nullptr ? row->code : ExitCode::Failed, what + ": " + StatusName(status));
}

} // namespace uvcam
