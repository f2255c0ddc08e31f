// Control items: how a property request finds what answers it, and which UVC controls stand behind it. Providers
// contribute tables of items; the last one registered is asked first, the base table last.
#pragma once

#include "camera/uvc_control_table.h"
#include "platform/platform.h"

#include <span>

namespace uvc {

class PropertyProvider;
struct ControlItem;

// The property sets as the camera's operations number them.
enum ControlSet : ULONG {
    kVideoProcAmpSet = 3,
    kCameraControlSet = 4,
    kPrivateImageSet = 5,
    kPrivateColourMatrixSet = 7,
};

// What a control request asks for; decides the layout of its buffer. The blocks of single controls have numbers and
// sizes of their own.
enum ControlRequestKind : ULONG {
    kControlValue = 0,         // ControlValueBlock
    kControlRange = 1,         // ControlRangeBlock
    kControlExtendedValue = 2, // ControlExtendedBlock
    kControlRegisters = 3,     // 88 bytes, private image control 125
    kControlRegister = 4,      // 40 bytes, private image control 122
    kControlDefectList = 6,    // 1028 bytes, colour matrix controls 33 to 35
};

// Flags and capabilities, as in the video property sets.
enum ControlFlag : ULONG { kControlAutomatic = 1, kControlManual = 2 };

// Flags of the trigger controls: of the external trigger when it is off, and of the software trigger to make it fire.
enum TriggerFlag : ULONG { kTriggerOff = 4, kTriggerOnce = 8 };

struct ControlValueBlock {
    KSPROPERTY property;
    LONG value;
    ULONG flags;
    ULONG capabilities;
};
static_assert(sizeof(ControlValueBlock) == 40);

struct ControlRangeBlock {
    LONG minimum;
    LONG maximum;
    LONG defaultValue;
    LONG resolution;
    ULONG capabilities;
};
static_assert(sizeof(ControlRangeBlock) == 20);

struct ControlExtendedBlock {
    KSPROPERTY property;
    LONG value;
    ULONG flags;
    ULONG capabilities;
    LONG minimum;
    LONG maximum;
    LONG defaultValue;
};
static_assert(sizeof(ControlExtendedBlock) == 48);

struct UvcEntityMapping {
    ULONG kind;
    ULONG selector; // 0 ends the list
};

inline constexpr ULONG kMaximumMappings = 4;

// A request on its way to an item's handler.
struct ControlRequest {
    UvcCamera &camera;
    PropertyProvider *provider; // that owns the item; null for an item of the base table
    const ControlItem &item;
    UvcControl *controls[kMaximumMappings]; // the item's mappings; null for those that the camera lacks
    ULONG kind;                             // a ControlRequestKind, or any number
    void *buffer;
    ULONG length;
};

// IRQL: PASSIVE_LEVEL. Lock: none.
using ControlHandler = NTSTATUS (*)(const ControlRequest &request);

struct ControlItem {
    ULONG propertySet; // a ControlSet
    ULONG propertyId;
    ControlHandler get; // null: write-only
    ControlHandler set; // null: read-only
    ULONG modeCount;    // 0: exists without any UVC control; 1: manual only; 2: manual and automatic
    UvcEntityMapping mappings[kMaximumMappings]; // the value, then the automatic mode
};
static_assert(sizeof(ControlItem) == 64);

// Contributes items and may keep state for them. Lives in its camera. IRQL: PASSIVE_LEVEL.
class PropertyProvider {
  public:
    explicit PropertyProvider(std::span<const ControlItem> items = {}) : items_(items) {}
    PropertyProvider(const PropertyProvider &) = delete;
    PropertyProvider &operator=(const PropertyProvider &) = delete;

    // Leaves a provider without items; bit 0 of the flags frees its memory.
    virtual void Destroy(ULONG flags);
    // The row of the provider's table, or null.
    virtual const ControlItem *FindItem(ULONG set, ULONG id);
    // The provider itself when it has the item, else null.
    virtual PropertyProvider *FindOwner(ULONG set, ULONG id);
    // Prepares the provider for its camera, whose UVC controls are known. A failure keeps it from being registered.
    virtual NTSTATUS Attach(UvcCamera &camera);

  protected:
    ~PropertyProvider() = default;

    std::span<const ControlItem> items_;
};

// A provider that has a table of items and no state. Embedded in its camera.
class StatelessProvider final : public PropertyProvider {
  public:
    void Offer(std::span<const ControlItem> items) { items_ = items; }
};

// The row of a table, or null.
const ControlItem *FindControlItem(std::span<const ControlItem> items, ULONG set, ULONG id);

// The generic handlers: the first mapping is the value, the second the automatic mode. A get of kind 1 asks the camera
// nothing. A set drives the control even by a malformed request, which counts as value 0 and flags 0. The last request
// to the camera decides the status; without either control a get is STATUS_NOT_IMPLEMENTED.
NTSTATUS GetGenericControl(const ControlRequest &request);
NTSTATUS SetGenericControl(const ControlRequest &request);
// The same for a value in log2 seconds over a control in units of 100 us.
NTSTATUS GetExposureControl(const ControlRequest &request);
NTSTATUS SetExposureControl(const ControlRequest &request);
// The same for one half of the white-balance component control: blue or, for kWhiteBalanceRedId, red.
NTSTATUS GetWhiteBalanceComponent(const ControlRequest &request);
NTSTATUS SetWhiteBalanceComponent(const ControlRequest &request);

// Value and flags of a set request. Both are 0 unless the status is success: STATUS_NOT_IMPLEMENTED for a kind that has
// none, STATUS_INVALID_BUFFER_SIZE for a short buffer, STATUS_INVALID_PARAMETER for no buffer.
struct ControlSetting {
    LONG value = 0;
    ULONG flags = 0;
};
NTSTATUS ReadControlSetting(const ControlRequest &request, ControlSetting &setting);

// Everything that a get of kind 0, 1 or 2 may tell.
struct ControlAnswer {
    LONG value = 0;
    ULONG flags = kControlManual;
    ULONG capabilities = kControlManual;
    LONG minimum = 0;
    LONG maximum = 0;
    LONG defaultValue = 0;
    LONG resolution = 0;
};
// Writes those words of the answer that the request's kind has; the property header stays as it is.
// STATUS_NOT_IMPLEMENTED for another kind or a buffer that is missing or short for its kind.
NTSTATUS AnswerControl(const ControlRequest &request, const ControlAnswer &answer);
// Whether AnswerControl will succeed: for handlers that ask the camera first.
bool CanAnswerControl(const ControlRequest &request);

} // namespace uvc
