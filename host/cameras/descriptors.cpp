#include "host/cameras/descriptors.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace host::cameras {
namespace {

constexpr std::uint8_t kDeviceType = 0x01;
constexpr std::uint8_t kConfigurationType = 0x02;
constexpr std::uint8_t kStringType = 0x03;
constexpr std::uint8_t kInterfaceType = 0x04;
constexpr std::uint8_t kEndpointType = 0x05;
constexpr std::uint8_t kAssociationType = 0x0B;
constexpr std::uint8_t kClassInterfaceType = 0x24;

constexpr std::uint8_t kVideoClass = 0x0E;
constexpr std::uint8_t kControlSubclass = 1;
constexpr std::uint8_t kStreamingSubclass = 2;
constexpr std::uint8_t kCollectionSubclass = 3;

// Identify the extension units of families A and B, and of family C.
constexpr Guid kExtensionGuid = {0x5A, 0x21, 0xC3, 0x0E, 0x9D, 0x47, 0x62, 0x4B,
                                 0x8F, 0x10, 0x3E, 0x77, 0xD4, 0x0B, 0x65, 0x92};
constexpr Guid kRegionGuid = {0xB7, 0x64, 0x0D, 0x58, 0x31, 0xEA, 0x9C, 0x46,
                              0xA2, 0x5F, 0xC8, 0x13, 0x70, 0x2D, 0x4E, 0x81};

// Appends little-endian fields; a descriptor's bLength is filled when it ends.
class Bytes {
  public:
    Bytes &U8(std::uint32_t value) { return Little(value, 1); }
    Bytes &U16(std::uint32_t value) { return Little(value, 2); }
    Bytes &U24(std::uint32_t value) { return Little(value, 3); }
    Bytes &U32(std::uint32_t value) { return Little(value, 4); }
    Bytes &Add(const Guid &guid) {
        bytes_.insert(bytes_.end(), guid.begin(), guid.end());
        return *this;
    }

    Bytes &Begin(std::uint8_t type) {
        start_ = bytes_.size();
        return U8(0).U8(type);
    }
    Bytes &Begin(std::uint8_t type, std::uint8_t subtype) { return Begin(type).U8(subtype); }
    void End() { bytes_[start_] = static_cast<std::uint8_t>(bytes_.size() - start_); }

    std::size_t Size() const { return bytes_.size(); }
    void Patch16(std::size_t offset, std::size_t value) {
        bytes_[offset] = static_cast<std::uint8_t>(value);
        bytes_[offset + 1] = static_cast<std::uint8_t>(value >> 8);
    }
    std::vector<std::uint8_t> Take() { return std::move(bytes_); }

  private:
    Bytes &Little(std::uint32_t value, int width) {
        for (int i = 0; i < width; ++i)
            bytes_.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
        return *this;
    }

