#include "camera/camera_family_c.h"
#include "tests/camera/descriptor_bytes.h"
#include "tests/camera/plugged_camera.h"
#include "tests/host/usb/fake_device.h"

#include <cstring>
#include <map>

namespace uvc::camera_test {
namespace {

using Texts = std::vector<std::string>;

std::string SubtypeText(const GUID &subtype) {
    if (subtype == kSubtypeRgb24)
        return "RGB24";
    if (subtype == kSubtypeRgb32)
        return "RGB32";
    char text[5] = {};
    std::memcpy(text, &subtype.Data1, 4);
    return text;
}

// "YUY2/16 640x480 1.2 166666-2000000": subtype, bits, size, format and frame index, interval limits.
Texts FormatTexts(const UvcCamera &camera) {
    Texts texts;
    for (const FormatRecord &record : camera.formats) {
        const KS_BITMAPINFOHEADER &image = record.range.VideoInfoHeader.bmiHeader;
        texts.push_back(SubtypeText(record.range.DataRange.SubFormat) + '/' + std::to_string(image.biBitCount) + ' ' +
                        std::to_string(image.biWidth) + 'x' + std::to_string(image.biHeight) + ' ' +
                        std::to_string(record.formatIndex) + '.' + std::to_string(record.frameIndex) + ' ' +
                        std::to_string(record.range.ConfigCaps.MinFrameInterval) + '-' +
                        std::to_string(record.range.ConfigCaps.MaxFrameInterval));
    }
    return texts;
}

struct Interval {
    NTSTATUS status;
    std::vector<LONGLONG> list;
    bool operator==(const Interval &) const = default;
};

Interval Query(UvcCamera &camera, ULONG range, LONG width, LONG height, ULONG room = 20) {
    std::vector<LONGLONG> list(room);
    ULONG count = 77;
    NTSTATUS status = camera.QueryFrameIntervals(range, width, height, list.data(), room, count);
    list.resize(std::min(room, count));
    if (room == 0)
        list.assign(1, count); // how many there are
    return {status, list};
}

// Of a record, at its own size.
Interval Query(UvcCamera &camera, ULONG range) {
    const KS_BITMAPINFOHEADER &image = camera.formats[range].range.VideoInfoHeader.bmiHeader;
    return Query(camera, range, image.biWidth, image.biHeight);
}

TEST(CameraFormats, EachModelOffersItsList) {
    const std::map<const char *, Texts> lists{
        {"sim:generic",
         {"YUY2/16 640x480 1.1 166666-2000000", "YUY2/16 320x240 1.2 166666-2000000",
          "YUY2/16 1280x960 1.3 333333-2000000", "Y800/8 640x480 2.1 166666-2000000",
          "Y800/8 320x240 2.2 166666-2000000", "Y800/8 1280x960 2.3 333333-2000000"}},
        {"sim:8203", // colour
         {"BY8 /8 2048x1536 1.1 1000000-2666664", "BY8 /8 1024x768 1.2 281690-1000000",
          "RGB32/32 2048x1536 1.1 1000000-2666664", "RGB24/24 2048x1536 1.1 1000000-2666664",
          "Y800/8 2048x1536 1.1 1000000-2666664", "RGB32/32 1024x768 1.2 281690-1000000",
          "RGB24/24 1024x768 1.2 281690-1000000", "Y800/8 1024x768 1.2 281690-1000000"}},
        {"sim:8204", // monochrome
         {"Y800/8 2592x1944 1.1 361000-1333333", "RGB24/24 2592x1944 1.1 361000-1333333",
          "RGB32/32 2592x1944 1.1 361000-1333333"}},
    };
    for (const auto &[text, list] : lists) {
        SCOPED_TRACE(text);
        PluggedCamera plugged(text);
        EXPECT_EQ(FormatTexts(plugged.camera), list);
        EXPECT_TRUE(plugged.camera.formatsReady);
        EXPECT_EQ(plugged.camera.stream.workerMode, list[0].find("YUY2") == std::string::npos);
        // A restarted camera has its list once.
        EXPECT_EQ(plugged.camera.Initialise(), STATUS_SUCCESS);
        EXPECT_EQ(FormatTexts(plugged.camera), list);
    }
}

TEST(CameraFormats, IntervalsComeFromTheDescriptorsOrTheFamilysLists) {
    const std::vector<LONGLONG> video{166666, 333333, 400000, 666666, 1000000, 2000000};
    const std::vector<LONGLONG> c4{370009, 500000, 666666, 1333333, 2000000};
    struct Case {
        const char *text;
        ULONG range;
        Interval intervals;
    };
    const Case cases[] = {
        {"sim:generic", 0, {STATUS_SUCCESS, video}},
        {"sim:8102", 4, {STATUS_SUCCESS, {333333, 666666, 1000000, 2000000}}}, // a derived record
        {"sim:8201", 0, {STATUS_SUCCESS, {114942, 166666, 333333, 666666, 1333332, 2000000}}},
        {"sim:8201", 1, {STATUS_SUCCESS, {62500, 83333, 125000, 166666, 333333}}},
        {"sim:8202", 2, {STATUS_SUCCESS, {131578, 166666, 333333, 666666, 1333332, 2000000}}},
        {"sim:8203", 0, {STATUS_SUCCESS, {1000000, 1333332, 2000000, 2666664}}},
        {"sim:8203", 7, {STATUS_SUCCESS, {281690, 333333, 666666, 1000000}}},
        {"sim:8204", 0, {STATUS_SUCCESS, {361000, 500000, 666666, 1333333}}},
        {"sim:8205", 2, {STATUS_SUCCESS, c4}},
        {"sim:8206", 0, {STATUS_SUCCESS, {666666, 1333333, 2000000}}},
        {"sim:8207", 0, {STATUS_NOT_IMPLEMENTED, {}}},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(std::string(test.text) + ' ' + std::to_string(test.range));
        PluggedCamera plugged(test.text);
        EXPECT_EQ(Query(plugged.camera, test.range), test.intervals);
    }

    PluggedCamera plugged("sim:8205");
    EXPECT_EQ(Query(plugged.camera, 2, 640, 480, 0), (Interval{STATUS_SUCCESS, {5}}));
    EXPECT_EQ(Query(plugged.camera, 2, 640, 480, 2), (Interval{STATUS_SUCCESS, {370009, 500000}}));
    EXPECT_EQ(Query(plugged.camera, 2, 640, 481), (Interval{STATUS_INVALID_PARAMETER, {}}));
    EXPECT_EQ(Query(plugged.camera, 2, 641, 480), (Interval{STATUS_INVALID_PARAMETER, {}}));
    EXPECT_EQ(Query(plugged.camera, plugged.camera.formats.Count(), 640, 480),
              (Interval{STATUS_INVALID_PARAMETER, {}}));
    EXPECT_EQ(Query(plugged.camera, 0xFFFFFFFF, 640, 480), (Interval{STATUS_INVALID_PARAMETER, {}}));
}

// A device with descriptors of our own, and a camera description where one is given.
std::shared_ptr<host::usb::test::FakeDevice> Device(std::uint16_t productId, const Bytes &streaming,
                                                    const Bytes &description = {}) {
    auto device = std::make_shared<host::usb::test::FakeDevice>();
    device->deviceDescriptor[10] = static_cast<std::uint8_t>(productId);
    device->deviceDescriptor[11] = static_cast<std::uint8_t>(productId >> 8);
    device->configuration = host::usb::test::ConfigurationDescriptor(
        2, host::usb::test::InterfaceDescriptor(0, 0, 0) + InputTerminal(1) + ProcessingUnit(2) +
               host::usb::test::InterfaceDescriptor(1, 0, 1) + streaming +
               host::usb::test::EndpointDescriptor(0x81, 2, 512, 0));
    device->onControl = [description](const host::usb::Setup &setup, std::span<std::uint8_t> data) {
        if (setup.requestType != 0xC0 || setup.request != 0x20 || description.empty())
            return host::usb::TransferResult{.status = host::usb::TransferStatus::Stall};
        std::size_t length = std::min(data.size(), description.size());
        std::copy_n(description.begin(), length, data.begin());
        return host::usb::TransferResult{.length = length};
    };
    return device;
}

const Bytes kColourDescription{1, 1, 2, 0, 0x80, 0x02, 0xE0, 0x01};

TEST(CameraFormats, UnusualDescriptors) {
    const Bytes frames = Frame(1, 640, 480, 2, {500000, 400000}) + Frame(2, 320, 240, 0, {100, 900, 100}) +
                         Frame(3, 160, 120, 1, {0}) + Frame(4, 80, 60, 0, {});
    const Bytes based = Frame(1, 640, 480, 1, {333333}, true) + Frame(2, 320, 240, 1, {333333}, true);
    struct Case {
        const char *name;
        std::uint16_t productId;
        Bytes streaming;
        Bytes description;
        Texts list;
    };
    const Case cases[] = {
        {"kinds of intervals",
         0x1234,
         Format(3) + frames,
         {},
         {"YUY2/16 640x480 3.1 400000-500000", "YUY2/16 320x240 3.2 100-900", "YUY2/16 160x120 3.3 1-1",
          "YUY2/16 80x60 3.4 333333-333333"}},
        {"frame-based",
         0x1234,
         Format(1, true, "H264", 0) + based,
         {},
         {"H264/0 640x480 1.1 333333-333333", "H264/0 320x240 1.2 333333-333333"}},
        {"raw frame-based frames have 8 bits",
         0x8206,
         Format(1, true, "Y800", 16) + Frame(1, 640, 480, 1, {333333}, true),
         kColourDescription,
         {"Y800/8 640x480 1.1 333333-333333", "RGB32/32 640x480 1.1 333333-333333",
          "RGB24/24 640x480 1.1 333333-333333", "BY8 /8 640x480 1.1 333333-333333"}},
        {"the same output is offered once",
         0x8102,
         Format(1, false, "BY8 ", 8) + Frame(1, 640, 480, 1, {333333}) + Format(2, false, "Y800", 8) +
             Frame(1, 640, 480, 1, {333333}),
         kColourDescription,
         {"BY8 /8 640x480 1.1 333333-333333", "Y800/8 640x480 2.1 333333-333333", "RGB32/32 640x480 1.1 333333-333333",
          "RGB24/24 640x480 1.1 333333-333333"}},
        {"nothing is made of what is no raw image",
         0x8102,
         Format(1) + Frame(1, 640, 480, 1, {333333}),
         kColourDescription,
         {"YUY2/16 640x480 1.1 333333-333333"}},
        {"one frame-based frame",
         0x8204,
         Format(1, true, "Y800", 8) + based,
         {},
         {"Y800/8 640x480 1.1 333333-333333", "RGB24/24 640x480 1.1 333333-333333",
          "RGB32/32 640x480 1.1 333333-333333"}},
        {"uncompressed frames are not skipped",
         0x8204,
         Format(1, false, "Y800", 8) + Frame(1, 640, 480, 1, {333333}) + Frame(2, 320, 240, 1, {333333}) +
             Format(2, true, "Y800", 8) + Frame(1, 160, 120, 1, {333333}, true),
         {},
         {"Y800/8 640x480 1.1 333333-333333", "Y800/8 320x240 1.2 333333-333333", "Y800/8 160x120 2.1 333333-333333",
          "RGB24/24 640x480 1.1 333333-333333", "RGB32/32 640x480 1.1 333333-333333",
          "RGB24/24 320x240 1.2 333333-333333", "RGB32/32 320x240 1.2 333333-333333",
          "RGB24/24 160x120 2.1 333333-333333", "RGB32/32 160x120 2.1 333333-333333"}},
        {"nothing offered", 0x1234, {}, {}, {}},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.name);
        PluggedDevice plugged(Device(test.productId, test.streaming, test.description));
        ASSERT_EQ(plugged.camera->Initialise(), STATUS_SUCCESS);
        EXPECT_EQ(FormatTexts(*plugged.camera), test.list);
        EXPECT_TRUE(plugged.camera->formatsReady);
    }
    PluggedDevice plugged(Device(0x1234, Format(3) + frames));
    ASSERT_EQ(plugged.camera->Initialise(), STATUS_SUCCESS);
    EXPECT_EQ(Query(*plugged.camera, 0), (Interval{STATUS_SUCCESS, {500000, 400000}}));
    EXPECT_EQ(Query(*plugged.camera, 1), (Interval{STATUS_SUCCESS, {100, 900}}));
    EXPECT_EQ(Query(*plugged.camera, 3), (Interval{STATUS_SUCCESS, {}}));
}

// Whether the camera is taken for a colour camera shows in the streaming-mode parameter.
TEST(CameraFormats, ADescriptionThatIsNotUnderstoodMeansMonochrome) {
    struct Case {
        const char *name;
        Bytes description;
        bool colour;
    };
    const Case cases[] = {
        {"colour", kColourDescription, true},
        {"stall", {}, false},
        {"short", {1, 1, 2, 0, 0x80, 0x02, 0xE0}, false},
        {"other version", {2, 1, 2, 0, 0x80, 0x02, 0xE0, 0x01}, false},
        {"monochrome", {1, 0xFE, 2, 0, 0x80, 0x02, 0xE0, 0x01}, false},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.name);
        PluggedDevice plugged(
            Device(0x8201, Format(1, true, "Y800", 8) + Frame(1, 640, 480, 1, {333333}, true), test.description));
        ASSERT_EQ(plugged.camera->Initialise(), STATUS_SUCCESS);
        EXPECT_EQ(plugged.camera->IsParameterSupported(14), test.colour);
    }
}

