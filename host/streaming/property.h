// Property requests: capture of the caller's bytes, search in the automation tables, checks before the handler.
#pragma once

#include "host/streaming/rules.h"

#include <span>

namespace host::streaming {

// The property sets of one automation table, the driver's or one of the model's own.
struct PropertyTable {
    ULONG count = 0;
    const KSPROPERTY_SET *sets = nullptr;
    ULONG itemSize = sizeof(KSPROPERTY_ITEM);
    bool driver = false;
    CallbackKind kind = CallbackKind::Filter;
};

PropertyTable DriverTable(const KSAUTOMATION_TABLE *table, CallbackKind kind);
template <SIZE_T N> PropertyTable OwnTable(const KSPROPERTY_SET (&sets)[N]) {
    return {.count = N, .sets = sets};
}

// Answers an IOCTL_KS_PROPERTY by the first table that has the property; sets IoStatus.Information and returns the
// status, without completing the request. While a handler runs, the request's system buffer holds the captured bytes:
// first the data, up to a multiple of 8, then the property. IRQL: PASSIVE_LEVEL.
//
// A support handler is asked first; STATUS_NOT_FOUND, STATUS_NOT_IMPLEMENTED and STATUS_SOME_NOT_MAPPED from it leave
// the request to the tables. Support of a set is asked of the item whose id is given; without one the set's presence is
// the answer.
//
// STATUS_PROPSET_NOT_FOUND   no table has the set
// STATUS_NOT_FOUND           the set has no such id, or the item no handler for the request
// STATUS_INVALID_BUFFER_SIZE the input is shorter than a KSPROPERTY or than MinProperty
// STATUS_BUFFER_OVERFLOW     a get with an empty output and a non-zero MinData, which Information tells
// STATUS_BUFFER_TOO_SMALL    the output is shorter than MinData
// STATUS_INVALID_PARAMETER   the flags name no single request
NTSTATUS AnswerProperty(PIRP irp, std::span<const PropertyTable> tables);

// Lengths of the request at hand, for handlers.
ULONG OutputLength(PIRP irp);
ULONG InputLength(PIRP irp);

// Answers with `size` bytes, or with the size alone when there is no room: an empty output gives
// STATUS_BUFFER_OVERFLOW and the size in Information, a short one STATUS_BUFFER_TOO_SMALL.
NTSTATUS AnswerBytes(PIRP irp, PVOID data, const void *bytes, SIZE_T size);

// Answers with a KSMULTIPLE_ITEM and its items; like AnswerBytes, but an output of a ULONG gets the size and one of a
// KSMULTIPLE_ITEM the head alone.
NTSTATUS AnswerList(PIRP irp, PVOID data, const void *items, ULONG count, ULONG itemSize);
NTSTATUS AnswerRanges(PIRP irp, PVOID data, const PKSDATARANGE *ranges, ULONG count);

// The parts of AnswerProperty that serialization needs: the item at an index of the set's array, and a get or set of an
// item with the checks that belong to it.
const KSPROPERTY_ITEM &ItemAt(const PropertyTable &table, const KSPROPERTY_SET &set, ULONG index);
NTSTATUS GetOrSet(const PropertyTable &table, const KSPROPERTY_ITEM &item, PIRP irp, KSPROPERTY &property, PVOID data);

// All properties of the set that have a SerializedSize, got into or set from one buffer: a KSPROPERTY_SERIALHDR, then a
// KSPROPERTY_SERIAL and the data of each, all at multiples of 4 (serialization.cpp). Each is a request of its own with
// a plain KSPROPERTY and that many bytes of data; the first that fails ends it with its status.
NTSTATUS SerializeSet(const PropertyTable &table, const KSPROPERTY_SET &set, PIRP irp, KSPROPERTY &property,
                      PVOID data);
NTSTATUS UnserializeSet(const PropertyTable &table, const KSPROPERTY_SET &set, PIRP irp, KSPROPERTY &property,
                        PVOID data);

// Basic support and default values of an item, from its handlers and its value table (basic_support.cpp).
NTSTATUS AnswerBasicSupport(PIRP irp, PVOID data, const KSPROPERTY_ITEM &item);
NTSTATUS AnswerDefaultValues(PIRP irp, PVOID data, const KSPROPERTY_ITEM &item);

// Copies between the caller's memory and ours; STATUS_ACCESS_VIOLATION when the caller's is not what it said.
NTSTATUS CopyFromCaller(PIRP irp, PVOID to, const void *from, SIZE_T size);
NTSTATUS CopyToCaller(PIRP irp, PVOID to, const void *from, SIZE_T size);

} // namespace host::streaming
