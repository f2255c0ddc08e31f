#include "camera/descriptor_parser.h"

#include "usb/device_link.h"
#include "usb/uvc_request.h"

namespace uvc {

namespace {

constexpr UCHAR kInterfaceDescriptor = 0x04;
constexpr UCHAR kClassInterfaceDescriptor = 0x24; // CS_INTERFACE

constexpr UCHAR kVideoClass = 0x0E;
constexpr UCHAR kVendorClass = 0xFF; // some cameras announce their video interfaces so

constexpr USHORT kCameraTerminalType = 0x0201; // ITT_CAMERA

// UVC 1.1 table A-6, and the formats that UVC 1.5 adds.
enum StreamingSubtype : UCHAR {
    kFormatUncompressed = 0x04,
    kFrameUncompressed = 0x05,
    kFormatMjpeg = 0x06,
    kFormatMpeg2Ts = 0x0A,
    kFormatDv = 0x0C,
    kFormatFrameBased = 0x10,
    kFrameFrameBased = 0x11,
    kFormatStreamBased = 0x12,
    kFormatH264 = 0x13,
    kFormatH264Simulcast = 0x15,
    kFormatVp8 = 0x16,
};

// A cursor behind the common head of a class-specific descriptor, and that head's subtype.
ByteCursor OpenDescriptor(const UCHAR *descriptor, UCHAR &subtype) {
    ByteCursor cursor(descriptor == nullptr ? std::span<const std::uint8_t>() : std::span(descriptor, descriptor[0]));
    cursor.Skip(2);
    subtype = cursor.U8();
    return cursor;
}

class DescriptorWalk {
  public:
    explicit DescriptorWalk(DescriptorBlock &block) : block_(block) {}

    void Visit(std::span<const std::uint8_t> descriptor) {
        switch (descriptor[1]) {
        case kInterfaceDescriptor:
            EnterInterface(ByteCursor(descriptor));
            break;
        case kClassInterfaceDescriptor:
            if (descriptor.size() < 3)
                break;
            if (section_ == Section::Control)
                VisitEntity(descriptor.data(), descriptor[2]);
            else if (section_ == Section::Streaming)
                VisitStreaming(descriptor.data(), descriptor[2]);
            break;
        }
    }

  private:
    enum class Section { Other, Control, Streaming };

    void EnterInterface(ByteCursor cursor) {
        cursor.Skip(2);
        UCHAR number = cursor.U8();
        UCHAR alternate = cursor.U8();
        cursor.Skip(1);
        UCHAR interfaceClass = cursor.U8();

        section_ = Section::Other;
        format_ = nullptr;
        bool video = interfaceClass == kVideoClass || interfaceClass == kVendorClass;
        if (!cursor.Ok() || !video || alternate != 0)
            return;
        if (number == kControlInterface)
            section_ = Section::Control;
        else if (number == kStreamingInterface)
            section_ = Section::Streaming;
    }

    void VisitEntity(const UCHAR *descriptor, UCHAR subtype) {
        switch (subtype) {
        case kInputTerminal:
            VisitInputTerminal(descriptor);
            break;
        case kProcessingUnit:
            TakeFirst(block_.processingUnit, descriptor);
            break;
        case kExtensionUnit:
            TakeFirst(block_.extensionUnit, descriptor);
            break;
        }
    }

    // Only the first input terminal counts: behind it, a camera terminal stays unknown.
    void VisitInputTerminal(const UCHAR *descriptor) {
        if (seenInputTerminal_)
            return;
        seenInputTerminal_ = true;
        UCHAR subtype;
        ByteCursor cursor = OpenDescriptor(descriptor, subtype);
        cursor.Skip(1); // bTerminalID
        if (cursor.U16() == kCameraTerminalType && EntityControls(descriptor).data() != nullptr)
            block_.cameraTerminal = descriptor;
    }

    static void TakeFirst(const UCHAR *&entity, const UCHAR *descriptor) {
        if (entity == nullptr && EntityControls(descriptor).data() != nullptr)
            entity = descriptor;
    }

    void VisitStreaming(const UCHAR *descriptor, UCHAR subtype) {
        switch (subtype) {
        case kFormatUncompressed:
        case kFormatFrameBased:
            EnterFormat(descriptor, subtype == kFormatFrameBased);
            break;
        case kFrameUncompressed:
        case kFrameFrameBased:
            AddFrame(descriptor, subtype == kFrameFrameBased);
            break;
        case kFormatMjpeg:
        case kFormatMpeg2Ts:
        case kFormatDv:
        case kFormatStreamBased:
        case kFormatH264:
        case kFormatH264Simulcast:
        case kFormatVp8:
            format_ = nullptr; // what follows belongs to a format that the driver does not offer
            break;
        }
    }

