#include "tests/driver/property_oracle.h"

#include <algorithm>
#include <initializer_list>

namespace uvc::driver_test {

namespace {

using host::cameras::CameraControl;
using host::cameras::Family;

constexpr GUID kDeviceInformation = {0x96427893, 0x8DB4, 0x42C5, {0xBD, 0xAC, 0x1E, 0x01, 0x10, 0x67, 0x2A, 0x4D}};
constexpr GUID kDriverInformation = {0xC3B485C2, 0x8160, 0x4AA6, {0xBB, 0xFE, 0x5D, 0xBB, 0xED, 0xF4, 0x25, 0x04}};
constexpr GUID kImage = {0x70057F54, 0x0649, 0x425E, {0xBF, 0x47, 0xCC, 0x86, 0x21, 0x03, 0xB3, 0x3E}};
constexpr GUID kParameters = {0x6E0C59B1, 0x3C83, 0x4A78, {0x98, 0x38, 0x10, 0xD5, 0xC8, 0x83, 0xE3, 0xCB}};
constexpr GUID kColourMatrix = {0x06C9E87A, 0x275F, 0x4BBD, {0xBD, 0x76, 0x74, 0xDD, 0xF8, 0xA4, 0x94, 0x03}};

constexpr ULONG kHeader = sizeof(KSPROPERTY);
constexpr ULONG kDescription = sizeof(KSPROPERTY_DESCRIPTION);
// Two members lists: a stepped range and a default.
constexpr ULONG kValueTable =
    kDescription + 2 * sizeof(KSPROPERTY_MEMBERSHEADER) + sizeof(KSPROPERTY_STEPPING_LONG) + sizeof(LONG);
static_assert(kValueTable == 92);

// Entities, by UVC descriptor subtype.
constexpr ULONG kTerminal = 2, kUnit = 5, kExtension = 6;

std::vector<FilterItem> MakeItems() {
    std::vector<FilterItem> items;
    auto add = [&](unsigned number, const GUID &set, bool settable, bool support, ULONG size,
                   std::initializer_list<ULONG> ids) {
        for (ULONG id : ids)
            items.push_back({number, &set, id, size, size, true, settable, support});
    };
    add(1, kDeviceInformation, false, false, 288, {100, 101, 103});
    add(1, kDeviceInformation, false, false, 296, {102});
    add(2, kDriverInformation, true, true, 144, {0});
    add(2, kDriverInformation, true, true, 424, {1});
    add(3, PROPSETID_VIDCAP_VIDEOPROCAMP, true, false, 40, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 13});
    add(4, PROPSETID_VIDCAP_CAMERACONTROL, true, false, 40, {0, 1, 2, 3, 4, 5, 6, 7, 8, 10, 11, 12, 13, 14, 15, 16});
    add(5, kImage, true, true, 48, {101, 102, 107, 106, 115, 109, 201, 202, 203, 204, 205, 206, 118,
                                    119, 210, 211, 212, 213, 214, 215, 216, 226, 227, 228, 229, 124});
    add(5, kImage, true, true, 88, {125});
    add(5, kImage, true, true, 40, {122});
    items.push_back(
        {6, &PROPSETID_VIDCAP_VIDEOCONTROL, KSPROPERTY_VIDEOCONTROL_FRAME_RATES, 40, 0, true, false, false});
    add(6, PROPSETID_VIDCAP_VIDEOCONTROL, false, false, 32, {KSPROPERTY_VIDEOCONTROL_CAPS});
    add(6, PROPSETID_VIDCAP_VIDEOCONTROL, true, false, 32, {KSPROPERTY_VIDEOCONTROL_MODE});
    add(7, kParameters, true, true, 4, {1, 2, 3, 4, 5, 10, 11, 12, 14, 16, 17, 18, 20, 21, 22, 23, 24, 25, 26, 27});
    add(7, kParameters, true, true, 8, {15, 19});
    add(7, kParameters, true, true, 10, {6});
    add(8, PROPSETID_VIDCAP_DROPPEDFRAMES, false, false, 48, {KSPROPERTY_DROPPEDFRAMES_CURRENT});
    add(9, kColourMatrix, true, true, 48, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 32});
    add(9, kColourMatrix, true, true, 1028, {33, 34, 35});
    return items;
}

