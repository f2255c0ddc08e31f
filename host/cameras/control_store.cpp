#include "host/cameras/control_store.h"

#include <algorithm>
#include <array>

namespace host::cameras {
namespace {

using usb::TransferResult;
using usb::TransferStatus;

// Values of VC_REQUEST_ERROR_CODE_CONTROL.
enum Error : std::uint8_t { kNone = 0, kOutOfRange = 4, kInvalidUnit = 5, kInvalidControl = 6, kInvalidRequest = 7 };

constexpr std::uint8_t kErrorCodeSelector = 2;

// Bits of GET_INFO.
constexpr std::uint8_t kSupportsGet = 1;
constexpr std::uint8_t kSupportsSet = 2;

constexpr CameraControl kTerminalControls[] = {
    Switch(1),                                 // scanning mode
    Choice(2, 0x03, 0x01),                     // exposure mode: manual or automatic
    Switch(3),                                 // exposure priority
    Ranged(4, 4, 1, 20000, 333),               // exposure time in 100 us
    Ranged(6, 2, 0, 1000, 500),                // focus position; larger is nearer to the far end of the motor
    Switch(8),                                 // focus automatic
    Ranged(9, 2, 10, 220, 28),                 // iris in f-number x 10
    Ranged(11, 2, 100, 400, 100),              // zoom
    Lanes(Ranged(13, 4, -36000, 36000, 0), 2), // pan and tilt in seconds of arc
    Ranged(15, 2, -180, 180, 0),               // roll in degrees
    Switch(17),                                // privacy; external trigger on the models
};

constexpr CameraControl kProcessingControls[] = {
    Ranged(1, 2, 0, 4, 0),           // backlight compensation
    Ranged(2, 2, -64, 64, 0),        // brightness
    Ranged(3, 2, 0, 95, 32),         // contrast
    Ranged(4, 2, 0, 255, 32),        // gain
    Ranged(5, 1, 0, 2, 1),           // mains frequency: off, 50 Hz, 60 Hz
    Ranged(6, 2, -2000, 2000, 0),    // hue in degrees x 100
    Ranged(7, 2, 0, 128, 64),        // saturation
    Ranged(8, 2, 0, 15, 3),          // sharpness
    Ranged(9, 2, 72, 500, 100),      // gamma x 100
    Ranged(10, 2, 2800, 6500, 4600), // white balance temperature in kelvin
    Switch(11),
    Lanes(Ranged(12, 2, 0, 1023, 256), 2), // white balance: blue, red
    Switch(13),
    Ranged(14, 2, 0, 255, 0), // digital multiplier
    Ranged(15, 2, 0, 255, 255),
    Switch(16), // hue automatic
};

// docs/camera-protocol.md: the unit of families A and B, then that of family C, whose offsets have ranges that follow
// the frame, and that of its cameras which bin as the frame size says.
constexpr CameraControl kExtensionControls[] = {
    Switch(1), // exposure automatic
    Switch(2), // gain automatic
    Switch(3), // one-push white balance
    Ranged(4, 4, 0, 255, 128),
    Switch(5), // external trigger
    Ranged(6, 4, 0, 0x7FFFFFFF, 0),
    Ranged(7, 4, 0, 0x7FFFFFFF, 0),
    Ranged(8, 4, 0, 0x7FFFFFFF, 0),
    Ranged(9, 4, 0, 20000, 333),
    Switch(10, 1),
    Ranged(11, 2, 0, 1000, 0),
    Ranged(12, 2, 0, 1000, 0),
    Ranged(13, 2, 0, 1000, 0),
    Switch(15), // software trigger
};

constexpr CameraControl Offset(std::uint8_t selector) {
    CameraControl offset = Ranged(selector, 2, 0, 0, 0);
    offset.settles = true;
    return offset;
}

constexpr CameraControl Binning(std::uint8_t selector) {
    CameraControl binning = Ranged(selector, 1, 1, 4, 1);
    binning.oneOf = 1 | 2 | 4;
    return binning;
}

constexpr CameraControl kRegionControls[] = {Offset(1), Offset(2), Binning(3)};
constexpr CameraControl kFixedRegionControls[] = {ReadOnly(Binning(3))};

// On families A to C a gain of 64 is a factor of 1, and there is none below.
constexpr CameraControl kIndustrialGain = Ranged(4, 2, 64, 1023, 64);

// Selector of each bit in bmControls by the standard; 0: reserved.
constexpr std::array<std::uint8_t, 19> kTerminalBits = {1,  2,  3,  4,  5,  6, 7, 9, 10, 11,
                                                        12, 13, 14, 15, 16, 0, 0, 8, 17};
constexpr std::array<std::uint8_t, 18> kProcessingBits = {2, 3, 6,  7,  8,  9,  10, 12, 1,
                                                          4, 5, 16, 11, 13, 14, 15, 17, 18};

std::uint8_t SelectorOf(EntityKind kind, std::size_t bit, SelectorRule rule) {
    if (rule == SelectorRule::Standard && kind == EntityKind::CameraTerminal)
        return bit < kTerminalBits.size() ? kTerminalBits[bit] : 0;
    if (rule == SelectorRule::Standard && kind == EntityKind::ProcessingUnit)
        return bit < kProcessingBits.size() ? kProcessingBits[bit] : 0;
    return static_cast<std::uint8_t>(bit + 1);
}

const CameraControl *FindTemplate(EntityKind kind, std::uint8_t selector, const Model &model) {
    for (const CameraControl &control : model.controls)
        if (control.kind == kind && control.selector == selector)
            return &control;
    if (kind == EntityKind::ProcessingUnit && selector == kIndustrialGain.selector && model.family != Family::Generic)
        return &kIndustrialGain;
    std::span<const CameraControl> table = kExtensionControls;
    if (kind == EntityKind::CameraTerminal)
        table = kTerminalControls;
    else if (kind == EntityKind::ProcessingUnit)
        table = kProcessingControls;
    else if (model.family == Family::C && model.regionOfInterest)
        table = kRegionControls;
    else if (model.family == Family::C)
        table = kFixedRegionControls;
    for (const CameraControl &control : table)
        if (control.selector == selector)
            return &control;
    return nullptr;
}

TransferResult Answer(std::span<std::uint8_t> data, std::span<const std::uint8_t> bytes) {
    const std::size_t length = std::min(data.size(), bytes.size());
    std::copy_n(bytes.begin(), length, data.begin());
    return {TransferStatus::Ok, length};
}

TransferResult AnswerValues(std::span<std::uint8_t> data, const CameraControl &control,
                            std::span<const std::int64_t> values) {
    std::array<std::uint8_t, 16> bytes{};
    std::size_t at = 0;
    for (std::int64_t value : values)
        for (int i = 0; i < control.width; ++i)
            bytes[at++] = static_cast<std::uint8_t>(value >> (8 * i));
    return Answer(data, std::span(bytes).first(at));
}

TransferResult AnswerSame(std::span<std::uint8_t> data, const CameraControl &control, std::int64_t value) {
    const std::array<std::int64_t, 4> values{value, value, value, value};
    return AnswerValues(data, control, std::span(values).first(control.lanes));
}

std::int64_t ReadValue(std::span<const std::uint8_t> bytes, bool isSigned) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i)
        value |= std::uint64_t{bytes[i]} << (8 * i);
    const std::uint64_t sign = std::uint64_t{1} << (8 * bytes.size() - 1);
    return static_cast<std::int64_t>(isSigned ? (value ^ sign) - sign : value);
}

} // namespace

