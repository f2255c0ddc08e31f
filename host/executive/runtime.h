// The Linux runtime: one object that stands for the booted machine. While it lives, the kernel's exported routines
// (defined in this folder under their own names) work on it; when it is destroyed it checks that nothing is left.
//
// Every rule that is broken ends the process with one line on stderr:
//   uvc runtime: violation: <rule>: <routine>: <object and detail>
#pragma once

#include "host/executive/fault_plan.h"
#include "platform/platform.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

namespace host {

// Time in the kernel's unit of 100 ns.
using Ticks = LONGLONG;
inline constexpr Ticks kTicksPerMillisecond = 10'000;

enum class ClockKind {
    Virtual, // moves to the next deadline when every attached thread waits; never otherwise
    Real,    // the machine's
};

struct RuntimeOptions {
    ClockKind clock = ClockKind::Virtual;
    FaultPlan faults;
    std::filesystem::path registryFile;                 // empty: the registry lives in memory only
    std::function<void(std::string_view)> onDebugPrint; // every DbgPrint text; called on the printing thread
    ULONG ntVersion = 0x06010000;                       // what RtlIsNtDdiVersionAvailable compares with
};

class Runtime {
  public:
    // At most one lives in a process at a time. The constructing thread is attached.
    explicit Runtime(RuntimeOptions options = {});
    // Ends the runtime's own threads, then checks for leaks: pool by tag, IRPs, MDLs, work items, handles, object
    // references, threads, held locks. Anything left is a violation that names the tag or kind and the place it came
    // from.
    ~Runtime();
    Runtime(const Runtime &) = delete;
    Runtime &operator=(const Runtime &) = delete;

    static Runtime &Current();

    // The faults in force. Arming a plan starts its counters at zero.
    void Arm(const FaultPlan &plan);
    FaultPlan &Faults();

    // System time, and whether it is virtual.
    Ticks Now() const;
    bool HasVirtualTime() const;

    // Bytes and blocks of pool now outstanding.
    struct PoolUse {
        std::uint64_t blocks = 0;
        std::uint64_t bytes = 0;
    };
    PoolUse OutstandingPool() const;

    // The sum of all debug-print texts since the start.
    std::string DebugLog() const;

    class State;
    State &Internal() { return *state_; }

  private:
    std::unique_ptr<State> state_;
};

// A thread of an application or of a model, attached to the runtime for its whole life. Threads that were not started
// this way (or by PsCreateSystemThread) and are not the runtime's creator may not call kernel routines. Joining lets
// virtual time move on.
class AttachedThread {
  public:
    AttachedThread(std::string name, std::function<void()> body);
    ~AttachedThread();
    void Join();

  private:
    std::unique_ptr<std::thread> thread_;
    PVOID done_ = nullptr;
};

// Ends the process with the one clear line. Host code above the executive uses it for its own rules.
[[noreturn]] void Violation(const char *rule, const char *routine, const std::string &detail);

} // namespace host
