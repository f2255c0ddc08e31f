#include "platform/guarded_call.h"

// The compiler guards calls in a __try body and nothing else, so the body is exactly one, through a pointer that it
// cannot inline; and the exception's code is known only while the filter runs.
NTSTATUS GuardedCall(GuardedRoutine routine, void *context) {
    NTSTATUS status = STATUS_SUCCESS;
    __try {
        routine(context);
    } __except (status = static_cast<NTSTATUS>(GetExceptionCode()), EXCEPTION_EXECUTE_HANDLER) {
        return status;
    }
    return STATUS_SUCCESS;
}