ControlStore::ControlStore(const VideoFunction &function, SelectorRule rule, const Model &model) {
    for (const Entity &entity : function.entities) {
        entities_.push_back(entity.id);
        for (std::size_t bit = 0; bit < entity.controls.size() * 8; ++bit) {
            if ((entity.controls[bit / 8] >> (bit % 8) & 1) == 0)
                continue;
            // What an extension unit of somebody else's camera means is unknown: it stalls.
            if (rule == SelectorRule::Standard && entity.kind == EntityKind::ExtensionUnit)
                continue;
            const std::uint8_t selector = SelectorOf(entity.kind, bit, rule);
            if (const CameraControl *known = FindTemplate(entity.kind, selector, model)) {
                controls_.push_back(*known);
                controls_.back().entity = entity.id;
                controls_.back().kind = entity.kind;
            }
        }
    }
    Reset();
}

void ControlStore::Reset() {
    for (CameraControl &control : controls_)
        std::fill(std::begin(control.current), std::end(control.current), control.defaultValue);
    error_ = kNone;
}

CameraControl *ControlStore::Find(EntityKind kind, std::uint8_t selector) {
    const auto found = std::find_if(controls_.begin(), controls_.end(), [&](const CameraControl &control) {
        return control.kind == kind && control.selector == selector;
    });
    return found != controls_.end() ? &*found : nullptr;
}

