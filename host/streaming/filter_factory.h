// Filter factories: what makes a device's filters findable (device interfaces) and openable (create item).
#pragma once

#include "host/streaming/device.h"

namespace host::streaming {

struct FilterFactory : Object, KSFILTERFACTORY {
    static constexpr ObjectKind kKind = ObjectKind::FilterFactory;

    LIST_ENTRY link; // Device::factories
    LIST_ENTRY filters;
    ObjectBag bag;
    UNICODE_STRING reference;
    ULONG flags;  // KSCREATE_ITEM_...
    bool dropped; // no longer openable; freed with its last filter
    ULONG interfaceCount;
    UNICODE_STRING interfaces[1]; // symbolic links, one to a category

    // All run under the device mutex.
    static void EnableAll(Device &device);
    static void DisableAll(Device &device);
    // Those whose flags have all of `flags` set.
    static void DropAll(Device &device, ULONG flags);
    static FilterFactory *Find(Device &device, const UNICODE_STRING &reference);
    void SetInterfaces(bool enabled);
    // Frees a dropped factory that has no filter any more.
    void FreeIfUnused();
    void StopPins(const char *routine);
};

} // namespace host::streaming