// The set's number among the camera's controls; 0 for a set without controls.
ULONG ControlSetOf(const FilterItem &item) {
    switch (item.number) {
    case 3:
    case 4:
    case 5:
        return item.number;
    case 9:
        return 7;
    default:
        return 0;
    }
}

template <class... Requests> bool Stalls(const CameraControl &control, Requests... requests) {
    return ((control.stalls & host::cameras::StallOf(requests)) | ...) != 0;
}

// What the driver takes for the control's length: the standard's, or in an extension unit what the camera says.
std::size_t LengthOf(const CameraControl &control) {
    if (static_cast<ULONG>(control.kind) != kExtension)
        return control.Size();
    return Stalls(control, host::cameras::kGetLen) ? 0 : control.claimedLength.value_or(control.Size());
}

PropertyAnswer Failed(NTSTATUS status) {
    return {status, 0};
}

} // namespace

std::span<const FilterItem> FilterItems() {
    static const std::vector<FilterItem> items = MakeItems();
    return items;
}

// A control item: what stands behind it on the camera. An item of neither entity always exists where it is listed.
struct PropertyOracle::Row {
    struct Entity {
        ULONG kind = 0;
        ULONG selector = 0;
    };
    ULONG set;
    ULONG id;
    Entity value{};
    Entity automatic{};
    bool readable = true;
    Feature listed = Feature::None; // which the camera must have for the item to be in the tables at all
    Feature works = Feature::None;  // and for its requests to succeed
};

namespace {

using Row = PropertyOracle::Row;
using Feature = PropertyOracle::Feature;

const Row kBaseRows[] = {
    {3, 0, {kUnit, 2}},
    {3, 1, {kUnit, 3}},
    {3, 2, {kUnit, 6}, {kUnit, 16}},
    {3, 3, {kUnit, 7}},
    {3, 4, {kUnit, 8}},
    {3, 5, {kUnit, 9}},
    {3, 7, {kUnit, 10}, {kUnit, 13}},
    {3, 8, {kUnit, 1}},
    {3, 9, {kUnit, 4}},
    {3, 10, {kUnit, 14}},
    {3, 11, {kUnit, 15}},
    {4, 2, {kTerminal, 15}},
    {4, 3, {kTerminal, 11}},
    {4, 4, {kTerminal, 4}},
    {4, 5, {kTerminal, 9}},
    {4, 6, {kTerminal, 6}, {kTerminal, 8}},
    {5, 101, {kUnit, 12}},
    {5, 102, {kUnit, 12}},
    {5, 109, {kTerminal, 4}},
};

// Families A and B, in front of the base rows. Family B has those of colour cameras before them.
const Row kExtendedRows[] = {
    {3, 9, {kUnit, 4}, {kExtension, 2}},
    {4, 4, {kTerminal, 4}, {kExtension, 1}},
    {5, 106, {kExtension, 4}},
    {5, 107, {kExtension, 3}, {}, false},
    {5, 109, {kTerminal, 4}, {kExtension, 1}},
    {5, 115, {kExtension, 5}},
    {5, 122, {kExtension, 8}},
    {5, 125, {kExtension, 6}, {kExtension, 7}},
    {5, 201, {kExtension, 9}},
    {5, 202, {kExtension, 10}},
    {5, 203, {kExtension, 11}},
    {5, 204, {kExtension, 12}},
    {5, 205, {kExtension, 13}},
    {5, 213, {kExtension, 15}, {kExtension, 5}},
};

constexpr Row Kept(ULONG set, ULONG id, Feature listed = Feature::None, Feature works = Feature::None) {
    return {.set = set, .id = id, .listed = listed, .works = works};
}

// What the driver itself does to the colours of families B and C.
const Row kColourRows[] = {
    Kept(3, 7, Feature::Colour),      Kept(5, 101, Feature::Colour),
    Kept(5, 102, Feature::Colour),    Kept(5, 107, Feature::Colour),
    Kept(5, 206, Feature::Colour),    Kept(7, 0, {}, Feature::Colour),
    Kept(7, 1, {}, Feature::Colour),  Kept(7, 2, {}, Feature::Colour),
    Kept(7, 3, {}, Feature::Colour),  Kept(7, 4, {}, Feature::Colour),
    Kept(7, 5, {}, Feature::Colour),  Kept(7, 6, {}, Feature::Colour),
    Kept(7, 7, {}, Feature::Colour),  Kept(7, 8, {}, Feature::Colour),
    Kept(7, 9, {}, Feature::Colour),  Kept(7, 10),
    Kept(7, 11, {}, Feature::Colour), Kept(7, 12, {}, Feature::Colour),
};

// The rest of family C.
const Row kIndustrialRows[] = {
    {3, 9, {kUnit, 4}},
    {4, 4, {kTerminal, 4}},
    Kept(4, 6, {}, Feature::Focus),
    Kept(5, 106),
    {5, 109, {kTerminal, 4}},
    {5, 115, {kTerminal, 17}},
    {5, 118, {kExtension, 1}, {}, true, Feature::Region},
    {5, 119, {kExtension, 2}, {}, true, Feature::Region},
    Kept(5, 122, Feature::Registers),
    Kept(5, 124, {}, Feature::Focus),
    Kept(5, 201),
    Kept(5, 202),
    Kept(5, 210),
    {5, 211, {kExtension, 3}, {}, true, Feature::Region},
    Kept(5, 212),
    {5, 213, {kTerminal, 17}},
    Kept(5, 214, Feature::Registers),
    Kept(5, 215, Feature::Registers),
    Kept(5, 216, Feature::Registers),
    Kept(5, 226, Feature::Registers),
    Kept(5, 227, Feature::Registers),
    Kept(5, 228, Feature::Registers),
    Kept(5, 229, Feature::Registers),
    Kept(7, 32),
    Kept(7, 33),
    Kept(7, 34),
    Kept(7, 35),
};

} // namespace