void ControlStore::Break(std::uint8_t entity, std::uint8_t selector) {
    for (CameraControl &control : controls_)
        if (control.entity == entity && control.selector == selector)
            control.stalls |= StallOf(kGetInfo) | StallOf(kGetCur);
}

TransferResult ControlStore::Refuse(std::uint8_t reason) {
    error_ = reason;
    return {TransferStatus::Stall};
}

TransferResult ControlStore::Request(const usb::Setup &setup, std::span<std::uint8_t> data) {
    const auto entity = static_cast<std::uint8_t>(setup.index >> 8);
    const auto selector = static_cast<std::uint8_t>(setup.value >> 8);
    if (entity == 0) {
        if (selector != kErrorCodeSelector || setup.request != kGetCur)
            return Refuse(selector == kErrorCodeSelector ? kInvalidRequest : kInvalidControl);
        return Answer(data, {&error_, 1});
    }
    if (std::find(entities_.begin(), entities_.end(), entity) == entities_.end())
        return Refuse(kInvalidUnit);
    const auto found = std::find_if(controls_.begin(), controls_.end(), [&](const CameraControl &control) {
        return control.entity == entity && control.selector == selector;
    });
    if (found == controls_.end())
        return Refuse(kInvalidControl);

    CameraControl &control = *found;
    const bool in = (setup.requestType & 0x80) != 0;
    if (in != (setup.request != kSetCur) || data.empty())
        return Refuse(kInvalidRequest);
    if (in && (control.stalls & StallOf(static_cast<ControlRequest>(setup.request))) != 0)
        return Refuse(kInvalidRequest);
    error_ = kNone;
    switch (setup.request) {
    case kSetCur:
        return control.readOnly ? Refuse(kInvalidRequest) : Set(control, data);
    case kGetCur:
        return AnswerValues(data, control, std::span(control.current).first(control.lanes));
    case kGetDef:
        return AnswerSame(data, control, control.defaultValue);
    case kGetRes:
        if (!control.hasRange && control.resolution == 1)
            return Refuse(kInvalidRequest);
        return AnswerSame(data, control, control.resolution);
    case kGetMin:
    case kGetMax:
        if (!control.hasRange)
            return Refuse(kInvalidRequest);
        return AnswerSame(data, control, setup.request == kGetMin ? control.minimum : control.maximum);
    case kGetLen: {
        const std::array<std::uint8_t, 2> length{
            control.claimedLength.value_or(static_cast<std::uint8_t>(control.Size())), 0};
        return Answer(data, length);
    }
    case kGetInfo: {
        const std::uint8_t info = control.readOnly ? kSupportsGet : kSupportsGet | kSupportsSet;
        return Answer(data, {&info, 1});
    }
    default:
        return Refuse(kInvalidRequest);
    }
}

TransferResult ControlStore::Set(CameraControl &control, std::span<const std::uint8_t> data) {
    if (data.size() != control.Size())
        return Refuse(kInvalidRequest);
    std::int64_t values[4];
    for (std::size_t lane = 0; lane < control.lanes; ++lane) {
        values[lane] = ReadValue(data.subspan(lane * control.width, control.width), control.isSigned);
        const bool inRange = control.settles || (values[lane] >= control.minimum && values[lane] <= control.maximum);
        const bool offered =
            control.oneOf == 0 || ((values[lane] & (values[lane] - 1)) == 0 && (values[lane] & control.oneOf) != 0);
        if (!inRange || !offered)
            return Refuse(kOutOfRange);
    }
    std::copy_n(values, control.lanes, control.current);
    return {TransferStatus::Ok, data.size()};
}

} // namespace host::cameras
