// Object bags: what is put into the bag of an AVStream object is freed with that object.
#pragma once

#include "host/streaming/mutex.h"
#include "platform/platform.h"

namespace host::streaming {

class ObjectBag {
  public:
    // `guard` is the mutex that callers must hold: the device mutex for devices and factories, the filter's control
    // mutex for filters and pins, null for a bag that belongs to no object.
    void Initialise(StrictMutex *guard);
    // Frees every item, the newest first.
    void Empty();

    NTSTATUS Add(PVOID item, PFNKSFREE free);
    // The references to the item that remain in all bags.
    ULONG Remove(PVOID item, bool free);
    bool Contains(PVOID item) const;
    NTSTATUS CopyTo(ObjectBag &destination) const;

    void RequireGuard(const char *routine) const;

    static ObjectBag *From(KSOBJECT_BAG bag, const char *routine);
    KSOBJECT_BAG Public() { return this; }

  private:
    struct Item;
    struct Entry;
    Entry *Find(PVOID item) const;
    NTSTATUS AddEntry(Item *item);
    static ULONG Drop(Entry *entry, bool free);

    ULONG signature_;
    StrictMutex *guard_;
    LIST_ENTRY entries_;
};

} // namespace host::streaming