PropertyOracle::PropertyOracle(const host::cameras::SimulatedCamera &camera)
    : model_(camera.model()), controls_(camera.Controls()) {}

// A control whose kind or value cannot be read is none for the driver; one without a length has nothing to read.
const CameraControl *PropertyOracle::Control(ULONG kind, ULONG selector) const {
    for (const CameraControl &control : controls_) {
        if (static_cast<ULONG>(control.kind) == kind && control.selector == selector)
            return LengthOf(control) != 0 && Stalls(control, host::cameras::kGetInfo, host::cameras::kGetCur)
                       ? nullptr
                       : &control;
    }
    return nullptr;
}

bool PropertyOracle::Has(Feature feature) const {
    switch (feature) {
    case Feature::Colour:
        return model_.colour;
    case Feature::Focus:
        return Control(kTerminal, 6) != nullptr;
    case Feature::Region:
        return Control(kExtension, 1) != nullptr || Control(kExtension, 2) != nullptr ||
               Control(kExtension, 3) != nullptr;
    case Feature::Registers:
        return model_.registerBlock;
    default:
        return true;
    }
}

const PropertyOracle::Row *PropertyOracle::Find(ULONG set, ULONG id) const {
    std::vector<std::span<const Row>> tables;
    if (model_.family == Family::C)
        tables = {kColourRows, kIndustrialRows};
    else if (model_.family == Family::B)
        tables = {kColourRows, kExtendedRows};
    else if (model_.family == Family::A)
        tables = {kExtendedRows};
    tables.push_back(kBaseRows);
    for (std::span<const Row> table : tables)
        for (const Row &row : table)
            if (row.set == set && row.id == id && Has(row.listed))
                return &row;
    return nullptr;
}

bool PropertyOracle::Exists(const Row &row) const {
    return row.value.kind == 0 || Control(row.value.kind, row.value.selector) != nullptr ||
           Control(row.automatic.kind, row.automatic.selector) != nullptr;
}

bool PropertyOracle::Offers(const FilterItem &item) const {
    if (item.number == 7)
        return IsParameterSupported(item.id);
    const Row *row = Find(ControlSetOf(item), item.id);
    // Items of the standard sets are asked for their range, which an item that does not work has not.
    const bool standard = item.number == 3 || item.number == 4;
    return row != nullptr && Exists(*row) && (!standard || Has(row->works));
}