    void EnterFormat(const UCHAR *descriptor, bool frameBased) {
        format_ = nullptr;
        FormatDescription description;
        if (block_.formatCount == kMaximumFormats || !ReadFormatDescriptor(descriptor, description))
            return;
        format_ = &block_.formats[block_.formatCount++];
        format_->frameBased = frameBased;
        format_->format = descriptor;
    }

    void AddFrame(const UCHAR *descriptor, bool frameBased) {
        FrameDescription description;
        if (format_ == nullptr || (format_->frameBased != 0) != frameBased || format_->frameCount == kMaximumFrames ||
            !ReadFrameDescriptor(descriptor, description))
            return;
        format_->frames[format_->frameCount++] = descriptor;
    }

    DescriptorBlock &block_;
    Section section_ = Section::Other;
    bool seenInputTerminal_ = false;
    DescribedFormat *format_ = nullptr; // takes the frames that come
};

} // namespace

void ParseDescriptors(std::span<const std::uint8_t> configuration, DescriptorBlock &block) {
    DescriptorWalk walk(block);
    ByteCursor cursor(configuration);
    while (cursor.Remaining() != 0) {
        auto descriptor = cursor.Take(*cursor.Position());
        if (descriptor.size() < 2)
            return;
        walk.Visit(descriptor);
    }
}

std::span<const std::uint8_t> EntityControls(const UCHAR *entity) {
    UCHAR subtype;
    ByteCursor cursor = OpenDescriptor(entity, subtype);
    switch (subtype) {
    case kInputTerminal: // a camera's; other input terminals end before
        cursor.Skip(11);
        break;
    case kProcessingUnit:
        cursor.Skip(4);
        break;
    case kExtensionUnit:
        cursor.Skip(18);
        cursor.Skip(cursor.U8()); // baSourceID
        break;
    default:
        return {};
    }
    return cursor.Take(cursor.U8());
}

bool ReadFormatDescriptor(const UCHAR *descriptor, FormatDescription &format) {
    UCHAR subtype;
    ByteCursor cursor = OpenDescriptor(descriptor, subtype);
    if (subtype != kFormatUncompressed && subtype != kFormatFrameBased)
        return false;
    format.index = cursor.U8();
    cursor.Skip(1); // bNumFrameDescriptors: the frames that are there count
    format.subtype.Data1 = cursor.U32();
    format.subtype.Data2 = cursor.U16();
    format.subtype.Data3 = cursor.U16();
    for (UCHAR &byte : format.subtype.Data4)
        byte = cursor.U8();
    format.bitsPerPixel = cursor.U8();
    return cursor.Ok();
}

bool ReadFrameDescriptor(const UCHAR *descriptor, FrameDescription &frame) {
    UCHAR subtype;
    ByteCursor cursor = OpenDescriptor(descriptor, subtype);
    if (subtype != kFrameUncompressed && subtype != kFrameFrameBased)
        return false;
    frame.index = cursor.U8();
    cursor.Skip(1); // bmCapabilities
    frame.width = cursor.U16();
    frame.height = cursor.U16();
    cursor.Skip(8); // dwMinBitRate, dwMaxBitRate
    if (subtype == kFrameUncompressed)
        cursor.Skip(4); // dwMaxVideoFrameBufferSize
    frame.defaultInterval = cursor.U32();
    UCHAR intervalType = cursor.U8();
    if (subtype == kFrameFrameBased)
        cursor.Skip(4); // dwBytesPerLine

    constexpr ULONG kLimits = 2;
    frame.continuous = intervalType == 0;
    frame.intervalCount = intervalType;
    if (frame.continuous)
        frame.intervalCount = cursor.Remaining() >= kLimits * sizeof(ULONG) ? kLimits : 0;
    frame.intervals = cursor.Carve(frame.intervalCount * sizeof(ULONG));
    return cursor.Ok();
}

bool FindDescribedFrame(const DescriptorBlock &block, ULONG formatIndex, ULONG frameIndex, const UCHAR *&format,
                        const UCHAR *&frame) {
    for (ULONG i = 0; i < block.formatCount; ++i) {
        const DescribedFormat &described = block.formats[i];
        FormatDescription formatDescription;
        if (!ReadFormatDescriptor(described.format, formatDescription) || formatDescription.index != formatIndex)
            continue;
        for (ULONG j = 0; j < described.frameCount; ++j) {
            FrameDescription frameDescription;
            if (!ReadFrameDescriptor(described.frames[j], frameDescription) || frameDescription.index != frameIndex)
                continue;
            format = described.format;
            frame = described.frames[j];
            return true;
        }
    }
    return false;
}

} // namespace uvc
