#include "camera/descriptor_parser.h"
#include "tests/camera/descriptor_bytes.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

namespace uvc::camera_test {
namespace {

// The bytes in a block of their exact size, so that a read beyond the end is seen by the address sanitizer.
class Parsed {
  public:
    explicit Parsed(std::span<const std::uint8_t> bytes)
        : size_(bytes.size()), bytes_(std::make_unique<std::uint8_t[]>(size_)) {
        std::copy(bytes.begin(), bytes.end(), bytes_.get());
        ParseDescriptors({bytes_.get(), size_}, block);
        CheckReadable();
    }

    ULONG FrameCount() const {
        ULONG count = 0;
        for (ULONG i = 0; i < block.formatCount; ++i)
            count += block.formats[i].frameCount;
        return count;
    }

    // The id of a stored entity, 0 without one.
    static int IdOf(const UCHAR *entity) { return entity == nullptr ? 0 : entity[3]; }

    DescriptorBlock block{};

  private:
    void CheckInside(const UCHAR *descriptor) const {
        ASSERT_GE(descriptor, bytes_.get());
        ASSERT_LE(descriptor + descriptor[0], bytes_.get() + size_);
    }

    // Whatever was stored can be read again without leaving the bytes.
    void CheckReadable() const {
        ASSERT_LE(ULONG{block.formatCount}, kMaximumFormats);
        for (const UCHAR *entity : {block.cameraTerminal, block.processingUnit, block.extensionUnit}) {
            if (entity == nullptr)
                continue;
            CheckInside(entity);
            auto controls = EntityControls(entity);
            ASSERT_LE(controls.data() + controls.size(), entity + entity[0]);
        }
        for (ULONG i = 0; i < block.formatCount; ++i) {
            const DescribedFormat &described = block.formats[i];
            FormatDescription format;
            CheckInside(described.format);
            ASSERT_TRUE(ReadFormatDescriptor(described.format, format));
            ASSERT_LE(ULONG{described.frameCount}, kMaximumFrames);
            for (ULONG j = 0; j < described.frameCount; ++j) {
                FrameDescription frame;
                CheckInside(described.frames[j]);
                ASSERT_TRUE(ReadFrameDescriptor(described.frames[j], frame));
                ASSERT_EQ(frame.intervals.Remaining(), 4 * frame.intervalCount);
            }
        }
    }

