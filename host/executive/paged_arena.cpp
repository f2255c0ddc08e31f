#include "host/executive/paged_arena.h"

#include "host/executive/state.h"

#include <algorithm>
#include <sys/mman.h>

namespace host {

PagedArena::PagedArena() {
    base_ = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (base_ == MAP_FAILED)
        Violation("out of memory", "Runtime", "no room for the paged pool");
    free_[0] = kSize;
}

PagedArena::~PagedArena() {
    UnpoisonMemory(base_, highest_);
    munmap(base_, kSize);
}

void *PagedArena::Allocate(std::size_t size, std::size_t alignment) {
    constexpr std::size_t kGrain = 16;
    size = (size + kGrain - 1) & ~(kGrain - 1);
    std::lock_guard lock(mutex_);
    for (auto part = free_.begin(); part != free_.end(); ++part) {
        const auto [offset, room] = *part;
        const std::size_t start = (offset + alignment - 1) & ~(alignment - 1);
        if (start - offset + size > room)
            continue;
        free_.erase(part);
        if (start != offset)
            free_[offset] = start - offset;
        if (start + size != offset + room)
            free_[start + size] = offset + room - start - size;
        blocks_[start] = size;
        highest_ = std::max(highest_, start + size);
        used_.store(true, std::memory_order_relaxed);
        void *block = static_cast<char *>(base_) + start;
        UnpoisonMemory(block, size);
        return block;
    }
    return nullptr;
}

void PagedArena::Free(void *block) {
    std::lock_guard lock(mutex_);
    const auto found = blocks_.find(static_cast<std::size_t>(static_cast<char *>(block) - static_cast<char *>(base_)));
    auto [offset, size] = *found;
    PoisonMemory(block, size);
    blocks_.erase(found);
    auto next = free_.lower_bound(offset);
    if (next != free_.end() && offset + size == next->first) {
        size += next->second;
        next = free_.erase(next);
    }
    if (next != free_.begin() && std::prev(next)->first + std::prev(next)->second == offset)
        std::prev(next)->second += size;
    else
        free_[offset] = size;
}

// PageIn marks the arena resident only after it is, and PageOut marks it absent before it is: whatever the
// interleaving, memory that is accessible while marked absent does not last, and nothing worse than a missed fault can
// happen.
void PagedArena::PageOut() {
    if (!used_.load(std::memory_order_relaxed) || !resident_.load(std::memory_order_relaxed))
        return;
    if (resident_.exchange(false))
        mprotect(base_, kSize, PROT_NONE);
}

void PagedArena::PageIn() {
    mprotect(base_, kSize, PROT_READ | PROT_WRITE);
    resident_.store(true);
}

PagedAccess::PagedAccess() : thread_(&CurrentThread("copy")) {
    ++thread_->ownPagedAccess;
}
PagedAccess::~PagedAccess() {
    --thread_->ownPagedAccess;
}

} // namespace host
