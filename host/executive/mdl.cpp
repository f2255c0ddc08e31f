#include "host/executive/mdl.h"

#include "host/executive/state.h"

#include <cstdlib>

namespace host {
namespace {

constexpr auto kPageMask = static_cast<ULONG_PTR>(PAGE_SIZE - 1);
constexpr auto kUserLimit = ULONG_PTR{0x7FFF'FFFF'F000}; // Linux's, a little above Windows'

char *BufferOf(PMDL mdl) {
    return static_cast<char *>(MmGetMdlVirtualAddress(mdl));
}

void Describe(PMDL mdl, void *buffer, ULONG length) {
    const auto address = reinterpret_cast<ULONG_PTR>(buffer);
    mdl->StartVa = reinterpret_cast<PVOID>(address & ~kPageMask);
    mdl->ByteOffset = static_cast<ULONG>(address & kPageMask);
    mdl->ByteCount = length;
}

// The pages are touched, so that a bad address faults here, as an exception for the caller.
__attribute__((no_sanitize("thread", "address"))) void Touch(const char *begin, ULONG length) {
    for (const char *page = begin; page < begin + length; page += PAGE_SIZE)
        static_cast<void>(*const_cast<const volatile char *>(page));
    if (length != 0)
        static_cast<void>(*const_cast<const volatile char *>(begin + length - 1));
}

} // namespace

PMDL MdlTable::Allocate(void *buffer, ULONG length, Place place) {
    const SIZE_T size = MmSizeOfMdl(buffer, length);
    auto *mdl = static_cast<PMDL>(std::calloc(1, size));
    mdl->Size = static_cast<CSHORT>(size);
    Describe(mdl, buffer, length);
    std::lock_guard lock(mutex_);
    mdls_.emplace(mdl, place);
    return mdl;
}

void MdlTable::Check(PMDL mdl, const char *routine) {
    std::lock_guard lock(mutex_);
    if (!mdls_.contains(mdl))
        Violation("MDL not known", routine, Format("%p", static_cast<void *>(mdl)));
}

void MdlTable::Free(PMDL mdl, const char *routine) {
    std::lock_guard lock(mutex_);
    const auto found = mdls_.find(mdl);
    if (found == mdls_.end())
        Violation("MDL not known", routine, Format("%p, freed already?", static_cast<void *>(mdl)));
    if ((mdl->MdlFlags & MDL_PAGES_LOCKED) != 0)
        Violation("MDL freed while locked", routine,
                  Format("MDL %p from ", static_cast<void *>(mdl)) + found->second.Text());
    mdls_.erase(found);
    std::free(mdl);
}

void MdlTable::CheckFreed(const void *begin, std::size_t size, const char *routine) {
    std::lock_guard lock(mutex_);
    for (const auto &[mdl, place] : mdls_) {
        const char *buffer = BufferOf(mdl);
        if (buffer < static_cast<const char *>(begin) + size && buffer + mdl->ByteCount > begin)
            Violation("MDL outlives its buffer", routine,
                      Format("MDL %p describes freed memory %p, allocated at ", static_cast<void *>(mdl), begin) +
                          place.Text());
    }
}

std::string MdlTable::Leaks() {
    std::lock_guard lock(mutex_);
    std::string text;
    for (const auto &[mdl, place] : mdls_)
        text += (text.empty() ? "" : "; ") + Format("MDL %p from ", static_cast<void *>(mdl)) + place.Text();
    return text;
}

void FreeMdlChain(PMDL mdl) {
    while (mdl != nullptr) {
        const PMDL next = mdl->Next;
        if ((mdl->MdlFlags & MDL_PAGES_LOCKED) != 0)
            MmUnlockPages(mdl);
        Machine().mdls.Free(mdl, "IofCompleteRequest");
        mdl = next;
    }
}

} // namespace host

using namespace host;

