// The UVC controls that a camera's descriptors announce, with the attributes that the camera gave when it started.
#pragma once

#include "platform/platform.h"

namespace uvc {

class UvcCamera;

inline constexpr ULONG kMaximumUvcControls = 49;

// One control. Values are kept as they travel: up to 8 bytes, little-endian, of which `size` count. Everything but
// `current` stays as it was at the start; `current` is shared between the threads that make requests.
struct UvcControl {
    ULONG kind;     // of the entity: kInputTerminal, kProcessingUnit or kExtensionUnit
    ULONG selector; // UVC control selector
    ULONG unitId;   // bTerminalID or bUnitID
    UCHAR info;     // GET_INFO
    ULONG size;     // in bytes
    ULONGLONG current;
    ULONGLONG minimum;
    ULONGLONG maximum;
    ULONGLONG defaultValue;
    ULONGLONG resolution;
    bool rangeValid; // GET_MIN or GET_MAX succeeded
    bool defaultValid;
    bool resolutionValid;
};

class UvcControlTable {
  public:
    // Asks the camera for the first 49 controls that its camera terminal, processing unit and extension unit announce.
    // A control that fails GET_INFO or GET_CUR is left out; one that does not tell its length is there with size 0. The
    // table starts empty again. IRQL: PASSIVE_LEVEL.
    void Build(UvcCamera &camera);

    // Null when the camera does not have the control.
    UvcControl *Find(ULONG kind, ULONG selector);

  private:
    ULONG count_ = 0;
    UvcControl controls_[kMaximumUvcControls] = {};
};

// A value as a number: size 1 unsigned, size 2 signed, size 4 as 32 bits; any other size reads as 0.
LONG UvcControlNumber(const UvcControl &control, ULONGLONG value);

// GET_RES, GET_MIN, GET_MAX and GET_DEF into a control of the caller's own. IRQL: PASSIVE_LEVEL.
void UvcReadRange(UvcCamera &camera, UvcControl &control);

// GET_CUR into `value` and `current`, or neither on failure. IRQL: PASSIVE_LEVEL.
NTSTATUS UvcReadControl(UvcCamera &camera, UvcControl &control, ULONGLONG &value);
// SET_CUR from `value`, which becomes `current` first, whatever the camera answers. IRQL: PASSIVE_LEVEL.
NTSTATUS UvcWriteControl(UvcCamera &camera, UvcControl &control, ULONGLONG value);

} // namespace uvc
