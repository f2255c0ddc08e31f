// The vendor requests on the control pipe: docs/camera-protocol.md.
#include "host/cameras/simulated_camera.h"

#include <algorithm>
#include <array>

namespace host::cameras {
namespace {

using usb::Setup;
using usb::Ticks;
using usb::TransferResult;
using usb::TransferStatus;

constexpr TransferResult kStall{TransferStatus::Stall};

enum VendorRequestCode : std::uint8_t {
    kFirmwareRevision = 0x16,
    kDeviceStatus = 0x17,
    kUserRegister = 0x19,
    kDescription = 0x20,
    kStreamingMode = 0x21,
    kFrameRateCode = 0x22,
    kSoftwareTrigger = 0x23,
    kReadStore = 0x24,
    kWriteStore = 0x25,
    kClearStore = 0x26,
    kReadRegister = 0x27,
    kWriteRegister = 0x28,
    kLoader = 0x42,
};

constexpr std::uint8_t kVendorOut = 0x40;
constexpr std::uint8_t kVendorIn = 0xC0;
constexpr std::uint16_t kLoaderValue = 0xB0C4;
constexpr std::uint16_t kLoaderIndex = 0x2E71;
constexpr std::uint16_t kAnyLength = 0xFFFF; // an answer is cut to what the host asks for

enum FamilyBits : unsigned { kA = 1, kB = 2, kC = 4 };
enum ParameterBits : unsigned { kNone = 0, kValue = 1, kIndex = 2 }; // a field without meaning must be 0

struct VendorRow {
    std::uint8_t request;
    std::uint8_t requestType;
    std::uint16_t shortest, longest; // wLength
    unsigned families;
    unsigned parameters;
    bool Model::*feature = nullptr; // without which the camera does not have the request
};

constexpr VendorRow kVendorRows[] = {
    {kFirmwareRevision, kVendorIn, 0, kAnyLength, kA | kB | kC, kNone},
    {kDeviceStatus, kVendorIn, 0, kAnyLength, kA | kB, kNone},
    {kUserRegister, kVendorOut, 4, 4, kA | kB, kNone},
    {kDescription, kVendorIn, 0, kAnyLength, kB | kC, kNone},
    {kStreamingMode, kVendorOut, 1, 1, kC, kValue | kIndex},
    {kFrameRateCode, kVendorOut, 0, 0, kC, kValue},
    {kSoftwareTrigger, kVendorOut, 0, 0, kC, kNone},
    {kReadStore, kVendorIn, 1, 1024, kC, kValue, &Model::userData},
    {kWriteStore, kVendorOut, 1, 1024, kC, kValue, &Model::userData},
    {kClearStore, kVendorOut, 0, 0, kC, kNone, &Model::userData},
    {kReadRegister, kVendorIn, 0, kAnyLength, kC, kIndex, &Model::registerBlock},
    {kWriteRegister, kVendorOut, 4, 4, kC, kIndex, &Model::registerBlock},
    {kLoader, kVendorOut, 0, 0, kA | kB, kValue | kIndex},
};

unsigned FamilyBit(Family family) {
    return family == Family::A ? kA : family == Family::B ? kB : family == Family::C ? kC : 0u;
}

// The row of a request that the camera has and that is well-formed, or null.
const VendorRow *FindRow(const Setup &setup, const Model &model) {
    const auto row = std::find_if(std::begin(kVendorRows), std::end(kVendorRows),
                                  [&](const VendorRow &entry) { return entry.request == setup.request; });
    if (row == std::end(kVendorRows) || row->requestType != setup.requestType)
        return nullptr;
    if ((row->families & FamilyBit(model.family)) == 0 || (row->feature != nullptr && !(model.*row->feature)))
        return nullptr;
    if ((setup.value != 0 && (row->parameters & kValue) == 0) || (setup.index != 0 && (row->parameters & kIndex) == 0))
        return nullptr;
    return setup.length >= row->shortest && setup.length <= row->longest ? row : nullptr;
}

template <typename... Byte> TransferResult AnswerBytes(std::span<std::uint8_t> data, Byte... byte) {
    const std::array<std::uint8_t, sizeof...(byte)> bytes{static_cast<std::uint8_t>(byte)...};
    const std::size_t length = std::min(data.size(), bytes.size());
    std::copy_n(bytes.begin(), length, data.begin());
    return {TransferStatus::Ok, length};
}

std::uint32_t ReadLong(std::span<const std::uint8_t> data) {
    return data[0] | data[1] << 8 | data[2] << 16 | std::uint32_t{data[3]} << 24;
}

} // namespace

TransferResult SimulatedCamera::VendorRequest(const Setup &setup, std::span<std::uint8_t> data, Ticks now) {
    const Model &model = body_.model;
    const VendorRow *row = FindRow(setup, model);
    if (row == nullptr || data.size() != setup.length)
        return kStall;
    const TransferResult done{TransferStatus::Ok, data.size()};

    switch (setup.request) {
    case kFirmwareRevision:
        return AnswerBytes(data, model.firmwareRevision, model.firmwareRevision >> 8);
    case kDeviceStatus:
        return AnswerBytes(data, streaming_ ? 1 : 0, 0);
    case kUserRegister:
        userRegister_ = ReadLong(data);
        return done;
    case kDescription: {
        const int features = (model.colour ? 1 : 0) | (model.motorisedFocus ? 2 : 0) | (model.registerBlock ? 4 : 0) |
                             (model.binning ? 8 : 0) | (model.regionOfInterest ? 16 : 0) | (model.userData ? 32 : 0);
        return AnswerBytes(data, 1, features, static_cast<int>(model.pattern), 0, model.sensorWidth,
                           model.sensorWidth >> 8, model.sensorHeight, model.sensorHeight >> 8);
    }
    case kStreamingMode:
        return done;
    case kFrameRateCode:
        return SetFrameRateCode(setup.value);
    case kSoftwareTrigger:
        Trigger(now);
        return done;
    case kReadStore:
        return store_.Read(setup.value, data) ? done : kStall;
    case kWriteStore:
        return store_.Write(setup.value, data) ? done : kStall;
    case kClearStore:
        store_.Assign({});
        return done;
    case kReadRegister: {
        if (setup.index >= registers_.size())
            return kStall;
        const std::uint32_t value = registers_[setup.index];
        return AnswerBytes(data, value, value >> 8, value >> 16, value >> 24);
    }
    case kWriteRegister:
        if (setup.index >= registers_.size())
            return kStall;
        registers_[setup.index] = ReadLong(data);
        return done;
    case kLoader:
        if (setup.value != kLoaderValue || setup.index != kLoaderIndex)
            return kStall;
        // The loader starts the firmware again at once: what the host sees is a camera after power-up.
        PowerUp();
        return done;
    default:
        return kStall;
    }
}

TransferResult SimulatedCamera::SetFrameRateCode(std::uint16_t code) {
    const Raster raster = RasterOf(probe_);
    for (const FormatModel &format : body_.model.formats) {
        for (const FrameModel &frame : format.frames) {
            if (frame.width != raster.width || frame.height != raster.height || frame.continuous)
                continue;
            for (const FrameInterval &entry : frame.intervals) {
                if (entry.code != code)
                    continue;
                // The exposure that is under way keeps its time.
                epochTime_ += static_cast<Ticks>(nextNumber_ - epochNumber_) * Interval();
                epochNumber_ = nextNumber_;
                codedInterval_ = entry.interval;
                return {};
            }
        }
    }
    return kStall;
}

} // namespace host::cameras
