// Lists with a spin lock of the caller's, and the S-lists under the lookaside lists.
#include "host/executive/state.h"

using namespace host;

namespace {

// These routines disable interrupts rather than raise to DISPATCH_LEVEL, and may be called at any level. The caller may
// not hold the lock by other means at the same time; the lock is left as they found it.
class InterlockedGuard {
  public:
    InterlockedGuard(PKSPIN_LOCK lock, const char *routine) : lock_(lock), thread_(CurrentThread(routine)) {
        if (Machine().pagedArena.Contains(lock))
            Violation("spin lock in paged pool", routine, Format("%p", static_cast<void *>(lock)));
        before_ = thread_.irql;
        if (before_ <= DISPATCH_LEVEL) {
            SetIrql(thread_, DISPATCH_LEVEL);
            KeAcquireSpinLockAtDpcLevel(lock);
        } else {
            Violation("IRQL too high", routine, "the runtime has no levels above DISPATCH_LEVEL");
        }
    }
    ~InterlockedGuard() {
        KeReleaseSpinLockFromDpcLevel(lock_);
        SetIrql(thread_, before_);
    }
    InterlockedGuard(const InterlockedGuard &) = delete;
    InterlockedGuard &operator=(const InterlockedGuard &) = delete;

  private:
    PKSPIN_LOCK lock_;
    Thread &thread_;
    KIRQL before_;
};

// One lock for all S-lists: the runtime needs them right, not fast. The head keeps the first entry in Region, the
// depth in the low 16 bits of Alignment, as the 16-byte header of x64 does.
std::mutex slistMutex;

PSLIST_ENTRY First(PSLIST_HEADER head) {
    return reinterpret_cast<PSLIST_ENTRY>(head->Region);
}

void SetFirst(PSLIST_HEADER head, PSLIST_ENTRY first, int change) {
    head->Region = reinterpret_cast<ULONGLONG>(first);
    head->Alignment = (head->Alignment & ~0xFFFFull) | ((head->Alignment + static_cast<ULONGLONG>(change)) & 0xFFFF);
}

} // namespace

extern "C" {

PLIST_ENTRY NTAPI ExInterlockedInsertHeadList(PLIST_ENTRY head, PLIST_ENTRY entry, PKSPIN_LOCK lock) {
    InterlockedGuard guard(lock, "ExInterlockedInsertHeadList");
    const PLIST_ENTRY first = IsListEmpty(head) ? nullptr : head->Flink;
    InsertHeadList(head, entry);
    return first;
}

PLIST_ENTRY NTAPI ExInterlockedInsertTailList(PLIST_ENTRY head, PLIST_ENTRY entry, PKSPIN_LOCK lock) {
    InterlockedGuard guard(lock, "ExInterlockedInsertTailList");
    const PLIST_ENTRY last = IsListEmpty(head) ? nullptr : head->Blink;
    InsertTailList(head, entry);
    return last;
}

PLIST_ENTRY NTAPI ExInterlockedRemoveHeadList(PLIST_ENTRY head, PKSPIN_LOCK lock) {
    InterlockedGuard guard(lock, "ExInterlockedRemoveHeadList");
    return IsListEmpty(head) ? nullptr : RemoveHeadList(head);
}

PSINGLE_LIST_ENTRY NTAPI ExInterlockedPushEntryList(PSINGLE_LIST_ENTRY head, PSINGLE_LIST_ENTRY entry,
                                                    PKSPIN_LOCK lock) {
    InterlockedGuard guard(lock, "ExInterlockedPushEntryList");
    const PSINGLE_LIST_ENTRY first = head->Next;
    PushEntryList(head, entry);
    return first;
}

PSINGLE_LIST_ENTRY NTAPI ExInterlockedPopEntryList(PSINGLE_LIST_ENTRY head, PKSPIN_LOCK lock) {
    InterlockedGuard guard(lock, "ExInterlockedPopEntryList");
    return PopEntryList(head);
}

ULONG NTAPI ExInterlockedAddUlong(PULONG addend, ULONG increment, PKSPIN_LOCK lock) {
    InterlockedGuard guard(lock, "ExInterlockedAddUlong");
    return std::exchange(*addend, *addend + increment);
}

LARGE_INTEGER NTAPI ExInterlockedAddLargeInteger(PLARGE_INTEGER addend, LARGE_INTEGER increment, PKSPIN_LOCK lock) {
    InterlockedGuard guard(lock, "ExInterlockedAddLargeInteger");
    const LARGE_INTEGER before = *addend;
    addend->QuadPart += increment.QuadPart;
    return before;
}

void NTAPI InitializeSListHead(PSLIST_HEADER head) {
    *head = {};
}

USHORT NTAPI ExQueryDepthSList(PSLIST_HEADER head) {
    std::lock_guard lock(slistMutex);
    return static_cast<USHORT>(head->Alignment);
}

PSLIST_ENTRY NTAPI ExpInterlockedPushEntrySList(PSLIST_HEADER head, PSLIST_ENTRY entry) {
    std::lock_guard lock(slistMutex);
    const PSLIST_ENTRY first = First(head);
    entry->Next = first;
    SetFirst(head, entry, +1);
    return first;
}

PSLIST_ENTRY NTAPI ExpInterlockedPopEntrySList(PSLIST_HEADER head) {
    std::lock_guard lock(slistMutex);
    const PSLIST_ENTRY first = First(head);
    if (first != nullptr)
        SetFirst(head, first->Next, -1);
    return first;
}

PSLIST_ENTRY NTAPI ExpInterlockedFlushSList(PSLIST_HEADER head) {
    std::lock_guard lock(slistMutex);
    const PSLIST_ENTRY first = First(head);
    SetFirst(head, nullptr, -static_cast<int>(head->Alignment & 0xFFFF));
    return first;
}

} // extern "C"
