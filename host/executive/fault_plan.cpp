#include "host/executive/fault_plan.h"

#include <algorithm>
#include <charconv>

namespace host {
namespace {

constexpr std::pair<std::string_view, FaultSite> kSites[] = {
    {"pool", FaultSite::PoolAllocation}, {"irp", FaultSite::Irp},       {"mdl", FaultSite::Mdl},
    {"workitem", FaultSite::WorkItem},   {"thread", FaultSite::Thread}, {"usb", FaultSite::UsbTransfer},
    {"abort", FaultSite::UsbAbort},
};

constexpr std::pair<std::string_view, TransferFault> kTransferFaults[] = {
    {"stall", TransferFault::Stall},   {"hang", TransferFault::Hang}, {"short", TransferFault::Short},
    {"babble", TransferFault::Babble}, {"gone", TransferFault::Gone}, {"delay", TransferFault::Delay},
};

constexpr std::pair<std::string_view, AbortFault> kAbortFaults[] = {
    {"late", AbortFault::Late}, {"never", AbortFault::Never}, {"early", AbortFault::Early}};

template <class T, std::size_t N>
std::optional<T> Lookup(const std::pair<std::string_view, T> (&table)[N], std::string_view name) {
    const auto found =
        std::find_if(std::begin(table), std::end(table), [&](const auto &row) { return row.first == name; });
    return found != std::end(table) ? std::optional(found->second) : std::nullopt;
}

} // namespace

FaultPlan::FaultPlan(const FaultPlan &other) {
    *this = other;
}

// The copy is a plan armed anew: its counters begin at zero.
FaultPlan &FaultPlan::operator=(const FaultPlan &other) {
    std::array<Rule, kFaultSiteCount> rules;
    {
        std::lock_guard lock(other.mutex_);
        rules = other.rules_;
    }
    std::lock_guard lock(mutex_);
    rules_ = rules;
    visits_ = {};
    dealt_ = 0;
    return *this;
}

std::optional<FaultPlan> FaultPlan::Parse(std::string_view text, std::string &reason) {
    FaultPlan plan;
    while (!text.empty()) {
        const std::size_t comma = std::min(text.find(','), text.size());
        const std::string_view rule = text.substr(0, comma);
        text.remove_prefix(std::min(comma + 1, text.size()));
        const auto refuse = [&](const char *why) {
            reason = "fault \"" + std::string(rule) + "\": " + why;
            return std::nullopt;
        };

        const std::size_t colon = rule.find(':');
        if (colon == std::string_view::npos)
            return refuse("expected SITE:N");
        const auto site = Lookup(kSites, rule.substr(0, colon));
        if (!site)
            return refuse("the site is none of pool, irp, mdl, workitem, thread, usb, abort");
        std::string_view rest = rule.substr(colon + 1);
        std::uint64_t nth = 0;
        const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), nth);
        if (error != std::errc() || nth == 0)
            return refuse("expected a number from 1 behind the colon");
        rest.remove_prefix(static_cast<std::size_t>(end - rest.data()));
        const bool andAllLater = rest.starts_with('+');
        if (andAllLater)
            rest.remove_prefix(1);
        const std::string_view name = rest.starts_with('=') ? rest.substr(1) : std::string_view();
        if (*site == FaultSite::UsbAbort) {
            const auto fault = Lookup(kAbortFaults, name);
            if (!fault)
                return refuse("expected =late, =never or =early");
            plan.FailAbort(nth, *fault, andAllLater);
            continue;
        }
        if (*site != FaultSite::UsbTransfer) {
            if (!rest.empty())
                return refuse("unexpected text behind the number");
            plan.FailNth(*site, nth, andAllLater);
            continue;
        }
        const auto fault = Lookup(kTransferFaults, name);
        if (!fault)
            return refuse("expected =stall, =hang, =short, =babble, =gone or =delay");
        plan.FailTransfer(nth, *fault, andAllLater);
    }
    return plan;
}

FaultPlan &FaultPlan::FailNth(FaultSite site, std::uint64_t nth, bool andAllLater) {
    std::lock_guard lock(mutex_);
    RuleOf(site) = {.nth = nth, .andAllLater = andAllLater};
    return *this;
}

FaultPlan &FaultPlan::FailTransfer(std::uint64_t nth, TransferFault fault, bool andAllLater) {
    std::lock_guard lock(mutex_);
    RuleOf(FaultSite::UsbTransfer) = {.nth = nth, .andAllLater = andAllLater, .transfer = fault};
    return *this;
}

FaultPlan &FaultPlan::FailAbort(std::uint64_t nth, AbortFault fault, bool andAllLater) {
    std::lock_guard lock(mutex_);
    RuleOf(FaultSite::UsbAbort) = {.nth = nth, .andAllLater = andAllLater, .abort = fault};
    return *this;
}

// Mutex held.
bool FaultPlan::Visit(FaultSite site) {
    const Rule &rule = RuleOf(site);
    const std::uint64_t visit = ++visits_[static_cast<std::size_t>(site)];
    const bool fails = rule.nth != 0 && (visit == rule.nth || (rule.andAllLater && visit > rule.nth));
    dealt_ += fails;
    return fails;
}

bool FaultPlan::Fails(FaultSite site) {
    std::lock_guard lock(mutex_);
    return Visit(site);
}

std::optional<TransferFault> FaultPlan::NextTransfer() {
    std::lock_guard lock(mutex_);
    if (!Visit(FaultSite::UsbTransfer))
        return std::nullopt;
    return RuleOf(FaultSite::UsbTransfer).transfer;
}

std::optional<AbortFault> FaultPlan::NextAbort() {
    std::lock_guard lock(mutex_);
    if (!Visit(FaultSite::UsbAbort))
        return std::nullopt;
    return RuleOf(FaultSite::UsbAbort).abort;
}

std::uint64_t FaultPlan::Visits(FaultSite site) const {
    std::lock_guard lock(mutex_);
    return visits_[static_cast<std::size_t>(site)];
}

std::uint64_t FaultPlan::FaultsDealt() const {
    std::lock_guard lock(mutex_);
    return dealt_;
}

} // namespace host
