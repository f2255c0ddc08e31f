// The control pipe: standard requests (USB 2.0, 9.4) and class requests (UVC 1.1, 4).
#include "host/cameras/descriptors.h"
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

enum StandardRequestCode : std::uint8_t {
    kGetStatus = 0,
    kClearFeature = 1,
    kSetFeature = 3,
    kSetAddress = 5,
    kGetDescriptor = 6,
    kGetConfiguration = 8,
    kSetConfiguration = 9,
    kGetInterface = 10,
    kSetInterface = 11,
};

// The extension unit's software trigger of families A and B.
constexpr std::uint8_t kUnitSoftwareTrigger = 15;

constexpr std::uint8_t kProbe = 1;
constexpr std::uint8_t kCommit = 2;

TransferResult Answer(std::span<std::uint8_t> data, std::span<const std::uint8_t> bytes) {
    const std::size_t length = std::min(data.size(), bytes.size());
    std::copy_n(bytes.begin(), length, data.begin());
    return {TransferStatus::Ok, length};
}

template <typename... Byte> TransferResult AnswerBytes(std::span<std::uint8_t> data, Byte... byte) {
    const std::array<std::uint8_t, sizeof...(byte)> bytes{static_cast<std::uint8_t>(byte)...};
    return Answer(data, bytes);
}

} // namespace

TransferResult SimulatedCamera::Dispatch(const Setup &setup, std::span<std::uint8_t> data, Ticks now) {
    switch (setup.requestType >> 5 & 3) {
    case 0:
        return StandardRequest(setup, data);
    case 1:
        return ClassRequest(setup, data, now);
    case 2:
        return VendorRequest(setup, data, now);
    default:
        return kStall;
    }
}

TransferResult SimulatedCamera::StandardRequest(const Setup &setup, std::span<std::uint8_t> data) {
    const unsigned recipient = setup.requestType & 0x1F;
    switch (setup.request) {
    case kGetDescriptor:
        return GetDescriptor(setup, data);
    case kGetStatus:
        return GetStatus(setup, data);
    case kClearFeature:
    case kSetFeature:
        return recipient == 2 ? EndpointFeature(setup) : kStall;
    case kSetAddress:
        return {};
    case kGetConfiguration:
        return AnswerBytes(data, configuration_);
    case kSetConfiguration:
        return SetConfiguration(static_cast<std::uint8_t>(setup.value));
    case kSetInterface:
        return SetInterface(static_cast<std::uint8_t>(setup.index), static_cast<std::uint8_t>(setup.value));
    case kGetInterface: {
        for (const InterfaceSetting &setting : alternates_)
            if (setting.number == setup.index)
                return AnswerBytes(data, setting.alternate);
        const bool known = std::any_of(function_.interfaces.begin(), function_.interfaces.end(),
                                       [&](const InterfaceSetting &entry) { return entry.number == setup.index; });
        return known && configuration_ != 0 ? AnswerBytes(data, 0) : kStall;
    }
    default:
        return kStall;
    }
}

TransferResult SimulatedCamera::GetDescriptor(const Setup &setup, std::span<std::uint8_t> data) const {
    const auto index = static_cast<std::uint8_t>(setup.value);
    switch (setup.value >> 8) {
    case 1:
        return Answer(data, body_.device);
    case 2:
        return index == 0 ? Answer(data, body_.configuration) : kStall;
    case 3:
        if (index == 0)
            return Answer(data, BuildLanguageTable());
        if (index <= body_.strings.size())
            return Answer(data, BuildStringDescriptor(body_.strings[index - 1u]));
        if (index <= body_.lastString)
            return Answer(data, BuildStringDescriptor("String " + std::to_string(index)));
        return kStall;
    default:
        return kStall;
    }
}

TransferResult SimulatedCamera::GetStatus(const Setup &setup, std::span<std::uint8_t> data) const {
    const bool halted = (setup.requestType & 0x1F) == 2 && setup.index == function_.bulkEndpoint && halted_;
    return AnswerBytes(data, halted ? 1 : 0, 0);
}

