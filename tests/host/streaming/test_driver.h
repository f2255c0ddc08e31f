// A small, well-behaved AVStream driver for the tests, with places where a test puts misbehaviour in.
#pragma once

#include "host/client/pin.h"
#include "host/executive/pnp.h"
#include "host/executive/runtime.h"
#include "host/streaming/guids.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace streaming_test {

using host::streaming::MakeGuid;

inline constexpr GUID kTestSet = MakeGuid(0x5B6E3F10, 0x1D2C, 0x4A7B, 0x91, 0x02, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66);
inline constexpr GUID kUnknownSet =
    MakeGuid(0x5B6E3F11, 0x1D2C, 0x4A7B, 0x91, 0x02, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66);
inline constexpr GUID kSubGrey = MakeGuid(0x30303859, 0, 0x10, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71);
inline constexpr GUID kSubYuy2 = MakeGuid(0x32595559, 0, 0x10, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71);

// Ids of kTestSet.
enum TestProperty : ULONG {
    kValue = 1,    // get and set of a ULONG behind the header; MinProperty 32, MinData 32; range 10..90 step 5, default
                   // 50; related to kReadOnly; SerializedSize 32
    kReadOnly = 2, // get only, no MinData
    kNothing = 3,  // no handler
    kSupported = 4, // a support handler that answers access flags of its own
    kEcho = 5,      // get: the bytes behind the property; shows the captured layout
};

// What a test may put in. Each is called, when set, in place of or before what the driver does.
struct Hooks {
    std::function<NTSTATUS(PKSDEVICE)> add;
    std::function<NTSTATUS(PKSDEVICE)> start;
    std::function<NTSTATUS(PKSFILTER, PIRP)> filterCreate;
    std::function<NTSTATUS(PKSPIN, PIRP)> pinCreate;
    std::function<NTSTATUS(PKSPIN, PIRP)> pinClose;
    std::function<NTSTATUS(PKSPIN)> process;
    std::function<NTSTATUS(PKSPIN, KSSTATE to, KSSTATE from)> setState;
    std::function<NTSTATUS(PIRP, PVOID data)> getValue;
    std::function<NTSTATUS(PIRP)> support; // of kSupported
};

// One device on a bus of its own, in virtual time, with its stack started. Everything is taken down by the destructor
// or by TearDown, which a test calls to see the checks that go with it.
class Machine {
  public:
    explicit Machine(Hooks hooks = {}, host::RuntimeOptions options = {});
    ~Machine() { TearDown(); }
    void TearDown();

    NTSTATUS StartStack();
    // The filter's symbolic link; empty when there is none.
    std::u16string Link();
    void Unplug() { host::RemoveDeviceStack(pdo_, true); }

    host::Runtime &Runtime() { return *runtime_; }
    PDEVICE_OBJECT Pdo() { return pdo_; }
    NTSTATUS StartStatus() const { return startStatus_; }
    // What was called, in order ("create", "state 0>1", "format", ...).
    std::vector<std::string> TakeLog();

  private:
    std::unique_ptr<host::Runtime> runtime_;
    PDRIVER_OBJECT bus_ = nullptr;
    PDRIVER_OBJECT driver_ = nullptr;
    PDEVICE_OBJECT pdo_ = nullptr;
    NTSTATUS startStatus_ = STATUS_SUCCESS;
};

inline void Sleep(LONGLONG milliseconds) {
    LARGE_INTEGER interval;
    interval.QuadPart = -milliseconds * host::kTicksPerMillisecond;
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
}

// The driver's two ranges, YUY2 and grey, have this size. Frames arrive every 10 ms while it runs.
inline constexpr LONG kWidth = 64;
inline constexpr LONG kHeight = 48;
inline constexpr ULONG kFrameSize = kWidth * kHeight;
inline constexpr LONGLONG kFrameInterval = 100'000;

// A grey format that the driver takes.
KS_DATAFORMAT_VIDEOINFOHEADER GreyFormat();

// An open filter and, when asked for, a pin with `format`.
struct OpenPin {
    host::client::Filter filter;
    host::client::Pin pin;
    NTSTATUS status;

    explicit OpenPin(Machine &machine, const KS_DATAFORMAT_VIDEOINFOHEADER &format = GreyFormat());
};

} // namespace streaming_test
