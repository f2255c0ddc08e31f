// The kernel's pools.
#pragma once

#include "host/executive/paged_arena.h"
#include "host/executive/place.h"
#include "host/executive/runtime.h"

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>

namespace host {

class Pool {
  public:
    explicit Pool(PagedArena &arena) : arena_(arena) {}
    ~Pool();
    Pool(const Pool &) = delete;
    Pool &operator=(const Pool &) = delete;

    // A junk-filled block between guards. The level, size and tag have been checked. Null only when memory is short.
    void *Allocate(bool paged, std::size_t size, ULONG tag, Place place);
    // `tag` null: any. Checks the block, its guards and what may not lie in it, then frees it.
    void Free(void *block, const ULONG *tag, const char *routine);

    // True when the range lies in one live block of non-paged pool.
    bool IsNonPaged(const void *begin, std::size_t size);
    Runtime::PoolUse Use();
    // A line per tag of what is outstanding and where the first of it came from; empty when nothing is.
    std::string Leaks();

  private:
    struct Block {
        std::size_t size;
        ULONG tag;
        bool paged;
        void *base;        // of the memory with its guards
        std::size_t whole; // its size
        Place place;
    };
    struct Quarantined {
        Block block;
        void *data;
    };

    void CheckGuards(const void *data, const Block &block, const char *routine) const;
    void Release(const Quarantined &freed);

    PagedArena &arena_;
    std::mutex mutex_;
    std::map<std::uintptr_t, Block> blocks_;
    Runtime::PoolUse use_;
    std::deque<Quarantined> quarantine_; // freed, kept for a while to see who still writes to them
    std::size_t quarantinedBytes_ = 0;
};

std::string TagText(ULONG tag);

// What may not lie in memory that goes: a held lock, an object waited for, a queued work item, an undeleted lookaside
// list, an MDL's buffer, an IRP under way.
void CheckFreedMemory(const void *begin, std::size_t size, const char *routine);

} // namespace host