bool PropertyOracle::IsParameterSupported(ULONG id) const {
    switch (id) {
    case 1:
    case 2:
    case 6:
    case 10:
    case 12:
    case 17:
    case 18:
    case 24:
    case 25:
    case 26:
        return true;
    case 3:
    case 4:
    case 5:
    case 11:
        return model_.family == Family::A || model_.family == Family::B;
    case 14:
    case 15:
    case 19:
        return model_.family == Family::C && model_.colour;
    case 16:
        return model_.family == Family::C;
    case 20:
    case 21:
    case 22:
    case 23:
    case 27:
        return model_.family == Family::C && model_.registerBlock;
    default:
        return false;
    }
}

NTSTATUS PropertyOracle::AccessParameter(ULONG id, bool set) const {
    switch (id) {
    case 4: // of family C too, where the camera has a revision
        if (model_.family == Family::Generic || set)
            return STATUS_NOT_IMPLEMENTED;
        return model_.family != Family::C || model_.firmwareRevision != 0 ? STATUS_SUCCESS : STATUS_NOT_IMPLEMENTED;
    case 5:
    case 15:
    case 19:
        return IsParameterSupported(id) && !set ? STATUS_SUCCESS : STATUS_NOT_IMPLEMENTED;
    case 20:
    case 21:
    case 22:
    case 23:
        return model_.userData && set ? STATUS_SUCCESS : STATUS_NOT_IMPLEMENTED;
    case 3:
    case 11:
    case 24:
        return IsParameterSupported(id) && set ? STATUS_SUCCESS : STATUS_NOT_IMPLEMENTED;
    default:
        return IsParameterSupported(id) ? STATUS_SUCCESS : STATUS_NOT_IMPLEMENTED;
    }
}

NTSTATUS PropertyOracle::AccessControl(const Row *row, bool set) const {
    if (row == nullptr || (!set && !row->readable) || !Has(row->works))
        return STATUS_NOT_IMPLEMENTED;
    const CameraControl *value = Control(row->value.kind, row->value.selector);
    const CameraControl *automatic = Control(row->automatic.kind, row->automatic.selector);
    if (value == nullptr && automatic == nullptr && row->value.kind != 0)
        return set ? STATUS_SUCCESS : STATUS_NOT_IMPLEMENTED; // there is nothing to send, so nothing fails
    // The last request decides. The camera takes values of the right length only, and answers any length but none.
    const CameraControl *last = automatic != nullptr ? automatic : value;
    if (last == nullptr)
        return STATUS_SUCCESS;
    const bool refused = set ? last->readOnly || LengthOf(*last) != last->Size() : LengthOf(*last) == 0;
    return refused ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS;
}

// What a get or set ends with that has come through to the camera.
NTSTATUS PropertyOracle::Access(const FilterItem &item, bool set) const {
    switch (item.number) {
    case 1:
    case 2:
        return set ? STATUS_NOT_IMPLEMENTED : STATUS_SUCCESS;
    case 6: {
        if (item.id == KSPROPERTY_VIDEOCONTROL_CAPS)
            return STATUS_SUCCESS;
        const Row *trigger = Find(5, 115);
        if (set && (trigger == nullptr || !Exists(*trigger)))
            return STATUS_SUCCESS; // it asks for nothing that is not so already
        return AccessControl(trigger, set);
    }
    case 7:
        return AccessParameter(item.id, set);
    case 8:
        return STATUS_NOT_IMPLEMENTED; // no pin holds the camera
    default:
        return AccessControl(Find(ControlSetOf(item), item.id), set);
    }
}

