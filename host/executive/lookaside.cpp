#include "host/executive/lookaside.h"

#include "host/executive/state.h"

namespace host {

void LookasideTable::Add(void *list, std::size_t size, Place place, const char *routine) {
    std::lock_guard lock(mutex_);
    if (!lists_.emplace(list, Record{size, place}).second)
        Violation("lookaside list initialised twice", routine, Format("%p", list));
}

void LookasideTable::Remove(void *list, const char *routine) {
    std::lock_guard lock(mutex_);
    if (lists_.erase(list) == 0)
        Violation("lookaside list not known", routine, Format("%p", list));
}

void LookasideTable::CheckFreed(const void *begin, std::size_t size, const char *routine) {
    std::lock_guard lock(mutex_);
    const auto found = lists_.lower_bound(begin);
    if (found != lists_.end() && found->first < static_cast<const char *>(begin) + size)
        Violation("lookaside list freed", routine,
                  Format("list %p lies in freed memory %p, initialised at ", found->first, begin) +
                      found->second.place.Text());
}

std::string LookasideTable::Leaks() {
    std::lock_guard lock(mutex_);
    std::string text;
    for (const auto &[list, record] : lists_)
        text += (text.empty() ? "" : "; ") + Format("lookaside list %p from ", list) + record.place.Text();
    return text;
}

namespace {

constexpr USHORT kDepth = 4; // entries kept at most

void Initialise(GENERAL_LOOKASIDE &list, std::size_t size, POOL_TYPE type, PALLOCATE_FUNCTION allocate,
                PFREE_FUNCTION free, SIZE_T entry, ULONG tag, Place place, const char *routine) {
    if (entry < sizeof(SLIST_ENTRY))
        entry = sizeof(SLIST_ENTRY);
    Machine().lookasides.Add(&list, size, place, routine);
    list = {};
    InitializeSListHead(&list.ListHead);
    list.Depth = kDepth;
    list.MaximumDepth = 256;
    list.Type = type;
    list.Tag = tag;
    list.Size = static_cast<ULONG>(entry);
    list.Allocate = allocate != nullptr ? allocate : ExAllocatePoolWithTag;
    list.Free = free != nullptr ? free : ExFreePool;
}

void Delete(GENERAL_LOOKASIDE &list, const char *routine) {
    Machine().lookasides.Remove(&list, routine);
    while (PSLIST_ENTRY entry = ExpInterlockedPopEntrySList(&list.ListHead))
        list.Free(entry);
}

} // namespace
} // namespace host

using namespace host;

// The headers count allocations in a lookaside list without any lock, and mean it.
#if __has_feature(thread_sanitizer)
extern "C" const char *__tsan_default_suppressions() {
    return "race:ExAllocateFromPagedLookasideList\nrace:ExFreeToPagedLookasideList\n"
           "race:ExAllocateFromNPagedLookasideList\nrace:ExFreeToNPagedLookasideList\n";
}
#endif

extern "C" {

void NTAPI ExInitializePagedLookasideList(PPAGED_LOOKASIDE_LIST list, PALLOCATE_FUNCTION allocate, PFREE_FUNCTION free,
                                          ULONG, SIZE_T size, ULONG tag, USHORT) {
    constexpr const char *kRoutine = "ExInitializePagedLookasideList";
    RequireIrqlAtMost(APC_LEVEL, kRoutine);
    Initialise(list->L, sizeof *list, PagedPool, allocate, free, size, tag, CALLER_PLACE(), kRoutine);
}

void NTAPI ExDeletePagedLookasideList(PPAGED_LOOKASIDE_LIST list) {
    RequireIrqlAtMost(APC_LEVEL, "ExDeletePagedLookasideList");
    Delete(list->L, "ExDeletePagedLookasideList");
}

void NTAPI ExInitializeNPagedLookasideList(PNPAGED_LOOKASIDE_LIST list, PALLOCATE_FUNCTION allocate,
                                           PFREE_FUNCTION free, ULONG, SIZE_T size, ULONG tag, USHORT) {
    constexpr const char *kRoutine = "ExInitializeNPagedLookasideList";
    RequireIrqlAtMost(DISPATCH_LEVEL, kRoutine);
    Initialise(list->L, sizeof *list, NonPagedPool, allocate, free, size, tag, CALLER_PLACE(), kRoutine);
}

void NTAPI ExDeleteNPagedLookasideList(PNPAGED_LOOKASIDE_LIST list) {
    RequireIrqlAtMost(DISPATCH_LEVEL, "ExDeleteNPagedLookasideList");
    Delete(list->L, "ExDeleteNPagedLookasideList");
}

} // extern "C"