TEST(CameraFormats, ProbeRequestsNameTheFirstMatchingRecord) {
    struct Case {
        const char *text;
        ULONG range;
        LONG width; // 0: the record's
        NTSTATUS status;
        UCHAR formatIndex;
        UCHAR frameIndex;
        ULONG interval;
    };
    const Case cases[] = {
        {"sim:generic", 4, 0, STATUS_SUCCESS, 2, 2, 400000},
        {"sim:generic", 4, 322, STATUS_INVALID_PARAMETER, 0, 0, 0},
        {"sim:8102", 3, 0, STATUS_SUCCESS, 1, 1, 400000},
        {"sim:8203", 5, 0, STATUS_SUCCESS, 1, 2, 333333}, // family C negotiates one interval for all
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(std::string(test.text) + ' ' + std::to_string(test.range));
        PluggedCamera plugged(test.text);
        KS_VIDEOINFOHEADER format = plugged.camera.formats[test.range].range.VideoInfoHeader;
        format.bmiHeader.biHeight = -format.bmiHeader.biHeight;
        if (test.width != 0)
            format.bmiHeader.biWidth = test.width;
        format.AvgTimePerFrame = 400000;
        ProbeCommitBlock block;
        std::memset(&block, 0xCC, sizeof(block));
        ASSERT_EQ(plugged.camera.BuildProbeRequest(format, block), test.status);
        if (!NT_SUCCESS(test.status))
            continue;
        ProbeCommitBlock expected{.bmHint = 1,
                                  .bFormatIndex = test.formatIndex,
                                  .bFrameIndex = test.frameIndex,
                                  .dwFrameInterval = test.interval};
        EXPECT_EQ(std::memcmp(&block, &expected, sizeof(block)), 0);

        ProbeCommitBlock got = expected;
        got.dwFrameInterval = 1;
        EXPECT_EQ(plugged.camera.CheckProbeResult(expected, got), STATUS_SUCCESS);
        got.bFrameIndex ^= 1;
        EXPECT_EQ(plugged.camera.CheckProbeResult(expected, got), STATUS_INVALID_PARAMETER);
        got = expected;
        got.bFormatIndex ^= 1;
        EXPECT_EQ(plugged.camera.CheckProbeResult(expected, got), STATUS_INVALID_PARAMETER);
    }
}

} // namespace
} // namespace uvc::camera_test