extern "C" {

SIZE_T NTAPI MmSizeOfMdl(PVOID base, SIZE_T length) {
    return sizeof(MDL) + ADDRESS_AND_SIZE_TO_SPAN_PAGES(base, length) * sizeof(PFN_NUMBER);
}

PMDL NTAPI IoAllocateMdl(PVOID address, ULONG length, BOOLEAN secondary, BOOLEAN, PIRP irp) {
    constexpr const char *kRoutine = "IoAllocateMdl";
    RequireIrqlAtMost(DISPATCH_LEVEL, kRoutine);
    State &state = Machine();
    if (length == 0)
        Violation("MDL of no bytes", kRoutine, "");
    if (state.faults.Fails(FaultSite::Mdl))
        return nullptr;
    const PMDL mdl = state.mdls.Allocate(address, length, CALLER_PLACE());
    if (irp != nullptr && !secondary) {
        irp->MdlAddress = mdl;
    } else if (irp != nullptr) {
        PMDL *last = &irp->MdlAddress;
        while (*last != nullptr)
            last = &(*last)->Next;
        *last = mdl;
    }
    return mdl;
}

void NTAPI IoFreeMdl(PMDL mdl) {
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoFreeMdl");
    Machine().mdls.Free(mdl, "IoFreeMdl");
}

void NTAPI IoBuildPartialMdl(PMDL source, PMDL target, PVOID address, ULONG length) {
    constexpr const char *kRoutine = "IoBuildPartialMdl";
    Machine().mdls.Check(source, kRoutine);
    Machine().mdls.Check(target, kRoutine);
    const char *begin = static_cast<char *>(address);
    const char *sourceBegin = BufferOf(source);
    if (length == 0)
        length = static_cast<ULONG>(sourceBegin + source->ByteCount - begin);
    if (begin < sourceBegin || begin + length > sourceBegin + source->ByteCount)
        Violation("MDL beyond its source", kRoutine, Format("%p, %u bytes", address, length));
    Describe(target, address, length);
    target->MdlFlags = static_cast<CSHORT>((target->MdlFlags & MDL_ALLOCATED_FIXED_SIZE) | MDL_PARTIAL |
                                           (source->MdlFlags & (MDL_SOURCE_IS_NONPAGED_POOL | MDL_IO_PAGE_READ)));
    target->MappedSystemVa = address;
}

void NTAPI MmBuildMdlForNonPagedPool(PMDLX mdl) {
    constexpr const char *kRoutine = "MmBuildMdlForNonPagedPool";
    RequireIrqlAtMost(DISPATCH_LEVEL, kRoutine);
    State &state = Machine();
    state.mdls.Check(mdl, kRoutine);
    if (!state.pool.IsNonPaged(BufferOf(mdl), mdl->ByteCount) &&
        !state.devices.IsExtension(BufferOf(mdl), mdl->ByteCount))
        Violation("MDL buffer not in non-paged pool", kRoutine,
                  Format("%p, %u bytes", static_cast<void *>(BufferOf(mdl)), mdl->ByteCount));
    mdl->MdlFlags |= MDL_SOURCE_IS_NONPAGED_POOL;
    mdl->MappedSystemVa = BufferOf(mdl);
}

void NTAPI MmProbeAndLockPages(PMDL mdl, KPROCESSOR_MODE mode, LOCK_OPERATION operation) {
    constexpr const char *kRoutine = "MmProbeAndLockPages";
    RequireIrqlAtMost(APC_LEVEL, kRoutine);
    Machine().mdls.Check(mdl, kRoutine);
    if ((mdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_SOURCE_IS_NONPAGED_POOL)) != 0)
        Violation("MDL locked twice", kRoutine, Format("%p", static_cast<void *>(mdl)));
    const auto begin = reinterpret_cast<ULONG_PTR>(BufferOf(mdl));
    if (begin < PAGE_SIZE || (mode == UserMode && (begin >= kUserLimit || mdl->ByteCount > kUserLimit - begin)))
        ExRaiseStatus(STATUS_ACCESS_VIOLATION);
    Touch(BufferOf(mdl), mdl->ByteCount);
    mdl->MdlFlags |= MDL_PAGES_LOCKED | (operation != IoReadAccess ? MDL_WRITE_OPERATION : 0);
}

void NTAPI MmUnlockPages(PMDL mdl) {
    constexpr const char *kRoutine = "MmUnlockPages";
    RequireIrqlAtMost(DISPATCH_LEVEL, kRoutine);
    Machine().mdls.Check(mdl, kRoutine);
    if ((mdl->MdlFlags & MDL_PAGES_LOCKED) == 0)
        Violation("MDL not locked", kRoutine, Format("%p", static_cast<void *>(mdl)));
    mdl->MdlFlags &= static_cast<CSHORT>(~(MDL_PAGES_LOCKED | MDL_MAPPED_TO_SYSTEM_VA | MDL_WRITE_OPERATION));
    mdl->MappedSystemVa = nullptr;
}

PVOID NTAPI MmMapLockedPagesSpecifyCache(PMDLX mdl, KPROCESSOR_MODE, MEMORY_CACHING_TYPE, PVOID, ULONG,
                                         MM_PAGE_PRIORITY) {
    constexpr const char *kRoutine = "MmMapLockedPagesSpecifyCache";
    RequireIrqlAtMost(DISPATCH_LEVEL, kRoutine);
    Machine().mdls.Check(mdl, kRoutine);
    if ((mdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_PARTIAL)) == 0)
        Violation("MDL not locked", kRoutine,
                  Format("%p is mapped, but describes no locked pages", static_cast<void *>(mdl)));
    mdl->MdlFlags |= MDL_MAPPED_TO_SYSTEM_VA;
    mdl->MappedSystemVa = BufferOf(mdl);
    return mdl->MappedSystemVa;
}

PVOID NTAPI MmMapLockedPages(PMDL mdl, KPROCESSOR_MODE mode) {
    return MmMapLockedPagesSpecifyCache(mdl, mode, MmCached, nullptr, TRUE, NormalPagePriority);
}

void NTAPI MmUnmapLockedPages(PVOID, PMDL mdl) {
    Machine().mdls.Check(mdl, "MmUnmapLockedPages");
    mdl->MdlFlags &= static_cast<CSHORT>(~MDL_MAPPED_TO_SYSTEM_VA);
}

void NTAPI ProbeForRead(const void *address, SIZE_T length, ULONG alignment) {
    RequireIrqlAtMost(APC_LEVEL, "ProbeForRead");
    if (length == 0)
        return;
    const auto begin = reinterpret_cast<ULONG_PTR>(address);
    if ((begin & (alignment - 1)) != 0)
        ExRaiseStatus(STATUS_DATATYPE_MISALIGNMENT);
    if (begin < PAGE_SIZE || begin >= kUserLimit || length > kUserLimit - begin)
        ExRaiseStatus(STATUS_ACCESS_VIOLATION);
}

// Unlike ProbeForRead it touches every page.
void NTAPI ProbeForWrite(PVOID address, SIZE_T length, ULONG alignment) {
    ProbeForRead(address, length, alignment);
    if (length != 0)
        Touch(static_cast<const char *>(address), static_cast<ULONG>(length));
}

} // extern "C"
