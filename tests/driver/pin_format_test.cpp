// Intersection, the checks when a format is set, and the flip of a running stream.
#include "tests/driver/capture_rig.h"

#include <cstring>

namespace uvc::driver_test {

namespace {

using Format = KS_DATAFORMAT_VIDEOINFOHEADER;

class PinFormatTest : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(rig.started, STATUS_SUCCESS);
        range = *FindRange(rig.app.Ranges(), FourCc("YUY2"), 640);
    }

    // Asks for the intersection with a buffer of `room` bytes (all of them with none given).
    NTSTATUS Intersect(const KS_DATARANGE_VIDEO &caller, ULONG room, ULONG &returned, Format &format) {
        struct {
            KSP_PIN pin;
            KSMULTIPLE_ITEM items;
            KS_DATARANGE_VIDEO range;
        } input{};
        input.pin.Property = {.Set = {STATICGUIDOF(KSPROPSETID_Pin)},
                              .Id = KSPROPERTY_PIN_DATAINTERSECTION,
                              .Flags = KSPROPERTY_TYPE_GET};
        input.items = {.Size = sizeof(input.items) + sizeof(input.range), .Count = 1};
        input.range = caller;
        return rig.app.filter.RawProperty(&input, sizeof(input), room != 0 ? &format : nullptr, room, &returned);
    }

    // Opens a pin with a changed format.
    template <class Change> NTSTATUS OpenWith(Change change) {
        Application app;
        EXPECT_EQ(app.OpenFilter(), STATUS_SUCCESS);
        EXPECT_EQ(app.filter.Intersect(kPinId, BytesOf(range), app.format), STATUS_SUCCESS);
        auto &format = *reinterpret_cast<Format *>(app.format.data());
        change(format);
        return app.pin.Open(app.filter, kPinId, app.format);
    }

    Rig rig{"sim:generic"};
    KS_DATARANGE_VIDEO range{};
};

TEST_F(PinFormatTest, IntersectionMakesAFormatOfWhatTheCallerAsks) {
    KS_DATARANGE_VIDEO caller = range;
    KS_BITMAPINFOHEADER &bitmap = caller.VideoInfoHeader.bmiHeader;
    bitmap.biWidth = 635; // rows of 1270 bytes are rounded up to 1272
    bitmap.biHeight = -480;
    bitmap.biSizeImage = 1;
    caller.VideoInfoHeader.AvgTimePerFrame = 123456;
    Format format{};
    ULONG returned = 0;
    ASSERT_EQ(Intersect(caller, sizeof(format), returned, format), STATUS_SUCCESS);
    EXPECT_EQ(returned, sizeof(format));
    EXPECT_EQ(format.DataFormat.FormatSize, sizeof(format));
    EXPECT_EQ(format.DataFormat.SampleSize, 1272u * 480u);
    EXPECT_EQ(format.VideoInfoHeader.bmiHeader.biSizeImage, 1272u * 480u);
    EXPECT_EQ(format.VideoInfoHeader.bmiHeader.biHeight, -480);
    EXPECT_EQ(format.VideoInfoHeader.AvgTimePerFrame, 123456);
    EXPECT_EQ(format.VideoInfoHeader.rcSource.right, 0);
    EXPECT_EQ(format.VideoInfoHeader.rcTarget.right, 0);
}

