// What an application can do with files that the kernel's Zw routines do not offer to drivers, and how it says that it
// is an application.
#pragma once

#include "host/executive/runtime.h"

namespace host {

// Cancels the outstanding requests of a file, as NtCancelIoFile does. Does not wait for them. STATUS_INVALID_HANDLE.
// IRQL: PASSIVE_LEVEL.
NTSTATUS CancelFileIo(HANDLE file);

// An event for ZwDeviceIoControlFile; the KEVENT behind it comes from ObReferenceObjectByHandle. Close with ZwClose.
NTSTATUS CreateEventHandle(HANDLE *handle, EVENT_TYPE type, bool signalled);

// While it lives, the next Zw routine that this thread calls from outside the kernel is a user's system call: requests
// carry RequestorMode UserMode and drivers probe its buffers.
class UserMode {
  public:
    UserMode();
    ~UserMode();
    UserMode(const UserMode &) = delete;
    UserMode &operator=(const UserMode &) = delete;
};

// The last handle of a file is gone: IRP_MJ_CLEANUP.
void CleanUpFile(PFILE_OBJECT file);

} // namespace host