    std::size_t size_;
    std::unique_ptr<std::uint8_t[]> bytes_;
};

const Bytes kControlPart = Interface(0) + InputTerminal(1) + ProcessingUnit(2) + ExtensionUnit(3);

TEST(DescriptorParser, ReadsTheDescriptorsOfRealCameras) {
    struct Case {
        const char *name;
        int terminal;
        int processing;
        int extension;
        std::vector<ULONG> frameCounts; // by format
    };
    const Case cases[] = {
        {"fx3-ss-bulk-uyvy", 1, 2, 3, {1}},
        {"thermal-bulk-multi-b", 2, 5, 10, {3, 1}},
        {"capture-ss-bulk-5fmt", 1, 2, 3, {7, 8, 8, 7, 7}},
        {"capture-ss-bulk-40frames", 1, 2, 0, {11, 11}}, // 20 each
        {"devkit-dual-bulk-mjpg", 1, 0, 0, {}},          // MJPEG only
        {"conference-bulk-mjpg", 1, 5, 10, {}},
        {"thermal-fs-isoc-y16", 1, 2, 3, {1, 2, 1, 1, 1}},
        {"webcam-isoc-h264-badcount-b", 1, 2, 3, {10, 3}}, // announces other numbers of frames than it has
        {"webcam-hd-isoc-h264-b", 1, 2, 3, {7, 11}},
        {"laptop-isoc-dual-function-ir", 1, 2, 4, {6}}, // a second video function behind the first
        {"microscope-isoc-vc-class255", 1, 3, 4, {5}},
        {"webcam-isoc-ot-first", 1, 3, 4, {7}},
        {"webcam-isoc-still-xu-first", 1, 2, 6, {11}},
        {"webcam-isoc-video-if2", 0, 0, 0, {}}, // audio sits on interfaces 0 and 1
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.name);
        Bytes bytes = ReadCameraFile(std::string(test.name) + ".cfg.bin");
        ASSERT_FALSE(bytes.empty());
        Parsed parsed(bytes);
        EXPECT_EQ(Parsed::IdOf(parsed.block.cameraTerminal), test.terminal);
        EXPECT_EQ(Parsed::IdOf(parsed.block.processingUnit), test.processing);
        EXPECT_EQ(Parsed::IdOf(parsed.block.extensionUnit), test.extension);
        ASSERT_EQ(ULONG{parsed.block.formatCount}, test.frameCounts.size());
        for (ULONG i = 0; i < parsed.block.formatCount; ++i)
            EXPECT_EQ(ULONG{parsed.block.formats[i].frameCount}, test.frameCounts[i]) << "format " << i;
    }
}

TEST(DescriptorParser, NeverLeavesATruncatedOrDamagedConfiguration) {
    int files = 0;
    for (const auto &entry : std::filesystem::directory_iterator(UVC_TEST_DATA "/cameras")) {
        std::string name = entry.path().filename();
        if (!name.ends_with(".cfg.bin"))
            continue;
        SCOPED_TRACE(name);
        ++files;
        Bytes bytes = ReadCameraFile(name);
        ULONG whole = Parsed(bytes).FrameCount();
        ULONG before = 0;
        for (std::size_t length = 0; length <= bytes.size(); ++length) {
            ULONG count = Parsed(std::span(bytes).first(length)).FrameCount();
            ASSERT_GE(count, before) << length;
            ASSERT_LE(count, whole) << length;
            before = count;
        }
        for (std::size_t at = 0; at < bytes.size() && bytes[at] >= 2; at += bytes[at]) {
            for (std::uint8_t length : {0, 1, 2, 3, 255}) {
                Bytes damaged = bytes;
                damaged[at] = length;
                Parsed parsed(damaged);
            }
        }
    }
    EXPECT_GT(files, 10);
}

TEST(DescriptorParser, LeavesOutWhatDoesNotFit) {
    const Bytes frame = Frame(1, 640, 480, 1, {333333});
    struct Case {
        const char *name;
        Bytes streaming;
        ULONG formats;
        ULONG frames;
    };
    const Case cases[] = {
        {"one of each", Format(1) + frame, 1, 1},
        {"frame without format", frame + Format(1), 1, 0},
        {"frame-based frame of an uncompressed format", Format(1) + Frame(1, 640, 480, 1, {1}, true), 1, 0},
        {"uncompressed frame of a frame-based format", Format(1, true) + frame, 1, 0},
        {"frame-based", Format(1, true) + Frame(1, 640, 480, 2, {1, 2}, true), 1, 1},
        {"frame behind MJPEG", Format(1) + Descriptor({0x24, 0x06, 2, 1, 0, 1, 0, 0, 0, 0}) + frame, 1, 0},
        {"MJPEG frame", Format(1) + Descriptor(Bytes{0x24, 0x07, 1} + Bytes(26, 0)) + frame, 1, 1},
        {"unknown subtype between frames", Format(1) + frame + Descriptor({0x24, 0x42, 9}) + frame, 1, 2},
        {"still image and colours between frames",
         Format(1) + Descriptor({0x24, 0x03, 0, 0, 0}) + Descriptor({0x24, 0x0D, 1, 1, 4}) + frame, 1, 1},
        {"fewer intervals than announced", Format(1) + Frame(1, 640, 480, 3, {1, 2}), 1, 0},
        {"more intervals than announced", Format(1) + Frame(1, 640, 480, 1, {1, 2}), 1, 1},
        {"255 intervals announced", Format(1) + Frame(1, 640, 480, 255, {1, 2}), 1, 0},
        {"range", Format(1) + Frame(1, 640, 480, 0, {1, 9, 1}), 1, 1},
        {"range without limits", Format(1) + Frame(1, 640, 480, 0, {}), 1, 1},
        {"format without bits", Descriptor(Bytes{0x24, 0x04, 1, 1} + Bytes(16, 0)) + frame, 0, 0},
        {"alternate setting", Interface(1, 1) + Format(1) + frame, 0, 0},
        {"other interface", Interface(2) + Format(1) + frame, 0, 0},
        {"audio class", Interface(1, 0, 0x01) + Format(1) + frame, 0, 0},
        {"vendor class", Interface(1, 0, 0xFF) + Format(1) + frame, 1, 1},
        {"interface descriptor cut short", Descriptor({0x04, 1, 0}) + Format(1) + frame, 0, 0},
        {"zero length", Format(1) + Bytes{0, 0x24} + frame, 1, 0},
        {"length one", Format(1) + Bytes{1, 0x24} + frame, 1, 0},
        {"two bytes only", Format(1) + Bytes{2, 0x24} + frame, 1, 1},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.name);
        Parsed parsed(kControlPart + Interface(1) + test.streaming);
        EXPECT_EQ(ULONG{parsed.block.formatCount}, test.formats);
        EXPECT_EQ(parsed.FrameCount(), test.frames);
    }