// Frame intervals and the pass-through request look at lengths beyond what the item demands.
PropertyAnswer PropertyOracle::Handle(const FilterItem &item, bool set, ULONG inputLength, ULONG outputLength) const {
    constexpr ULONG kPassThrough = 10, kRevision = 2; // the pass-through request of the sweep reads the revision
    if (item.number == 7 && item.id == 6) {
        const ULONG header = set ? std::min(inputLength, outputLength) : inputLength - kHeader;
        if (header < kPassThrough)
            return {STATUS_BUFFER_OVERFLOW, 0};
        if (set || model_.family == Family::Generic)
            return Failed(STATUS_UNSUCCESSFUL);
        return {STATUS_SUCCESS, kRevision};
    }
    if (item.number == 6 && item.id == KSPROPERTY_VIDEOCONTROL_FRAME_RATES) {
        constexpr ULONG kItem = sizeof(LONGLONG), kHead = sizeof(KSMULTIPLE_ITEM);
        const host::cameras::FrameModel &frame = model_.formats.front().frames.front();
        const auto count = static_cast<ULONG>(frame.intervals.size());
        if (outputLength != 0 && outputLength < kHead)
            return Failed(STATUS_INVALID_PARAMETER);
        if (model_.family == Family::C && frame.continuous)
            return Failed(STATUS_NOT_IMPLEMENTED); // nobody knows this sensor's intervals
        if (outputLength == 0)
            return {STATUS_BUFFER_OVERFLOW, kHead + count * kItem};
        return {STATUS_SUCCESS, kHead + std::min(count, (outputLength - kHead) / kItem) * kItem};
    }
    const NTSTATUS status = Access(item, set);
    return {status, NT_SUCCESS(status) && !set ? item.minData : 0};
}

PropertyAnswer PropertyOracle::BasicSupport(const FilterItem &item, ULONG outputLength) const {
    const bool standard = item.number == 3 || item.number == 4;
    if (standard && !Offers(item))
        return Failed(STATUS_NOT_FOUND); // its handlers are gone
    const ULONG whole = standard ? kValueTable : kDescription;
    if (outputLength == 0)
        return {STATUS_BUFFER_OVERFLOW, whole};
    if (outputLength == sizeof(ULONG))
        return {STATUS_SUCCESS, sizeof(ULONG)};
    if (outputLength < whole && outputLength != kDescription)
        return Failed(STATUS_BUFFER_TOO_SMALL);
    return {STATUS_SUCCESS, std::min(outputLength, whole)};
}

ULONG PropertyOracle::AccessWord(const FilterItem &item) const {
    constexpr ULONG kBoth = KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_SET;
    if (item.number == 2)
        return KSPROPERTY_TYPE_GET;
    if (item.support)
        return Offers(item) ? kBoth : 0;
    return item.set_ ? kBoth : KSPROPERTY_TYPE_GET;
}

bool PropertyOracle::Disconnects(const FilterItem &item, ULONG flags, ULONG inputLength, ULONG outputLength) const {
    return item.number == 7 && (item.id == 3 || item.id == 24) && flags == KSPROPERTY_TYPE_SET && Offers(item) &&
           inputLength >= kHeader && outputLength >= item.minData;
}

PropertyAnswer PropertyOracle::Answer(const FilterItem &item, ULONG flags, ULONG inputLength,
                                      ULONG outputLength) const {
    // The class driver's checks.
    if (inputLength < kHeader)
        return Failed(STATUS_INVALID_BUFFER_SIZE);
    if (flags == KSPROPERTY_TYPE_BASICSUPPORT)
        return BasicSupport(item, outputLength);
    if (flags == KSPROPERTY_TYPE_SETSUPPORT)
        return {STATUS_SUCCESS, item.support && outputLength == sizeof(ULONG) ? outputLength : 0};
    const bool set = flags == KSPROPERTY_TYPE_SET;
    const bool handled = ControlSetOf(item) == 3 || ControlSetOf(item) == 4 ? Offers(item) : set ? item.set_ : item.get;
    if (!handled)
        return Failed(STATUS_NOT_FOUND);
    if (inputLength < item.minProperty)
        return Failed(STATUS_INVALID_BUFFER_SIZE);
    if (!set && outputLength == 0 && item.minData != 0)
        return {STATUS_BUFFER_OVERFLOW, item.minData};
    if (outputLength < item.minData)
        return Failed(STATUS_BUFFER_TOO_SMALL);
    return Handle(item, set, inputLength, outputLength);
}

} // namespace uvc::driver_test
