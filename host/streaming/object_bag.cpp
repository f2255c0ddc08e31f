#include "host/streaming/object_bag.h"

#include "host/streaming/object.h"
#include "host/streaming/rules.h"
#include "platform/pool.h"

#include <algorithm>

namespace host::streaming {

namespace {

constexpr ULONG kBagSignature = MakePoolTag("KsBg");

} // namespace

// One item, however many bags it is in.
struct ObjectBag::Item {
    PVOID block;
    PFNKSFREE free;
    LONG references;
};

struct ObjectBag::Entry {
    LIST_ENTRY link;
    Item *item;
    ULONG references; // how often this bag was given the item
};

void ObjectBag::Initialise(StrictMutex *guard) {
    signature_ = kBagSignature;
    guard_ = guard;
    InitializeListHead(&entries_);
}

void ObjectBag::Empty() {
    while (!IsListEmpty(&entries_)) {
        auto *entry = Owner<&Entry::link>(entries_.Blink);
        entry->references = 1;
        Drop(entry, true);
    }
}

NTSTATUS ObjectBag::Add(PVOID block, PFNKSFREE free) {
    if (Entry *entry = Find(block)) {
        ++entry->references;
        InterlockedIncrement(&entry->item->references);
        return STATUS_SUCCESS;
    }
    auto *item = static_cast<Item *>(PoolAllocateZeroed(NonPagedPool, sizeof(Item), kTagBag));
    if (item == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    *item = {.block = block, .free = free, .references = 0};
    NTSTATUS status = AddEntry(item);
    if (!NT_SUCCESS(status))
        ExFreePoolWithTag(item, kTagBag);
    return status;
}

NTSTATUS ObjectBag::AddEntry(Item *item) {
    auto *entry = static_cast<Entry *>(PoolAllocateZeroed(NonPagedPool, sizeof(Entry), kTagBag));
    if (entry == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    entry->item = item;
    entry->references = 1;
    InterlockedIncrement(&item->references);
    InsertTailList(&entries_, &entry->link);
    return STATUS_SUCCESS;
}

ULONG ObjectBag::Remove(PVOID block, bool free) {
    Entry *entry = Find(block);
    return entry == nullptr ? 0 : Drop(entry, free);
}

ULONG ObjectBag::Drop(Entry *entry, bool free) {
    Item *item = entry->item;
    LONG left = InterlockedDecrement(&item->references);
    if (--entry->references == 0) {
        RemoveEntryList(&entry->link);
        ExFreePoolWithTag(entry, kTagBag);
    }
    if (left > 0)
        return static_cast<ULONG>(left);
    if (free) {
        if (item->free != nullptr)
            item->free(item->block);
        else
            ExFreePool(item->block);
    }
    ExFreePoolWithTag(item, kTagBag);
    return 0;
}

bool ObjectBag::Contains(PVOID block) const {
    return Find(block) != nullptr;
}

ObjectBag::Entry *ObjectBag::Find(PVOID block) const {
    for (LIST_ENTRY *link = entries_.Flink; link != &entries_; link = link->Flink) {
        auto *entry = Owner<&Entry::link>(link);
        if (entry->item->block == block)
            return entry;
    }
    return nullptr;
}

NTSTATUS ObjectBag::CopyTo(ObjectBag &destination) const {
    for (LIST_ENTRY *link = entries_.Flink; link != &entries_; link = link->Flink) {
        Item *item = Owner<&Entry::link>(link)->item;
        if (destination.Contains(item->block))
            continue;
        NTSTATUS status = destination.AddEntry(item);
        if (!NT_SUCCESS(status))
            return status;
    }
    return STATUS_SUCCESS;
}

void ObjectBag::RequireGuard(const char *routine) const {
    if (guard_ != nullptr)
        guard_->RequireMine(routine);
}

ObjectBag *ObjectBag::From(KSOBJECT_BAG bag, const char *routine) {
    auto *known = static_cast<ObjectBag *>(bag);
    RequireLevel(routine, PASSIVE_LEVEL);
    if (known == nullptr || known->signature_ != kBagSignature)
        Violation("KsObject", routine, "not an object bag");
    return known;
}

} // namespace host::streaming

using namespace host::streaming;

extern "C" NTSTATUS NTAPI KsAllocateObjectBag(PKSDEVICE, KSOBJECT_BAG *objectBag) {
    RequireLevel("KsAllocateObjectBag", PASSIVE_LEVEL);
    auto *bag = static_cast<ObjectBag *>(PoolAllocateZeroed(NonPagedPool, sizeof(ObjectBag), kTagBag));
    if (bag == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    bag->Initialise(nullptr);
    *objectBag = bag->Public();
    return STATUS_SUCCESS;
}

// Only for bags made by KsAllocateObjectBag; the others go with their objects.
extern "C" void NTAPI KsFreeObjectBag(KSOBJECT_BAG objectBag) {
    ObjectBag *bag = ObjectBag::From(objectBag, "KsFreeObjectBag");
    bag->Empty();
    ExFreePoolWithTag(bag, kTagBag);
}

extern "C" NTSTATUS NTAPI KsAddItemToObjectBag(KSOBJECT_BAG objectBag, PVOID item, PFNKSFREE free) {
    ObjectBag *bag = ObjectBag::From(objectBag, "KsAddItemToObjectBag");
    bag->RequireGuard("KsAddItemToObjectBag");
    return bag->Add(item, free);
}

extern "C" ULONG NTAPI KsRemoveItemFromObjectBag(KSOBJECT_BAG objectBag, PVOID item, BOOLEAN free) {
    ObjectBag *bag = ObjectBag::From(objectBag, "KsRemoveItemFromObjectBag");
    bag->RequireGuard("KsRemoveItemFromObjectBag");
    return bag->Remove(item, free != FALSE);
}

extern "C" NTSTATUS NTAPI KsCopyObjectBagItems(KSOBJECT_BAG destination, KSOBJECT_BAG source) {
    ObjectBag *to = ObjectBag::From(destination, "KsCopyObjectBagItems");
    ObjectBag *from = ObjectBag::From(source, "KsCopyObjectBagItems");
    to->RequireGuard("KsCopyObjectBagItems");
    from->RequireGuard("KsCopyObjectBagItems");
    return from->CopyTo(*to);
}

extern "C" NTSTATUS NTAPI _KsEdit(KSOBJECT_BAG objectBag, PVOID *pointerToItem, ULONG newSize, ULONG oldSize,
                                  ULONG tag) {
    ObjectBag *bag = ObjectBag::From(objectBag, "_KsEdit");
    bag->RequireGuard("_KsEdit");
    PVOID old = *pointerToItem;
    bool mine = old != nullptr && bag->Contains(old);
    if (mine && newSize <= oldSize)
        return STATUS_SUCCESS;
    PVOID edited = PoolAllocateZeroed(PagedPool, newSize, tag);
    if (edited == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    if (old != nullptr)
        RtlCopyMemory(edited, old, std::min(oldSize, newSize));
    NTSTATUS status = bag->Add(edited, nullptr);
    if (!NT_SUCCESS(status)) {
        ExFreePoolWithTag(edited, tag);
        return status;
    }
    *pointerToItem = edited;
    if (mine)
        bag->Remove(old, true);
    return STATUS_SUCCESS;
}
