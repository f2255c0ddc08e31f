#include "host/cameras/video_function.h"

#include "platform/byte_cursor.h"

#include <algorithm>

namespace host::cameras {
namespace {

constexpr std::uint8_t kStreamingInterfaceNumber = 1;
constexpr std::uint16_t kCameraTerminalType = 0x0201;

enum VideoControlSubtype : std::uint8_t { kHeader = 1, kInputTerminal = 2, kProcessingUnit = 5, kExtensionUnit = 6 };

class Parser {
  public:
    VideoFunction Run(std::span<const std::uint8_t> configuration) {
        ByteCursor rest(configuration);
        while (rest.Remaining() >= 2) {
            ByteCursor head = rest;
            const std::uint8_t length = head.U8();
            if (length < 2)
                break;
            ByteCursor body = rest.Carve(length);
            if (!body.Ok())
                break;
            body.Skip(1);
            Descriptor(body.U8(), body);
        }
        std::erase_if(function_.formats, [](const StreamFormat &format) { return format.frames.empty(); });
        std::stable_partition(function_.formats.begin(), function_.formats.end(),
                              [](const StreamFormat &format) { return format.bitsPerPixel != 0; });
        return std::move(function_);
    }

  private:
    void Descriptor(std::uint8_t type, ByteCursor body) {
        switch (type) {
        case 0x04:
            return Interface(body);
        case 0x05:
            return Endpoint(body);
        case 0x24:
            if (place_ == Place::Control)
                return ControlDescriptor(body);
            if (place_ == Place::Streaming)
                return StreamingDescriptor(body);
            return;
        default:
            return;
        }
    }

    void Interface(ByteCursor body) {
        const std::uint8_t number = body.U8();
        const std::uint8_t alternate = body.U8();
        body.Skip(1);
        const std::uint8_t interfaceClass = body.U8();
        const std::uint8_t subclass = body.U8();
        place_ = Place::Elsewhere;
        endpointsCount_ = false;
        if (!body.Ok())
            return;
        function_.interfaces.push_back({number, alternate});
        if (alternate != 0)
            return;
        // Some cameras give a vendor class to interfaces that are video in every other way.
        const bool video = interfaceClass == 0x0E || interfaceClass == 0xFF;
        if (video && subclass == 1 && !sawControl_) {
            place_ = Place::Control;
            sawControl_ = true;
            function_.controlInterface = number;
        } else if (video && subclass == 2 && number == kStreamingInterfaceNumber) {
            place_ = Place::Streaming;
            endpointsCount_ = true;
            function_.hasStreaming = true;
        }
    }

    void Endpoint(ByteCursor body) {
        const std::uint8_t address = body.U8();
        const std::uint8_t attributes = body.U8();
        const std::uint16_t packet = body.U16();
        if (!body.Ok() || !endpointsCount_ || function_.bulkEndpoint != 0)
            return;
        if ((address & 0x80) != 0 && (attributes & 3) == 2 && (packet & 0x7FF) != 0) {
            function_.bulkEndpoint = address;
            function_.packetSize = packet & 0x7FF;
        }
    }

    void ControlDescriptor(ByteCursor body) {
        switch (body.U8()) {
        case kHeader:
            function_.bcdUvc = body.U16();
            return;
        case kInputTerminal: {
            const std::uint8_t id = body.U8();
            if (body.U16() != kCameraTerminalType)
                return;
            body.Skip(8);
            return AddEntity(EntityKind::CameraTerminal, id, body);
        }
        case kProcessingUnit: {
            const std::uint8_t id = body.U8();
            body.Skip(3);
            return AddEntity(EntityKind::ProcessingUnit, id, body);
        }
        case kExtensionUnit: {
            const std::uint8_t id = body.U8();
            body.Skip(17);
            body.Skip(body.U8());
            return AddEntity(EntityKind::ExtensionUnit, id, body);
        }
        default:
            return;
        }
    }

    void AddEntity(EntityKind kind, std::uint8_t id, ByteCursor controls) {
        const auto bits = controls.Take(controls.U8());
        if (controls.Ok())
            function_.entities.push_back({kind, id, {bits.begin(), bits.end()}});
    }

    void StreamingDescriptor(ByteCursor body) {
        const std::uint8_t subtype = body.U8();
        switch (subtype) {
        case 0x04: // uncompressed
        case 0x10: // frame based
        {
            StreamFormat format{.index = body.U8()};
            body.Skip(1);
            const auto guid = body.Take(16);
            format.bitsPerPixel = body.U8();
            if (!body.Ok())
                return;
            format.pixels = PixelFormatOf(guid.first<16>());
            function_.formats.push_back(std::move(format));
            return;
        }
        case 0x06: // MJPEG
            function_.formats.push_back({.index = body.U8()});
            return;
        case 0x05:
        case 0x07:
        case 0x11:
            return Frame(body, subtype == 0x11);
        default:
            return;
        }
    }

    void Frame(ByteCursor body, bool frameBased) {
        StreamFrame frame{.index = body.U8()};
        body.Skip(1);
        frame.width = body.U16();
        frame.height = body.U16();
        body.Skip(8);
        std::uint32_t bufferSize = frameBased ? 0 : body.U32();
        frame.defaultInterval = body.U32();
        const std::uint8_t count = body.U8();
        if (frameBased)
            body.Skip(4);
        if (!body.Ok() || function_.formats.empty())
            return;
        frame.continuous = count == 0;
        for (int i = 0; i < (frame.continuous ? 3 : count); ++i) {
            const std::uint32_t interval = body.U32();
            if (body.Ok())
                frame.intervals.push_back(interval);
        }
        if (frame.intervals.size() < 3)
            frame.continuous = false;
        if (frame.intervals.empty())
            frame.intervals.push_back(frame.defaultInterval);

        StreamFormat &format = function_.formats.back();
        const std::uint64_t computed = std::uint64_t{frame.width} * frame.height * format.bitsPerPixel / 8;
        frame.bytes = computed != 0 ? static_cast<std::uint32_t>(computed) : bufferSize;
        if (frame.bytes != 0 && frame.bytes <= kLargestFrame)
            format.frames.push_back(std::move(frame));
    }

    // A broken descriptor must not make the simulation allocate gigabytes.
    static constexpr std::uint32_t kLargestFrame = 256u << 20;

    enum class Place { Elsewhere, Control, Streaming };

    VideoFunction function_;
    Place place_ = Place::Elsewhere;
    bool sawControl_ = false;
    bool endpointsCount_ = false;
};

} // namespace

VideoFunction ParseVideoFunction(std::span<const std::uint8_t> configuration) {
    return Parser().Run(configuration);
}

} // namespace host::cameras