    Bytes many = kControlPart + Interface(1);
    for (std::uint8_t format = 1; format <= 9; ++format) {
        many = many + Format(format);
        for (std::uint8_t i = 1; i <= 13; ++i)
            many = many + Frame(i, 640, 480, 1, {333333});
    }
    Parsed parsed(many);
    ASSERT_EQ(ULONG{parsed.block.formatCount}, 7u);
    for (ULONG i = 0; i < 7; ++i) {
        EXPECT_EQ(parsed.block.formats[i].format[3], i + 1);
        ASSERT_EQ(ULONG{parsed.block.formats[i].frameCount}, 11u);
        EXPECT_EQ(parsed.block.formats[i].frames[10][3], 11);
    }
}

TEST(DescriptorParser, TakesTheFirstEntityOfEachKind) {
    struct Case {
        const char *name;
        Bytes control;
        int terminal;
        int processing;
        int extension;
    };
    Bytes lyingUnit = ProcessingUnit(2);
    lyingUnit[7] = 4; // one more than there is room for
    Bytes lyingExtension = ExtensionUnit(3);
    lyingExtension[21] = 200; // baSourceID beyond the end
    const Case cases[] = {
        {"all", InputTerminal(1) + ProcessingUnit(2) + ExtensionUnit(3), 1, 2, 3},
        {"second ones", ExtensionUnit(3) + ExtensionUnit(4) + ProcessingUnit(5) + ProcessingUnit(6), 0, 5, 3},
        {"camera behind another terminal", InputTerminal(1, 0x0401) + InputTerminal(2), 0, 0, 0},
        {"camera before another terminal", InputTerminal(1) + InputTerminal(2, 0x0401), 1, 0, 0},
        {"controls beyond the end", lyingUnit + lyingExtension, 0, 0, 0},
        {"no controls", InputTerminal(1, 0x0201, {}) + ProcessingUnit(2, {}) + ExtensionUnit(3, {}, {}), 1, 2, 3},
        {"terminal without controls field", Descriptor({0x24, 0x02, 1, 0x01, 0x02, 0, 0}), 0, 0, 0},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.name);
        Parsed parsed(Interface(0) + test.control);
        EXPECT_EQ(Parsed::IdOf(parsed.block.cameraTerminal), test.terminal);
        EXPECT_EQ(Parsed::IdOf(parsed.block.processingUnit), test.processing);
        EXPECT_EQ(Parsed::IdOf(parsed.block.extensionUnit), test.extension);
    }
    Bytes unit = ExtensionUnit(3, {1, 2}, {0x12, 0x34});
    auto controls = EntityControls(unit.data());
    EXPECT_EQ(Bytes(controls.begin(), controls.end()), (Bytes{0x12, 0x34}));
}

} // namespace
} // namespace uvc::camera_test