TransferResult SimulatedCamera::EndpointFeature(const Setup &setup) {
    constexpr std::uint16_t kEndpointHalt = 0;
    if (setup.value != kEndpointHalt || setup.index != function_.bulkEndpoint)
        return kStall;
    if (setup.request == kClearFeature)
        ClearPipe();
    else
        halted_ = true;
    return {};
}

TransferResult SimulatedCamera::SetConfiguration(std::uint8_t value) {
    if (value != 0 && (body_.configuration.size() < 6 || value != body_.configuration[5]))
        return kStall;
    configuration_ = value;
    alternates_.clear();
    halted_ = false;
    StopStream();
    return {};
}

TransferResult SimulatedCamera::SetInterface(std::uint8_t number, std::uint8_t alternate) {
    const bool known =
        std::any_of(function_.interfaces.begin(), function_.interfaces.end(), [&](const InterfaceSetting &entry) {
            return entry.number == number && entry.alternate == alternate;
        });
    if (configuration_ == 0 || !known)
        return kStall;
    std::erase_if(alternates_, [number](const InterfaceSetting &entry) { return entry.number == number; });
    if (alternate != 0)
        alternates_.push_back({number, alternate});
    if (number == kStreamingInterface) {
        halted_ = false;
        StopStream();
    }
    return {};
}

TransferResult SimulatedCamera::ClassRequest(const Setup &setup, std::span<std::uint8_t> data, Ticks now) {
    if ((setup.requestType & 0x1F) != 1 || configuration_ == 0)
        return kStall;
    const auto interface = static_cast<std::uint8_t>(setup.index);
    if (function_.hasStreaming && setup.index == kStreamingInterface)
        return StreamingRequest(setup, data);
    if (interface != function_.controlInterface)
        return kStall;
    const TransferResult result = controls_.Request(setup, data);
    if (result.status == TransferStatus::Ok && setup.request == kSetCur) {
        ControlsChanged(now);
        const bool unit = setup.index >> 8 == kExtensionUnitId && body_.model.family != Family::C;
        if (unit && setup.value >> 8 == kUnitSoftwareTrigger && data[0] != 0)
            Trigger(now);
    }
    return result;
}

TransferResult SimulatedCamera::StreamingRequest(const Setup &setup, std::span<std::uint8_t> data) {
    const unsigned selector = setup.value >> 8;
    if ((selector != kProbe && selector != kCommit) || function_.formats.empty())
        return kStall;
    if (((setup.requestType & 0x80) != 0) != (setup.request != kSetCur))
        return kStall;
    const std::size_t length = function_.bcdUvc < 0x0110   ? kShortestStreamControl
                               : function_.bcdUvc < 0x0150 ? 34
                                                           : kLongestStreamControl;
    const auto answer = [&](const StreamControl &control) {
        const auto bytes = Encode(control);
        return Answer(data, std::span(bytes).first(length));
    };
    const StreamControl &current = selector == kProbe ? probe_ : committed_;

    switch (setup.request) {
    case kSetCur: {
        if (data.size() < kShortestStreamControl)
            return kStall;
        const StreamControl request = Decode(data);
        const StreamControl settled = negotiator_.Settle(request);
        if (selector == kCommit) {
            // Only what could have been the answer to a probe is committed.
            if (settled.formatIndex != request.formatIndex || settled.frameIndex != request.frameIndex)
                return kStall;
            committed_ = settled;
            codedInterval_ = 0;
            ++counters_.commits;
            ChooseRegion();
            StopStream();
        }
        probe_ = settled;
        return {TransferStatus::Ok, data.size()};
    }
    case kGetCur:
        return answer(current);
    case kGetMin:
        return selector == kProbe ? answer(negotiator_.Shortest(probe_)) : kStall;
    case kGetMax:
        return selector == kProbe ? answer(negotiator_.Longest(probe_)) : kStall;
    case kGetDef:
        return selector == kProbe ? answer(negotiator_.Default()) : kStall;
    case kGetLen:
        return AnswerBytes(data, length, 0);
    case kGetInfo:
        return AnswerBytes(data, 3);
    default:
        return kStall;
    }
}

} // namespace host::cameras
