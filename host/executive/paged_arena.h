// The memory of the paged pool. It is paged out whenever a thread raises to DISPATCH_LEVEL and paged in by the fault
// of a thread below it; a fault at DISPATCH_LEVEL or above is the bug check that every driver writer knows.
#pragma once

#include <atomic>
#include <cstddef>
#include <map>
#include <mutex>

namespace host {

struct Thread;

class PagedArena {
  public:
    PagedArena();
    ~PagedArena();
    PagedArena(const PagedArena &) = delete;
    PagedArena &operator=(const PagedArena &) = delete;

    // Null when the arena is full. `alignment` is a power of two, 16 at least.
    void *Allocate(std::size_t size, std::size_t alignment);
    void Free(void *block);

    bool Contains(const void *address) const {
        return address >= base_ && address < static_cast<const char *>(base_) + kSize;
    }

    // Cheap when nothing was touched since the last call. Any thread.
    void PageOut();
    void PageIn(); // async-signal-safe

  private:
    static constexpr std::size_t kSize = std::size_t{64} << 20;

    void *base_ = nullptr;
    std::size_t highest_ = 0; // end of what was ever handed out
    std::atomic<bool> resident_{true};
    std::atomic<bool> used_{false};
    std::mutex mutex_;
    std::map<std::size_t, std::size_t> free_; // offset -> size
    std::map<std::size_t, std::size_t> blocks_;
};

// While it lives, the runtime itself reads or writes memory for its caller, as Windows does below DISPATCH_LEVEL even
// when the request completes there.
class PagedAccess {
  public:
    PagedAccess();
    ~PagedAccess();
    PagedAccess(const PagedAccess &) = delete;
    PagedAccess &operator=(const PagedAccess &) = delete;

  private:
    Thread *thread_;
};

} // namespace host
