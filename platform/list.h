// Doubly linked lists of records whose entry is called `link`.
#pragma once

#include "platform/platform.h"

#include <cstddef>

// The record that an entry belongs to. The headers' CONTAINING_RECORD reaches through a null pointer for the offset,
// which is undefined.
template <class T> T *RecordOf(LIST_ENTRY *entry) {
    return reinterpret_cast<T *>(reinterpret_cast<UCHAR *>(entry) - offsetof(T, link));
}
