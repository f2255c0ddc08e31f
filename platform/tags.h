// Pool tags, one to a purpose. The characters stand in memory order, as pool tools show them.
#pragma once

#include "platform/platform.h"

constexpr ULONG MakePoolTag(const char (&text)[5]) {
    return static_cast<ULONG>(static_cast<UCHAR>(text[0])) | static_cast<ULONG>(static_cast<UCHAR>(text[1])) << 8 |
           static_cast<ULONG>(static_cast<UCHAR>(text[2])) << 16 |
           static_cast<ULONG>(static_cast<UCHAR>(text[3])) << 24;
}

namespace pool_tag {
inline constexpr ULONG Context = MakePoolTag("KCNw");        // contexts, camera objects, engine records
inline constexpr ULONG AllocationNode = MakePoolTag("FppP"); // nodes of a device's allocation list
inline constexpr ULONG Descriptor = MakePoolTag("Ccvu");     // per-device copies of the streaming descriptors
inline constexpr ULONG PinFormat = MakePoolTag("UVCD");      // a pin's format copies and edited descriptors
inline constexpr ULONG UsbRequest = MakePoolTag("uvcU");     // descriptor and control request blocks
inline constexpr ULONG UsbPipe = MakePoolTag("uvcP");  // configuration data, interface information, transfer buffers
inline constexpr ULONG Array = MakePoolTag("Auvc");    // growable arrays, stream arrays, pool buffers, worker nodes
inline constexpr ULONG WorkItem = MakePoolTag("uvcW"); // work items
inline constexpr ULONG UserData = MakePoolTag("Ueep"); // dump buffer of the user-data store
} // namespace pool_tag
