#include "host/executive/pool.h"

#include "host/executive/state.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace host {
namespace {

constexpr std::size_t kGuard = 16, kAlignment = 64;
constexpr unsigned char kGuardFill = 0xFD, kFreshFill = 0xA5, kFreedFill = 0xDD;
constexpr std::size_t kQuarantineBytes = 1 << 20, kLargestQuarantined = 64 << 10;

bool IsFilled(const void *begin, std::size_t size, unsigned char fill) {
    const auto *bytes = static_cast<const unsigned char *>(begin);
    return std::all_of(bytes, bytes + size, [=](unsigned char byte) { return byte == fill; });
}

} // namespace

std::string TagText(ULONG tag) {
    std::string text = "'....'";
    for (int i = 0; i < 4; ++i, tag >>= 8) {
        if ((tag & 0xFF) >= 0x20 && (tag & 0xFF) < 0x7F)
            text[1 + i] = static_cast<char>(tag & 0xFF);
    }
    return text;
}

Pool::~Pool() {
    for (const Quarantined &freed : quarantine_)
        Release(freed);
}

void *Pool::Allocate(bool paged, std::size_t size, ULONG tag, Place place) {
    // Blocks of a page or more begin on a page boundary. The others are aligned for what the headers declare as
    // cache-aligned (lookaside lists), which drivers put into any block.
    const std::size_t front = size >= PAGE_SIZE ? PAGE_SIZE : kAlignment;
    const std::size_t whole = (front + size + kGuard + front - 1) / front * front;
    void *base = paged ? arena_.Allocate(whole, front) : std::aligned_alloc(front, whole);
    if (base == nullptr)
        return nullptr;
    char *data = static_cast<char *>(base) + front;
    std::memset(data - kGuard, kGuardFill, kGuard);
    std::memset(data, kFreshFill, size);
    std::memset(data + size, kGuardFill, kGuard);
    PoisonMemory(base, front);
    PoisonMemory(data + size, whole - front - size);

    std::lock_guard lock(mutex_);
    blocks_[reinterpret_cast<std::uintptr_t>(data)] = {size, tag, paged, base, whole, place};
    ++use_.blocks;
    use_.bytes += size;
    return data;
}

void Pool::Free(void *data, const ULONG *tag, const char *routine) {
    Quarantined freed{.data = data};
    {
        std::lock_guard lock(mutex_);
        const auto found = blocks_.find(reinterpret_cast<std::uintptr_t>(data));
        if (found == blocks_.end()) {
            const bool twice = std::any_of(quarantine_.begin(), quarantine_.end(),
                                           [&](const Quarantined &old) { return old.data == data; });
            Violation(twice ? "pool freed twice" : "pool pointer not known", routine, Format("%p", data));
        }
        freed.block = found->second;
    }
    Block &block = freed.block;
    if (tag != nullptr && *tag != block.tag)
        Violation("pool tag differs", routine,
                  Format("%p was allocated as %s, is freed as %s, from ", data, TagText(block.tag).c_str(),
                         TagText(*tag).c_str()) +
                      block.place.Text());
    RequireIrqlAtMost(block.paged ? APC_LEVEL : DISPATCH_LEVEL, routine);
    UnpoisonMemory(block.base, block.whole);
    CheckGuards(data, block, routine);
    CheckFreedMemory(data, block.size, routine);
    std::memset(data, kFreedFill, block.size);

    std::lock_guard lock(mutex_);
    blocks_.erase(reinterpret_cast<std::uintptr_t>(data));
    --use_.blocks;
    use_.bytes -= block.size;
    if (kAddressSanitizer && !block.paged) { // it has a quarantine of its own
        std::free(block.base);
        return;
    }
    // Paged blocks are looked at only by their own frees, since whoever frees non-paged pool may be at DISPATCH_LEVEL.
    if (block.size > kLargestQuarantined || block.paged) {
        if (block.paged)
            arena_.Free(block.base);
        else
            std::free(block.base);
        return;
    }
    quarantine_.push_back(freed);
    quarantinedBytes_ += block.whole;
    while (quarantinedBytes_ > kQuarantineBytes) {
        quarantinedBytes_ -= quarantine_.front().block.whole;
        Release(quarantine_.front());
        quarantine_.pop_front();
    }
}

void Pool::CheckGuards(const void *data, const Block &block, const char *routine) const {
    const char *bytes = static_cast<const char *>(data);
    const bool before = IsFilled(bytes - kGuard, kGuard, kGuardFill);
    const bool behind = IsFilled(bytes + block.size, kGuard, kGuardFill);
    if (!before || !behind)
        Violation(before ? "pool overrun" : "pool underrun", routine,
                  Format("block %p of %zu bytes, tag %s, from ", data, block.size, TagText(block.tag).c_str()) +
                      block.place.Text());
}