    std::vector<std::uint8_t> bytes_;
    std::size_t start_ = 0;
};

void AddInterface(Bytes &bytes, std::uint8_t number, std::uint8_t endpoints, std::uint8_t subclass, std::uint8_t text) {
    bytes.Begin(kInterfaceType).U8(number).U8(0).U8(endpoints).U8(kVideoClass).U8(subclass).U8(0).U8(text).End();
}

void AddControlInterface(Bytes &bytes, const Model &model) {
    AddInterface(bytes, 0, 0, kControlSubclass, 2);

    const std::size_t header = bytes.Size();
    bytes.Begin(kClassInterfaceType, 0x01).U16(0x0110).U16(0).U32(kClockFrequency).U8(1).U8(kStreamingInterface).End();

    // ITT_CAMERA; the lens has no optical zoom data.
    bytes.Begin(kClassInterfaceType, 0x02).U8(kCameraTerminalId).U16(0x0201).U8(0).U8(0);
    bytes.U16(0).U16(0).U16(0).U8(3).U24(model.terminalControls).End();

    bytes.Begin(kClassInterfaceType, 0x05).U8(kProcessingUnitId).U8(kCameraTerminalId).U16(400);
    bytes.U8(2).U16(model.processingControls).U8(0).U8(0).End();

    std::uint8_t last = kProcessingUnitId;
    if (model.extensionControls != 0) {
        std::uint8_t count = 0;
        for (std::uint32_t rest = model.extensionControls; rest != 0; rest &= rest - 1)
            ++count;
        bytes.Begin(kClassInterfaceType, 0x06).U8(kExtensionUnitId);
        bytes.Add(model.family == Family::C ? kRegionGuid : kExtensionGuid).U8(count);
        bytes.U8(1).U8(last).U8(2).U16(model.extensionControls).U8(0).End();
        last = kExtensionUnitId;
    }

    // TT_STREAMING
    bytes.Begin(kClassInterfaceType, 0x03).U8(kOutputTerminalId).U16(0x0101).U8(0).U8(last).U8(0).End();
    bytes.Patch16(header + 5, bytes.Size() - header);
}

// The interval nearest to 30 frames a second: what most applications ask for first.
std::uint32_t DefaultInterval(const FrameModel &frame) {
    std::uint32_t best = frame.intervals.front().interval;
    for (const FrameInterval &entry : frame.intervals)
        if (std::abs(static_cast<int>(entry.interval) - 333333) < std::abs(static_cast<int>(best) - 333333))
            best = entry.interval;
    return best;
}

void AddFrame(Bytes &bytes, const FormatModel &format, const FrameModel &frame, std::uint8_t index) {
    const std::uint32_t bits = Describe(format.pixels).bitsPerPixel;
    const std::uint32_t size = frame.width * frame.height * bits / 8;
    std::uint32_t shortest = frame.intervals.front().interval;
    std::uint32_t longest = shortest;
    for (const FrameInterval &entry : frame.intervals) {
        shortest = std::min(shortest, entry.interval);
        longest = std::max(longest, entry.interval);
    }
    const auto bitRate = [&](std::uint32_t interval) {
        const std::uint64_t rate = std::uint64_t{size} * 8 * 10'000'000 / interval;
        return static_cast<std::uint32_t>(std::min<std::uint64_t>(rate, 0xFFFFFFFF));
    };

    bytes.Begin(kClassInterfaceType, format.frameBased ? 0x11 : 0x05).U8(index).U8(0);
    bytes.U16(frame.width).U16(frame.height).U32(bitRate(longest)).U32(bitRate(shortest));
    const std::uint32_t discrete = static_cast<std::uint32_t>(frame.intervals.size());
    if (format.frameBased)
        bytes.U32(DefaultInterval(frame)).U8(frame.continuous ? 0 : discrete).U32(frame.width * bits / 8);
    else
        bytes.U32(size).U32(DefaultInterval(frame)).U8(frame.continuous ? 0 : discrete);
    if (frame.continuous) {
        bytes.U32(shortest).U32(longest).U32(10);
    } else {
        for (const FrameInterval &entry : frame.intervals)
            bytes.U32(entry.interval);
    }
    bytes.End();
}

void AddFormat(Bytes &bytes, const FormatModel &format, std::uint8_t index) {
    const PixelFormatInfo &info = Describe(format.pixels);
    bytes.Begin(kClassInterfaceType, format.frameBased ? 0x10 : 0x04).U8(index);
    bytes.U8(static_cast<std::uint32_t>(format.frames.size())).Add(FourccGuid(info.fourcc)).U8(info.bitsPerPixel);
    bytes.U8(1).U8(0).U8(0).U8(0).U8(0); // default frame, aspect ratio, interlace flags, copy protection
    if (format.frameBased)
        bytes.U8(0); // fixed frame size
    bytes.End();

    std::uint8_t frameIndex = 0;
    for (const FrameModel &frame : format.frames)
        AddFrame(bytes, format, frame, ++frameIndex);

    // Colour matching: BT.709 primaries, BT.709 transfer, BT.601 coefficients.
    bytes.Begin(kClassInterfaceType, 0x0D).U8(1).U8(1).U8(4).End();
}

void AddStreamingInterface(Bytes &bytes, const Model &model, bool highSpeed) {
    AddInterface(bytes, kStreamingInterface, 1, kStreamingSubclass, 0);

    const std::size_t header = bytes.Size();
    bytes.Begin(kClassInterfaceType, 0x01).U8(static_cast<std::uint32_t>(model.formats.size())).U16(0);
    bytes.U8(kStreamingEndpoint).U8(0).U8(kOutputTerminalId).U8(0).U8(0).U8(0).U8(1);
    for (std::size_t i = 0; i < model.formats.size(); ++i)
        bytes.U8(0);
    bytes.End();

    std::uint8_t index = 0;
    for (const FormatModel &format : model.formats)
        AddFormat(bytes, format, ++index);
    bytes.Patch16(header + 4, bytes.Size() - header);

    bytes.Begin(kEndpointType).U8(kStreamingEndpoint).U8(0x02).U16(highSpeed ? 512 : 64).U8(0).End();
}

} // namespace

std::vector<std::uint8_t> BuildDeviceDescriptor(const Model &model) {
    Bytes bytes;
    // Miscellaneous class with an interface association.
    bytes.Begin(kDeviceType).U16(0x0200).U8(0xEF).U8(0x02).U8(0x01).U8(64);
    bytes.U16(model.vendorId).U16(model.productId).U16(model.bcdDevice).U8(1).U8(2).U8(3).U8(1).End();
    return bytes.Take();
}

std::vector<std::uint8_t> BuildConfigurationDescriptor(const Model &model, bool highSpeed) {
    Bytes bytes;
    bytes.Begin(kConfigurationType).U16(0).U8(2).U8(1).U8(0).U8(0x80).U8(250).End();
    bytes.Begin(kAssociationType).U8(0).U8(2).U8(kVideoClass).U8(kCollectionSubclass).U8(0).U8(2).End();
    AddControlInterface(bytes, model);
    AddStreamingInterface(bytes, model, highSpeed);
    bytes.Patch16(2, bytes.Size());
    return bytes.Take();
}

std::vector<std::uint8_t> BuildStringDescriptor(std::string_view text) {
    Bytes bytes;
    bytes.Begin(kStringType);
    for (char character : text.substr(0, 126))
        bytes.U16(static_cast<std::uint8_t>(character));
    bytes.End();
    return bytes.Take();
}

std::vector<std::uint8_t> BuildLanguageTable() {
    Bytes bytes;
    bytes.Begin(kStringType).U16(0x0409).End();
    return bytes.Take();
}

} // namespace host::cameras