TEST_F(PinFormatTest, IntersectionRefusesWhatDoesNotFit) {
    Format format{};
    ULONG returned = 0;
    EXPECT_EQ(Intersect(range, 0, returned, format), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(returned, sizeof(format));
    EXPECT_EQ(Intersect(range, sizeof(format) - 1, returned, format), STATUS_BUFFER_TOO_SMALL);

    struct Row {
        const char *what;
        void (*change)(KS_DATARANGE_VIDEO &);
        NTSTATUS status;
    };
    static constexpr Row kRows[] = {
        {"specifier", [](auto &r) { r.DataRange.Specifier.Data1 ^= 1; }, STATUS_NO_MATCH},
        {"short range", [](auto &r) { r.DataRange.FormatSize = 295; }, STATUS_NO_MATCH},
        {"fixed size", [](auto &r) { r.bFixedSizeSamples = FALSE; }, STATUS_NO_MATCH},
        {"compression", [](auto &r) { r.bTemporalCompression = FALSE; }, STATUS_NO_MATCH},
        {"description", [](auto &r) { r.StreamDescriptionFlags = 1; }, STATUS_NO_MATCH},
        {"allocation", [](auto &r) { r.MemoryAllocationFlags = 1; }, STATUS_NO_MATCH},
        {"last byte of the capabilities", [](auto &r) { r.ConfigCaps.MaxBitsPerSecond ^= 0x01000000; },
         STATUS_NO_MATCH},
        {"header of 39 bytes", [](auto &r) { r.VideoInfoHeader.bmiHeader.biSize = 39; }, STATUS_INVALID_PARAMETER},
        {"header of 41 bytes", [](auto &r) { r.VideoInfoHeader.bmiHeader.biSize = 41; }, STATUS_INVALID_PARAMETER},
        {"header that overflows", [](auto &r) { r.VideoInfoHeader.bmiHeader.biSize = 0xFFFFFFF0; },
         STATUS_INVALID_PARAMETER},
    };
    for (const Row &row : kRows) {
        KS_DATARANGE_VIDEO caller = range;
        row.change(caller);
        EXPECT_EQ(Intersect(caller, sizeof(format), returned, format), row.status) << row.what;
    }
}

TEST_F(PinFormatTest, OpeningChecksTheFormat) {
    struct Row {
        const char *what;
        void (*change)(Format &);
        NTSTATUS status;
    };
    static constexpr Row kRows[] = {
        {"as it is", [](auto &) {}, STATUS_SUCCESS},
        {"turned over", [](auto &f) { f.VideoInfoHeader.bmiHeader.biHeight = -480; }, STATUS_SUCCESS},
        {"larger image", [](auto &f) { f.VideoInfoHeader.bmiHeader.biSizeImage += 100; }, STATUS_SUCCESS},
        {"image one byte short", [](auto &f) { f.VideoInfoHeader.bmiHeader.biSizeImage -= 1; },
         STATUS_INVALID_PARAMETER},
        {"rectangles differ", [](auto &f) { f.VideoInfoHeader.rcSource.bottom = 480; }, STATUS_NO_MATCH},
        {"header of 39 bytes", [](auto &f) { f.VideoInfoHeader.bmiHeader.biSize = 39; }, STATUS_INVALID_PARAMETER},
        {"header of 41 bytes", [](auto &f) { f.VideoInfoHeader.bmiHeader.biSize = 41; }, STATUS_INVALID_PARAMETER},
    };
    for (const Row &row : kRows)
        EXPECT_EQ(OpenWith(row.change), row.status) << row.what;
}

TEST_F(PinFormatTest, ARunningStreamTakesNothingButAFlip) {
    ASSERT_EQ(rig.app.OpenPin(range), STATUS_SUCCESS);
    ASSERT_EQ(rig.app.Run(), STATUS_SUCCESS);
    Format flipped = *reinterpret_cast<const Format *>(rig.app.format.data());
    flipped.VideoInfoHeader.bmiHeader.biHeight *= -1;

    EXPECT_EQ(rig.app.pin.SetFormat(rig.app.format), STATUS_INVALID_DEVICE_STATE); // the same format is no flip
    EXPECT_EQ(rig.app.pin.SetFormat(BytesOf(flipped)), STATUS_SUCCESS);
    EXPECT_NE(rig.computer.Machine().DebugLog().find("[uvc_drv] Recognized flip of image \n"), std::string::npos);
    EXPECT_EQ(rig.app.pin.SetFormat(rig.app.format), STATUS_SUCCESS); // and back

    Format slower = flipped;
    slower.VideoInfoHeader.AvgTimePerFrame += 1;
    EXPECT_EQ(rig.app.pin.SetFormat(BytesOf(slower)), STATUS_INVALID_DEVICE_STATE);

    host::client::Frame *frame = rig.app.Next();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->Status(), STATUS_SUCCESS);
    ASSERT_EQ(rig.app.pin.SetState(KSSTATE_STOP), STATUS_SUCCESS);
    EXPECT_EQ(rig.app.pin.SetFormat(BytesOf(slower)), STATUS_SUCCESS); // stopped, anything that fits
}

// Another application's pin has no say in which way up the running stream is.
TEST_F(PinFormatTest, OnlyTheHolderTurnsTheStreamOver) {
    ASSERT_EQ(rig.app.OpenPin(range), STATUS_SUCCESS);
    ASSERT_EQ(rig.app.Run(), STATUS_SUCCESS);
    EXPECT_EQ(OpenWith([](Format &format) { format.VideoInfoHeader.bmiHeader.biHeight *= -1; }), STATUS_SUCCESS);
    EXPECT_EQ(rig.computer.Machine().DebugLog().find("Recognized flip"), std::string::npos);
}

// In a stream that converts, a flip turns the following images over.
TEST(PinFormat, AFlipTurnsConvertedImagesOver) {
    Rig rig("sim:8201");
    ASSERT_EQ(rig.started, STATUS_SUCCESS);
    ASSERT_EQ(rig.app.OpenPin(*FindRange(rig.app.Ranges(), FourCc("Y800"), 320)), STATUS_SUCCESS);
    ASSERT_EQ(rig.app.Run(), STATUS_SUCCESS);
    host::client::Frame *frame = rig.app.Next();
    ASSERT_TRUE(frame);
    const std::vector<std::uint8_t> upright(frame->Data().begin(), frame->Data().end());

    Format flipped = *reinterpret_cast<const Format *>(rig.app.format.data());
    flipped.VideoInfoHeader.bmiHeader.biHeight *= -1;
    ASSERT_EQ(rig.app.pin.SetFormat(BytesOf(flipped)), STATUS_SUCCESS);
    std::vector<std::uint8_t> turned;
    for (std::size_t row = 240; row-- > 0;)
        turned.insert(turned.end(), upright.begin() + static_cast<std::ptrdiff_t>(row * 320),
                      upright.begin() + static_cast<std::ptrdiff_t>((row + 1) * 320));
    bool found = false;
    for (int i = 0; i < 8 && !found; ++i) { // some frames were converted before the flip
        rig.app.Return(*frame, *rig.camera);
        frame = rig.app.Next();
        ASSERT_TRUE(frame);
        found = frame->Data().size() == turned.size() &&
                std::memcmp(frame->Data().data(), turned.data(), turned.size()) == 0;
    }
    EXPECT_TRUE(found);
}

} // namespace

} // namespace uvc::driver_test
