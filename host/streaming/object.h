// What the AVStream objects have in common: a head that stands before the structure the driver sees.
#pragma once

#include "host/streaming/guids.h"
#include "platform/platform.h"
#include "platform/tags.h"

#include <bit>
#include <cstddef>

namespace host::streaming {

// The structure that a list link is part of: Owner<&Filter::link>(entry).
template <class T> T *OwnerAt(LIST_ENTRY *entry, LIST_ENTRY T::*member) {
    // A pointer to a data member is the member's offset.
    return reinterpret_cast<T *>(reinterpret_cast<UCHAR *>(entry) - std::bit_cast<std::ptrdiff_t>(member));
}
template <auto Member> auto *Owner(LIST_ENTRY *entry) {
    return OwnerAt(entry, Member);
}

inline constexpr ULONG kTagObject = MakePoolTag("KsOb");   // factories, filters, pins, clocks
inline constexpr ULONG kTagBag = MakePoolTag("KsBg");      // object bags and their entries
inline constexpr ULONG kTagFormat = MakePoolTag("KsFm");   // connection formats
inline constexpr ULONG kTagProperty = MakePoolTag("KsPr"); // captured property requests
inline constexpr ULONG kTagStream = MakePoolTag("KsSt");   // stream requests, stream pointers
inline constexpr ULONG kTagName = MakePoolTag("KsNm");     // reference strings

enum class ObjectKind : ULONG { Device, FilterFactory, Filter, Pin, Clock };

struct Device;

// The first base of every object; the public structure (KSDEVICE, KSPIN, ...) is the second, so that it begins
// sizeof(Object) behind. A file object's FsContext points here.
struct Object {
    ULONG signature;
    ObjectKind kind;
    Object *parent;
    Device *device;

    void Initialise(ObjectKind itsKind, Object *itsParent, Device *itsDevice);

    // The object whose public structure this is; ends the run when it is none.
    static Object *FromPublic(PVOID object, const char *routine);
    // The object behind the request's file object, or null.
    static Object *FromIrp(PIRP irp);
};

// The object as one of `kind`, or the end of the run.
void RequireKind(const Object *object, ObjectKind kind, const char *routine);

template <class T, class Public> T *FromPublic(Public *structure, const char *routine) {
    auto *object = static_cast<T *>(structure);
    RequireKind(structure == nullptr ? nullptr : object, T::kKind, routine);
    return object;
}

} // namespace host::streaming
