// Which resource or transfer fails in a run. One plan serves the tests, the fuzzers and `uvcam --fault`.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace host {

// What can fail by its ordinal number. Each site counts from 1, beginning when the plan is armed.
enum class FaultSite { PoolAllocation, Irp, Mdl, WorkItem, Thread, UsbTransfer, UsbAbort };
inline constexpr int kFaultSiteCount = 7;

// What happens to the chosen USB transfer (control or bulk).
enum class TransferFault {
    Stall,  // the endpoint stalls
    Hang,   // never completes until it is cancelled or aborted
    Short,  // half of the data arrives
    Babble, // the device sends more than was asked for
    Gone,   // the device disappears at this transfer
    Delay,  // completes, but 2 seconds late
};

// What happens to the chosen abort of a pipe.
enum class AbortFault {
    Late,  // brings its transfers back at once and comes back itself 2 seconds later
    Never, // brings nothing back and comes back only when it is cancelled
    Early, // comes back at once, its transfers 2 seconds later; they cannot be cancelled any more
};

class FaultPlan {
  public:
    FaultPlan() = default;
    FaultPlan(const FaultPlan &other);
    FaultPlan &operator=(const FaultPlan &other);

    // "pool:3" fails the third pool allocation, "pool:3+" the third and every later one; likewise irp, mdl, workitem,
    // thread. "usb:7=stall" (hang, short, babble, gone, delay) hits the seventh USB transfer, "usb:7+=stall" all from
    // the seventh on, "abort:1=late" (never, early) the first abort of a pipe. Several are joined by commas. On a bad
    // text: nullopt and a one-line reason.
    static std::optional<FaultPlan> Parse(std::string_view text, std::string &reason);

    FaultPlan &FailNth(FaultSite site, std::uint64_t nth, bool andAllLater = false);
    FaultPlan &FailTransfer(std::uint64_t nth, TransferFault fault, bool andAllLater = false);
    FaultPlan &FailAbort(std::uint64_t nth, AbortFault fault, bool andAllLater = false);

    // Asked by the runtime at each site: counts the visit and says whether it fails. Any thread.
    bool Fails(FaultSite site);
    std::optional<TransferFault> NextTransfer();
    std::optional<AbortFault> NextAbort();

    // How many visits a site has seen since the plan was armed, and how many faults were dealt out. A sweep ends when
    // a run deals out none.
    std::uint64_t Visits(FaultSite site) const;
    std::uint64_t FaultsDealt() const;

  private:
    struct Rule {
        std::uint64_t nth = 0; // 0: no fault
        bool andAllLater = false;
        TransferFault transfer = TransferFault::Stall; // by the rule's site, one of the two
        AbortFault abort = AbortFault::Late;
    };
    Rule &RuleOf(FaultSite site) { return rules_[static_cast<std::size_t>(site)]; }
    bool Visit(FaultSite site);

    mutable std::mutex mutex_;
    std::array<Rule, kFaultSiteCount> rules_{};
    std::array<std::uint64_t, kFaultSiteCount> visits_{};
    std::uint64_t dealt_ = 0;
};

} // namespace host
