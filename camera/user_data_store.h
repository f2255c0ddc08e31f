// The store of a camera of family C, in which it keeps the lists of its sensor's defective pixels.
// docs/camera-protocol.md has the layout.
#pragma once

#include "imaging/defect_pixels.h"
#include "platform/platform.h"

#include <cstdint>
#include <span>

namespace uvc {

class UvcCamera;

inline constexpr ULONG kUserDataHeaderBytes = 16;
// A header and one full list for each of three binning factors.
inline constexpr ULONG kUserDataMaximumBytes =
    kUserDataHeaderBytes + 3 * (4 + imaging::kMaximumDefectPixels * sizeof(imaging::DefectPixel));

// Writes header and lists, the empty ones left out; returns how many bytes that takes. IRQL: any.
ULONG EncodeUserData(const imaging::DefectPixelLists &lists, std::span<std::uint8_t, kUserDataMaximumBytes> bytes);

// Reads what the store begins with. An empty store has empty lists. So has one that is not as it should be, which the
// debug output then tells: the result is STATUS_DATA_ERROR. IRQL: PASSIVE_LEVEL.
NTSTATUS DecodeUserData(std::span<const std::uint8_t> bytes, imaging::DefectPixelLists &lists);

// The transfers, all at PASSIVE_LEVEL: a failing request or allocation ends them with its status.

// Leaves the lists as they were when the store cannot be read.
NTSTATUS LoadUserData(UvcCamera &camera, imaging::DefectPixelLists &lists);
// Clears the store, then writes the lists and the header last: a write that is cut off leaves an empty store.
NTSTATUS SaveUserData(UvcCamera &camera, const imaging::DefectPixelLists &lists);
NTSTATUS ClearUserData(UvcCamera &camera);
// Prints the whole store on the debug output, in hexadecimal.
NTSTATUS DumpUserData(UvcCamera &camera);

} // namespace uvc
