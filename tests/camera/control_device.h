// A device with a camera terminal, a processing and an extension unit whose controls do what a test tells them, and
// the camera object on it.
#pragma once

#include "tests/camera/descriptor_bytes.h"
#include "tests/camera/plugged_camera.h"
#include "tests/host/usb/fake_device.h"

#include <map>
#include <set>

namespace uvc::camera_test {

inline constexpr UCHAR kSetCurCode = 0x01;
inline constexpr UCHAR kGetCurCode = 0x81;
inline constexpr UCHAR kGetMinCode = 0x82;
inline constexpr UCHAR kGetMaxCode = 0x83;
inline constexpr UCHAR kGetResCode = 0x84;
inline constexpr UCHAR kGetLenCode = 0x85;
inline constexpr UCHAR kGetInfoCode = 0x86;
inline constexpr UCHAR kGetDefCode = 0x87;

class ControlDevice final : public host::usb::test::FakeDevice {
  public:
    // By request code; a set replaces the answer to GET_CUR. Answers are cut to the length that is asked for.
    struct Control {
        std::map<UCHAR, ULONGLONG> answers{{kGetCurCode, 0}, {kGetMinCode, 0}, {kGetMaxCode, 0}, {kGetResCode, 0},
                                           {kGetLenCode, 2}, {kGetDefCode, 0}, {kGetInfoCode, 3}};
        std::set<UCHAR> stalls;
        std::size_t longestAnswer = sizeof(ULONGLONG);
    };
    using Key = std::pair<UCHAR, UCHAR>; // entity's subtype, selector

    // bmControls of the three entities; an empty one leaves the entity out.
    ControlDevice(const Bytes &terminal, const Bytes &processing, const Bytes &extension) {
        Describe(terminal, processing, extension);
        onControl = [this](const host::usb::Setup &setup, std::span<std::uint8_t> data) { return Answer(setup, data); };
    }

    void Describe(const Bytes &terminal, const Bytes &processing, const Bytes &extension) {
        namespace usb = host::usb::test;
        Bytes body = usb::InterfaceDescriptor(0, 0, 0);
        if (!terminal.empty())
            body = body + InputTerminal(1, 0x0201, terminal);
        if (!processing.empty())
            body = body + ProcessingUnit(2, processing);
        if (!extension.empty())
            body = body + ExtensionUnit(3, {2}, extension);
        configuration = usb::ConfigurationDescriptor(2, body + usb::InterfaceDescriptor(1, 0, 1) +
                                                            usb::EndpointDescriptor(0x81, 2, 512, 0));
    }

    // "81 5:2 2" is GET_CUR of the processing unit's selector 2 with 2 bytes, "01 5:2 0a00" a set; since the last call.
    std::vector<std::string> TakeRequests() { return std::exchange(requests_, {}); }

    std::map<Key, Control> controls; // any other one stalls

  private:
    host::usb::TransferResult Answer(const host::usb::Setup &setup, std::span<std::uint8_t> data) {
        constexpr UCHAR kKinds[] = {0, 2, 5, 6}; // by unit id
        constexpr host::usb::TransferResult kStall{.status = host::usb::TransferStatus::Stall};
        const std::size_t unit = setup.index >> 8;
        if (unit == 0 || unit >= std::size(kKinds) || (setup.index & 0xFF) != 0)
            return kStall; // streaming: this camera has no formats
        const Key key{kKinds[unit], static_cast<UCHAR>(setup.value >> 8)};
        EXPECT_EQ(setup.requestType, setup.request == kSetCurCode ? 0x21 : 0xA1);
        EXPECT_EQ(setup.value & 0xFF, 0);

        char text[16];
        std::snprintf(text, sizeof(text), "%02x %d:%d ", setup.request, key.first, key.second);
        std::string line = text;
        if (setup.request == kSetCurCode) {
            for (std::uint8_t byte : data) {
                std::snprintf(text, sizeof(text), "%02x", byte);
                line += text;
            }
        } else {
            line += std::to_string(setup.length);
        }
        requests_.push_back(line);

        const auto found = controls.find(key);
        if (found == controls.end() || found->second.stalls.contains(setup.request))
            return kStall;
        auto &answers = found->second.answers;
        if (setup.request == kSetCurCode) {
            answers[kGetCurCode] = 0;
            std::memcpy(&answers[kGetCurCode], data.data(), std::min(data.size(), sizeof(ULONGLONG)));
            return {.length = data.size()};
        }
        const std::size_t length = std::min(data.size(), found->second.longestAnswer);
        std::memcpy(data.data(), &answers[static_cast<UCHAR>(setup.request)], length);
        return {.length = length};
    }

    std::vector<std::string> requests_;
};

// The entities' subtypes.
inline constexpr UCHAR kTerminal = 2;
inline constexpr UCHAR kProcessing = 5;
inline constexpr UCHAR kExtension = 6;

using Requests = std::vector<std::string>;

} // namespace uvc::camera_test