void Pool::Release(const Quarantined &freed) {
    if (!IsFilled(freed.data, freed.block.size, kFreedFill))
        Violation("pool written after free", "ExFreePool",
                  Format("block %p of %zu bytes, tag %s, from ", freed.data, freed.block.size,
                         TagText(freed.block.tag).c_str()) +
                      freed.block.place.Text());
    std::free(freed.block.base);
}

bool Pool::IsNonPaged(const void *begin, std::size_t size) {
    const auto address = reinterpret_cast<std::uintptr_t>(begin);
    std::lock_guard lock(mutex_);
    const auto above = blocks_.upper_bound(address);
    if (above == blocks_.begin())
        return false;
    const auto &[start, block] = *std::prev(above);
    return !block.paged && address - start <= block.size && size <= block.size - (address - start);
}

Runtime::PoolUse Pool::Use() {
    std::lock_guard lock(mutex_);
    return use_;
}

std::string Pool::Leaks() {
    std::lock_guard lock(mutex_);
    struct Sum {
        std::uint64_t blocks = 0, bytes = 0;
        Place first;
    };
    std::map<std::pair<ULONG, bool>, Sum> sums;
    for (const auto &[address, block] : blocks_) {
        Sum &sum = sums[{block.tag, block.paged}];
        if (sum.blocks++ == 0)
            sum.first = block.place;
        sum.bytes += block.size;
    }
    std::string text;
    for (const auto &[key, sum] : sums)
        text += (text.empty() ? "" : "; ") +
                Format("%s pool tag %s: %llu blocks, %llu bytes, the first from ", key.second ? "paged" : "non-paged",
                       TagText(key.first).c_str(), static_cast<unsigned long long>(sum.blocks),
                       static_cast<unsigned long long>(sum.bytes)) +
                sum.first.Text();
    return text;
}

void CheckFreedMemory(const void *begin, std::size_t size, const char *routine) {
    State &state = Machine();
    state.dispatcher.CheckFreed(begin, size, routine);
    state.workQueue.CheckFreed(begin, size, routine);
    state.lookasides.CheckFreed(begin, size, routine);
    state.mdls.CheckFreed(begin, size, routine);
    state.irps.CheckFreed(begin, size, routine);
    state.lockOrder.Forget(begin, size);
}

namespace {

void *AllocateChecked(POOL_TYPE type, SIZE_T size, ULONG tag, const char *routine, Place place) {
    State &state = Machine();
    const bool paged = (type & 1) != 0;
    RequireIrqlAtMost(paged ? APC_LEVEL : DISPATCH_LEVEL, routine);
    if (size == 0)
        Violation("pool block of no bytes", routine, "tag " + TagText(tag));
    if (tag == 0)
        Violation("pool block without a tag", routine, Format("%llu bytes", static_cast<unsigned long long>(size)));
    if (state.faults.Fails(FaultSite::PoolAllocation))
        return nullptr;
    return state.pool.Allocate(paged, size, tag, place);
}

constexpr ULONG kNoTag = 0x656E6F4E; // "None", as the kernel has it

} // namespace
} // namespace host

using namespace host;

extern "C" {

PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE type, SIZE_T size, ULONG tag) {
    return AllocateChecked(type, size, tag, "ExAllocatePoolWithTag", CALLER_PLACE());
}

PVOID NTAPI ExAllocatePool(POOL_TYPE type, SIZE_T size) {
    return AllocateChecked(type, size, kNoTag, "ExAllocatePool", CALLER_PLACE());
}

PVOID NTAPI ExAllocatePoolWithTagPriority(POOL_TYPE type, SIZE_T size, ULONG tag, EX_POOL_PRIORITY) {
    return AllocateChecked(type, size, tag, "ExAllocatePoolWithTagPriority", CALLER_PLACE());
}

PVOID NTAPI ExAllocatePoolWithQuotaTag(POOL_TYPE type, SIZE_T size, ULONG tag) {
    constexpr int kFailInsteadOfRaise = 8;
    void *block = AllocateChecked(static_cast<POOL_TYPE>(type & ~kFailInsteadOfRaise), size, tag,
                                  "ExAllocatePoolWithQuotaTag", CALLER_PLACE());
    if (block == nullptr && (type & kFailInsteadOfRaise) == 0)
        ExRaiseStatus(STATUS_INSUFFICIENT_RESOURCES);
    return block;
}

void NTAPI ExFreePoolWithTag(PVOID block, ULONG tag) {
    Machine().pool.Free(block, tag != 0 ? &tag : nullptr, "ExFreePoolWithTag");
}

void NTAPI ExFreePool(PVOID block) {
    Machine().pool.Free(block, nullptr, "ExFreePool");
}

} // extern "C"
