// A runtime for each test, and small drivers to run in it.
#pragma once

#include "host/executive/file.h"
#include "host/executive/pnp.h"
#include "host/executive/runtime.h"

#include <gtest/gtest.h>

namespace host::tests {

inline constexpr ULONG kTag = 0x74736554; // "Test"

inline LARGE_INTEGER Milliseconds(LONGLONG count) {
    return {.QuadPart = -count * kTicksPerMillisecond};
}

// Waits at most `milliseconds` of the runtime's time.
inline NTSTATUS WaitFor(PVOID object, LONGLONG milliseconds) {
    LARGE_INTEGER timeout = Milliseconds(milliseconds);
    return KeWaitForSingleObject(object, Executive, KernelMode, FALSE, &timeout);
}

class ExecutiveTest : public testing::Test {
  protected:
    Runtime runtime_;
};

} // namespace host::tests
