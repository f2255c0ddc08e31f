// The control items of families B and C, asked through the camera object of a simulated camera.
#include "camera/control_id.h"
#include "camera/vendor_register_provider.h"
#include "imaging/defect_pixels.h"
#include "tests/camera/plugged_camera.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <ostream>

namespace uvc::camera_test {
namespace {

constexpr ULONG kWhiteBalanceId = KSPROPERTY_VIDEOPROCAMP_WHITEBALANCE;
constexpr ULONG kGainId = KSPROPERTY_VIDEOPROCAMP_GAIN;
constexpr ULONG kExposureId = KSPROPERTY_CAMERACONTROL_EXPOSURE;
constexpr ULONG kFocusId = KSPROPERTY_CAMERACONTROL_FOCUS;

struct Words { // of an extended answer
    LONG value;
    ULONG flags;
    ULONG capabilities;
    LONG minimum;
    LONG maximum;
    LONG defaultValue;

    friend bool operator==(const Words &, const Words &) = default;
    friend std::ostream &operator<<(std::ostream &out, const Words &words) {
        return out << words.value << " flags " << words.flags << " capabilities " << words.capabilities << " range "
                   << words.minimum << ".." << words.maximum << " default " << words.defaultValue;
    }
};

struct Item {
    ULONG set;
    ULONG id;
};
std::ostream &operator<<(std::ostream &out, const Item &item) {
    return out << item.set << "/" << item.id;
}

class FamilyControls : public PluggedCamera {
  public:
    using PluggedCamera::PluggedCamera;

    NTSTATUS Get(Item item, Words &words) {
        ControlExtendedBlock block{};
        NTSTATUS status = camera.GetControl(item.set, item.id, kControlExtendedValue, &block, sizeof(block));
        words = {block.value, block.flags, block.capabilities, block.minimum, block.maximum, block.defaultValue};
        return status;
    }
    Words Get(Item item) {
        Words words{};
        EXPECT_EQ(Get(item, words), STATUS_SUCCESS) << item;
        return words;
    }
    NTSTATUS Set(Item item, LONG value, ULONG flags = kControlManual) {
        ControlExtendedBlock block{};
        block.value = value;
        block.flags = flags;
        return camera.SetControl(item.set, item.id, kControlExtendedValue, &block, sizeof(block));
    }
    // The bytes of each SET_CUR since the start or the last call, with selector and entity.
    std::vector<std::string> TakeSets() {
        std::vector<std::string> sets;
        for (const host::cameras::ControlRecord &record : device->ControlLog()) {
            if (record.setup.requestType != 0x21 || record.setup.index >> 8 == 0)
                continue;
            LONG value = 0;
            std::memcpy(&value, record.data.data(), std::min<std::size_t>(record.data.size(), sizeof(value)));
            sets.push_back(std::to_string(record.setup.value >> 8) + "=" + std::to_string(value));
        }
        device->ClearControlLog();
        return sets;
    }
};

using Texts = std::vector<std::string>;

constexpr Item kReference{kPrivateImageSet, kExposureReferenceId};
constexpr Item kLimit{kPrivateImageSet, kExposureLimitId};
constexpr Item kLimitFollows{kPrivateImageSet, kExposureLimitFollowsCameraId};
constexpr Item kExposureUnits{kPrivateImageSet, kCameraExposureId};
constexpr Item kExposureSeconds{kCameraControlSet, kExposureId};
constexpr Item kGain{kVideoProcAmpSet, kGainId};
constexpr Item kBalance{kVideoProcAmpSet, kWhiteBalanceId};
constexpr Item kRed{kPrivateImageSet, kWhiteBalanceRedId};
constexpr Item kGreen{kPrivateImageSet, kWhiteBalanceGreenId};
constexpr Item kBlue{kPrivateImageSet, kWhiteBalanceBlueId};
constexpr Item kOnePush{kPrivateImageSet, kOnePushWhiteBalanceId};
constexpr Item kFocus{kCameraControlSet, kFocusId};
constexpr Item kAutofocus{kPrivateImageSet, kAutofocusId};
constexpr Item kTrigger{kPrivateImageSet, kExternalTriggerId};
constexpr Item kSoftware{kPrivateImageSet, kSoftwareTriggerId};
constexpr Item kSmoothing{kPrivateImageSet, kSmoothingId};
constexpr Item kGainsEnable{kPrivateImageSet, kGainsEnableId};
constexpr Item kOffsetX{kPrivateImageSet, kOffsetXId};
constexpr Item kBinning{kPrivateImageSet, kBinningId};

constexpr Item Matrix(ULONG id) {
    return {kPrivateColourMatrixSet, id};
}

TEST(FamilyControls, AnswerTheirDefaults) {
    struct Case {
        const char *text;
        Item item;
        Words words;
    };
    const Case cases[] = {
        {"sim:8201", kReference, {128, 2, 2, 0, 255, 128}},
        {"sim:8201", kLimit, {333, 2, 2, 1, 20000, 333}},
        {"sim:8201", kLimitFollows, {1, 2, 2, 0, 1, 1}},
        {"sim:8201", kExposureUnits, {333, 1, 2, 1, 20000, 333}},
        {"sim:8201", kExposureSeconds, {-4, 1, 3, -13, 1, -4}},
        {"sim:8201", kGain, {64, 1, 3, 64, 1022, 64}},
        {"sim:8204", kLimit, {333, 2, 2, 1, 5000, 333}},
        {"sim:8204", kGain, {64, 1, 3, 64, 254, 64}},
        {"sim:8201", kBalance, {0, 1, 1, 0, 0, 0}},
        {"sim:8201", kRed, {64, 1, 2, 0, 255, 64}},
        {"sim:8201", kOnePush, {0, 2, 2, 0, 1, 0}},
        {"sim:8102", kGreen, {64, 1, 2, 0, 255, 64}},
        {"sim:8102", Matrix(12), {3, 2, 2, 0, 3, 3}},
        {"sim:8201", Matrix(0), {1, 2, 2, 0, 1, 1}},
        {"sim:8201", Matrix(1), {90, 2, 2, -128, 127, 90}},
        {"sim:8201", Matrix(2), {-13, 2, 2, -128, 127, -13}},
        {"sim:8201", Matrix(10), {2, 2, 2, 0, 32, 2}},
        {"sim:8201", Matrix(11), {0, 2, 2, 0, 1, 0}},
        {"sim:8205", Matrix(12), {2, 2, 2, 0, 3, 2}},
        {"sim:8201", Matrix(32), {1, 2, 2, 0, 1, 1}},
        {"sim:8201", kTrigger, {0, 4, 2, 0, 1, 0}},
        {"sim:8201", kSoftware, {0, 2, 2, 0, 0, 0}},
        {"sim:8201", kSmoothing, {0, 2, 2, 0, 1, 0}},
        {"sim:8201", kGainsEnable, {1, 2, 2, 0, 1, 1}},
        {"sim:8205", kFocus, {500, 2, 2, 0, 1000, 500}},
        {"sim:8205", kAutofocus, {0, 2, 2, 0, 1, 0}},
        {"sim:8201", kBinning, {2, 2, 2, 1, 4, 1}}, // of the frame that the camera starts with
        {"sim:8205", kBinning, {1, 2, 2, 1, 4, 1}},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(testing::Message() << test.text << " " << test.item);
        FamilyControls plugged(test.text);
        EXPECT_EQ(plugged.Get(test.item), test.words);
        EXPECT_TRUE(plugged.camera.ItemExists(test.item.set, test.item.id));
    }
}

TEST(FamilyControls, AreNotThereWithoutWhatTheyDrive) {
    struct Case {
        const char *text;
        Item item;
        bool exists;
    };
    const Case cases[] = {
        {"sim:8202", kBalance, false},        {"sim:8202", kOnePush, false},
        {"sim:8202", Matrix(0), true},        {"sim:8202", Matrix(12), true},
        {"sim:8201", kAutofocus, true},       {"sim:8204", kBinning, false},
        {"sim:8207", kBinning, false},        {"sim:8201", kOffsetX, false},
        {"sim:8203", {5, 214}, false},        {"sim:8102", Matrix(32), false},
        {"sim:8102", kReference, true},       {"sim:8201", Matrix(13), false},
        {"sim:8201", {5, 203}, false},        {"sim:8201,stall=1:4", kExposureUnits, false},
        {"sim:8201,stall=2:4", kGain, false}, {"sim:8201,stall=1:17", kTrigger, false},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(testing::Message() << test.text << " " << test.item);
        FamilyControls plugged(test.text);
        EXPECT_EQ(plugged.camera.ItemExists(test.item.set, test.item.id), test.exists);
        if (test.item.id == kExposureReferenceId)
            continue; // family A's
        Words words;
        EXPECT_EQ(plugged.Get(test.item, words), STATUS_NOT_IMPLEMENTED);
    }
}

TEST(FamilyControls, FlagsSwitchExposureAndGain) {
    struct Case {
        Item item;
        LONG value;
        const char *sent;
        LONG then;
    };
    const Case cases[] = {
        {kExposureUnits, 500, "4=500", 500}, {kExposureSeconds, -3, "4=1250", -3}, {kExposureSeconds, 0, "4=10000", 0},
        {kGain, 200, "4=200", 200},          {kGain, 1023, "4=1023", 1023},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(testing::Message() << test.item << " " << test.value);
        FamilyControls plugged("sim:8202");
        EXPECT_EQ(plugged.Set(test.item, test.value), STATUS_SUCCESS);
        EXPECT_EQ(plugged.TakeSets(), Texts{test.sent});
        EXPECT_EQ(plugged.Get(test.item).value, test.then);
        EXPECT_EQ(plugged.Get(test.item).flags, 2u);
        // The automatic takes over what the camera has; the value is not sent.
        EXPECT_EQ(plugged.Set(test.item, 100, kControlAutomatic), STATUS_SUCCESS);
        EXPECT_EQ(plugged.TakeSets(), Texts{});
        EXPECT_EQ(plugged.Get(test.item).value, test.then);
        EXPECT_EQ(plugged.Get(test.item).flags, 1u);
    }
    // Both names are one control with one automatic.
    FamilyControls plugged("sim:8202");
    EXPECT_EQ(plugged.Set(kExposureUnits, 2500), STATUS_SUCCESS);
    EXPECT_EQ(plugged.Get(kExposureSeconds), (Words{-2, 2, 3, -13, 1, -4}));
    EXPECT_EQ(plugged.Get(kGain).flags, 1u);
    // What the camera refuses is told, and the automatic is off all the same.
    EXPECT_FALSE(NT_SUCCESS(plugged.Set(kGain, 2000)));
    EXPECT_EQ(plugged.Get(kGain).flags, 2u);
    EXPECT_EQ(plugged.Get(kGain).value, 64);
}

TEST(FamilyControls, LimitOfTheExposureFollowsTheCamera) {
    FamilyControls plugged("sim:8204");
    EXPECT_EQ(plugged.Get(kLimit).value, 333); // until one of the two is set
    EXPECT_EQ(plugged.Set(kLimit, 77), STATUS_SUCCESS);
    EXPECT_EQ(plugged.Get(kLimit).value, 5000);
    EXPECT_EQ(plugged.Set(kLimitFollows, 0), STATUS_SUCCESS);
    EXPECT_EQ(plugged.Get(kLimit).value, 5000);
    EXPECT_EQ(plugged.Set(kLimit, -77), STATUS_SUCCESS);
    EXPECT_EQ(plugged.Get(kLimit).value, -77);
    EXPECT_EQ(plugged.Set(kLimitFollows, 9), STATUS_SUCCESS);
    EXPECT_EQ(plugged.Get(kLimitFollows).value, 1);
    EXPECT_EQ(plugged.Get(kLimit).value, 5000);
    EXPECT_EQ(plugged.Set(kReference, -1), STATUS_SUCCESS);
    EXPECT_EQ(plugged.Get(kReference).value, -1);
    EXPECT_EQ(plugged.TakeSets(), Texts{});
}

TEST(FamilyControls, KeepWhiteBalanceAndMatrixToThemselves) {
    for (const char *text : {"sim:8201", "sim:8102"}) {
        SCOPED_TRACE(text);
        FamilyControls plugged(text);
        for (auto [item, value] : {std::pair{kRed, 300}, {kGreen, 40}, {kBlue, -5}}) {
            EXPECT_EQ(plugged.Set(item, value), STATUS_SUCCESS);
            EXPECT_EQ(plugged.Get(item), (Words{value, 1, 2, 0, 255, 64}));
        }
        EXPECT_EQ(plugged.Set(kBalance, 7, 6), STATUS_SUCCESS);
        for (Item item : {kRed, kGreen, kBlue, kBalance})
            EXPECT_EQ(plugged.Get(item).flags, 2u);
        EXPECT_EQ(plugged.Set(kBalance, 0, 3), STATUS_SUCCESS);
        EXPECT_EQ(plugged.Get(kBalance).flags, 1u);
        EXPECT_EQ(plugged.Set(kOnePush, 0), STATUS_SUCCESS);
        EXPECT_EQ(plugged.Get(kOnePush).value, 1);
        ControlValueBlock block{};
        EXPECT_EQ(plugged.camera.SetControl(5, kOnePushWhiteBalanceId, kControlValue, &block, sizeof(block)),
                  STATUS_INVALID_PARAMETER);

        EXPECT_EQ(plugged.Set(Matrix(0), 7), STATUS_SUCCESS);
        EXPECT_EQ(plugged.Get(Matrix(0)).value, 1);
        EXPECT_EQ(plugged.Set(Matrix(0), 0), STATUS_SUCCESS);
        for (ULONG id = 1; id <= 10; ++id)
            EXPECT_EQ(plugged.Set(Matrix(id), 0x1FFF0 + static_cast<LONG>(id)), STATUS_SUCCESS);
        EXPECT_EQ(plugged.Get(Matrix(0)).value, 0);
        for (LONG id = 1; id <= 9; ++id)
            EXPECT_EQ(plugged.Get(Matrix(static_cast<ULONG>(id))).value, id - 16);
        EXPECT_EQ(plugged.Get(Matrix(10)).value, 0x1FFFA);
        EXPECT_EQ(plugged.Set(Matrix(12), 1), STATUS_SUCCESS);
        EXPECT_EQ(plugged.Set(Matrix(12), 4), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(plugged.Set(Matrix(12), -1), STATUS_INVALID_PARAMETER);

        EXPECT_EQ(plugged.Set(Matrix(11), 0), STATUS_SUCCESS);
        EXPECT_EQ(plugged.Get(Matrix(0)).value, 0);
        EXPECT_EQ(plugged.Set(Matrix(11), 1), STATUS_SUCCESS);
        for (ULONG id = 0; id <= 10; ++id)
            EXPECT_EQ(plugged.Get(Matrix(id)).value, plugged.Get(Matrix(id)).defaultValue) << id;
        EXPECT_EQ(plugged.Get(Matrix(12)).value, 1);

        ControlValueBlock value{};
        EXPECT_EQ(plugged.camera.GetControl(7, 1, kControlValue, &value, sizeof(value)), STATUS_NOT_IMPLEMENTED);
        EXPECT_EQ(plugged.camera.SetControl(7, 1, kControlValue, &value, sizeof(value)), STATUS_NOT_IMPLEMENTED);
        ControlExtendedBlock cut{};
        EXPECT_EQ(plugged.camera.SetControl(7, 1, kControlExtendedValue, &cut, 47), STATUS_NOT_IMPLEMENTED);
        EXPECT_EQ(plugged.TakeSets(), Texts{});
    }
}

// A restart of the device finds every setting as constructed.
TEST(FamilyControls, StartAnewWithTheCamera) {
    for (const char *text : {"sim:8205", "sim:8102"}) {
        SCOPED_TRACE(text);
        FamilyControls plugged(text);
        std::vector<Item> items{kBalance, kRed, kGreen, kBlue, kOnePush, Matrix(0), Matrix(1), Matrix(9), Matrix(10)};
        if (plugged.device->model().productId == 0x8205)
            items.insert(items.end(), {kReference, kLimit, kLimitFollows, kSmoothing, kGainsEnable, Matrix(32)});
        std::vector<Words> before;
        for (Item item : items)
            before.push_back(plugged.Get(item));
        for (std::size_t i = 0; i < items.size(); ++i) {
            EXPECT_EQ(plugged.Set(items[i], 1 - before[i].value, 0), STATUS_SUCCESS) << items[i];
            EXPECT_NE(plugged.Get(items[i]), before[i]) << items[i];
        }
        EXPECT_EQ(plugged.camera.Initialise(), STATUS_SUCCESS);
        for (std::size_t i = 0; i < items.size(); ++i)
            EXPECT_EQ(plugged.Get(items[i]), before[i]) << items[i];
    }
}

TEST(FamilyControls, TriggerAndFocusReachTheCamera) {
    FamilyControls plugged("sim:8205");
    EXPECT_EQ(plugged.Set(kTrigger, 0, 0), STATUS_SUCCESS);
    EXPECT_EQ(plugged.TakeSets(), Texts{"17=1"});
    EXPECT_EQ(plugged.Get(kTrigger).flags, 0u);
    EXPECT_EQ(plugged.Set(kTrigger, 1, 4 | 3), STATUS_SUCCESS);
    EXPECT_EQ(plugged.TakeSets(), Texts{"17=0"});
    EXPECT_EQ(plugged.Get(kTrigger).flags, 4u);
    plugged.TakeVendorRequests();
    EXPECT_EQ(plugged.Set(kSoftware, 1, 7), STATUS_SUCCESS);
    EXPECT_EQ(plugged.TakeVendorRequests(), Texts{});
    EXPECT_EQ(plugged.Set(kSoftware, 0, 8), STATUS_SUCCESS);
    EXPECT_EQ(plugged.TakeVendorRequests(), Texts{"40 23 0000 0000"});

    EXPECT_EQ(plugged.Set(kFocus, 123), STATUS_SUCCESS);
    EXPECT_EQ(plugged.TakeSets(), Texts{"6=123"});
    EXPECT_EQ(plugged.Get(kFocus).value, 123);
    EXPECT_FALSE(NT_SUCCESS(plugged.Set(kFocus, 1001)));
    EXPECT_EQ(plugged.Get(kFocus).value, 123);
    EXPECT_EQ(plugged.Set(kAutofocus, 1), STATUS_SUCCESS);
    EXPECT_EQ(plugged.Get(kAutofocus).value, 0);
    ControlRangeBlock range{};
    EXPECT_EQ(plugged.camera.GetControl(4, kFocusId, kControlRange, &range, sizeof(range)), STATUS_SUCCESS);
    EXPECT_EQ(range.resolution, 1);
    EXPECT_EQ(range.maximum, 1000);
}

// How far the frame can be moved, and where the camera puts it, follow from what is committed and set.
TEST(FamilyControls, RegionIsWhatTheCameraMadeOfIt) {
    FamilyControls plugged("sim:8205");
    EXPECT_EQ(plugged.Get(kOffsetX).maximum, 0); // the whole sensor
    for (const FormatRecord &record : plugged.camera.formats) {
        if (record.range.VideoInfoHeader.bmiHeader.biWidth == 640) {
            ASSERT_EQ(UvcNegotiateStream(plugged.camera, record.range.VideoInfoHeader), STATUS_SUCCESS);
            break;
        }
    }
    EXPECT_EQ(plugged.Get(kBinning).value, 4);
    EXPECT_EQ(plugged.Set(kBinning, 1), STATUS_SUCCESS);
    EXPECT_EQ(plugged.Get(kOffsetX).maximum, 2592 - 640);
    EXPECT_EQ(plugged.Set(kOffsetX, 101), STATUS_SUCCESS);
    EXPECT_EQ(plugged.Get(kOffsetX).value, 100);
    EXPECT_FALSE(NT_SUCCESS(plugged.Set(kBinning, 3)));
    EXPECT_EQ(plugged.Get(kBinning).value, 1);
}

TEST(FamilyControls, RegistersAreReadAndWritten) {
    constexpr ULONG kIds[] = {214, 215, 216, 226, 227, 228, 229};
    FamilyControls plugged("sim:8201");
    auto block = [&](bool set, ULONG index, ULONG value, ULONG flags) {
        RegisterBlock words{.property = {}, .index = index, .value = value, .flags = flags, .reserved = 0};
        NTSTATUS status = set ? plugged.camera.SetControl(5, kRegisterId, kControlRegister, &words, sizeof(words))
                              : plugged.camera.GetControl(5, kRegisterId, kControlRegister, &words, sizeof(words));
        return std::array<ULONG, 3>{static_cast<ULONG>(status), words.index, words.value};
    };
    for (ULONG i = 0; i < std::size(kIds); ++i) {
        EXPECT_EQ(plugged.Set({5, kIds[i]}, static_cast<LONG>(0x80000001 + i)), STATUS_SUCCESS);
        EXPECT_EQ(plugged.Get({5, kIds[i]}).value, static_cast<LONG>(0x80000001 + i));
        // Selected without a write.
        EXPECT_EQ(block(true, i + 1, 99, 2)[0], 0u);
        EXPECT_EQ(block(false, 7, 7, 7), (std::array<ULONG, 3>{0, i + 1, 0x80000001 + i}));
    }
    EXPECT_EQ(block(true, 15, 0x12345678, 1)[0], 0u);
    EXPECT_EQ(block(false, 0, 0, 0), (std::array<ULONG, 3>{0, 15, 0x12345678}));
    EXPECT_EQ(block(true, 16, 1, 1)[0], static_cast<ULONG>(STATUS_INVALID_PARAMETER));
    EXPECT_EQ(block(false, 0, 0, 0)[1], 15u);
    RegisterBlock cut{};
    EXPECT_EQ(plugged.camera.GetControl(5, kRegisterId, kControlRegister, &cut, 39), STATUS_NOT_IMPLEMENTED);

    plugged.TakeVendorRequests();
    EXPECT_EQ(plugged.camera.SetParameter(27, 0xCAFE), STATUS_SUCCESS);
    EXPECT_EQ(plugged.TakeVendorRequests(), Texts{"40 28 0000 0000 fe ca 00 00"});
    ULONG value = 0;
    EXPECT_EQ(plugged.camera.GetParameter(27, value), STATUS_SUCCESS);
    EXPECT_EQ(value, 0xCAFEu);
}

class DefectControls : public FamilyControls {
  public:
    using FamilyControls::FamilyControls;

    NTSTATUS GetList(ULONG id, imaging::DefectPixelList &list) {
        std::memset(&list, 0xCC, sizeof(list));
        return camera.GetControl(kPrivateColourMatrixSet, id, kControlDefectList, &list, sizeof(list));
    }
    ULONG Count(ULONG id) {
        imaging::DefectPixelList list;
        EXPECT_EQ(GetList(id, list), STATUS_SUCCESS);
        return list.count;
    }
    NTSTATUS SetList(ULONG id, ULONG count, ULONG length = sizeof(imaging::DefectPixelList)) {
        imaging::DefectPixelList list{.count = count, .pixels = {}};
        for (std::uint16_t i = 0; i < 256; ++i)
            list.pixels[i] = {.x = static_cast<std::uint16_t>(id + i), .y = static_cast<std::uint16_t>(1000 - i)};
        return camera.SetControl(kPrivateColourMatrixSet, id, kControlDefectList, &list, length);
    }
};

TEST(DefectControls, ListsAreKeptAndStored) {
    DefectControls plugged("sim:8201");
    EXPECT_EQ(plugged.Count(33), 0u);
    EXPECT_EQ(plugged.SetList(33, 3), STATUS_SUCCESS);
    EXPECT_EQ(plugged.SetList(34, 257), STATUS_SUCCESS);
    EXPECT_EQ(plugged.SetList(35, 1), STATUS_SUCCESS);
    EXPECT_EQ(plugged.SetList(35, 9, 1027), STATUS_NOT_IMPLEMENTED);
    imaging::DefectPixelList list;
    EXPECT_EQ(plugged.GetList(33, list), STATUS_SUCCESS);
    EXPECT_EQ(list.count, 3u);
    EXPECT_EQ(list.pixels[2].x, 35);
    EXPECT_EQ(list.pixels[2].y, 998);
    EXPECT_EQ(list.pixels[3].x | list.pixels[255].y, 0);
    EXPECT_EQ(plugged.Count(34), 256u);

    EXPECT_EQ(plugged.camera.SetParameter(20, 0), STATUS_INVALID_PARAMETER);
    plugged.TakeVendorRequests();
    EXPECT_EQ(plugged.camera.SetParameter(20, 1), STATUS_SUCCESS);
    // 16 + 1028 + 16 + 8 bytes: cleared, the lists in two pieces, then the header.
    Texts requests = plugged.TakeVendorRequests();
    for (std::string &request : requests)
        request.resize(15);
    EXPECT_EQ(requests, (Texts{"40 26 0000 0000", "40 25 0010 0000", "40 25 0410 0000", "40 25 0000 0000"}));
    EXPECT_EQ(plugged.camera.Initialise(), STATUS_SUCCESS); // from the store
    EXPECT_EQ(plugged.Count(33), 3u);
    EXPECT_EQ(plugged.Count(34), 256u);
    EXPECT_EQ(plugged.Count(35), 1u);
    EXPECT_EQ(plugged.GetList(34, list), STATUS_SUCCESS);
    EXPECT_EQ(list.pixels[255].x, 34 + 255);

    EXPECT_EQ(plugged.SetList(33, 0), STATUS_SUCCESS);
    EXPECT_EQ(plugged.camera.SetParameter(21, 0), STATUS_SUCCESS);
    EXPECT_EQ(plugged.Count(33), 3u);
    EXPECT_EQ(plugged.camera.SetParameter(23, 0), STATUS_SUCCESS);
    for (ULONG id : {33u, 34u, 35u})
        EXPECT_EQ(plugged.Count(id), 0u);
    EXPECT_EQ(plugged.device->UserData(), std::vector<std::uint8_t>(16384, 0xFF));
}

TEST(DefectControls, ABadStoreIsToldAndLeavesNoLists) {
    DefectControls plugged("sim:8202,defects=5,store=corrupt");
    EXPECT_NE(plugged.plugged.runtime.DebugLog().find("[uvc_drv] user data refused: wrong checksum\n"),
              std::string::npos);
    EXPECT_EQ(plugged.Count(33), 0u);
    EXPECT_EQ(plugged.SetList(33, 5), STATUS_SUCCESS);
    EXPECT_EQ(plugged.camera.SetParameter(21, 1), STATUS_DATA_ERROR);
    EXPECT_EQ(plugged.Count(33), 0u);
}

TEST(DefectControls, TheStoreIsDumpedInHexadecimal) {
    DefectControls plugged("sim:8202");
    std::vector<std::uint8_t> data(16384, 0xFF);
    data[0] = 0x12;
    data[31] = 0xAB;
    data[16383] = 0x0C;
    plugged.device->SetUserData(data);
    const std::size_t told = plugged.plugged.runtime.DebugLog().size();
    EXPECT_EQ(plugged.camera.SetParameter(22, 0), STATUS_SUCCESS);
    const std::string log = plugged.plugged.runtime.DebugLog().substr(told);
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 512);
    EXPECT_TRUE(log.starts_with("[uvc_drv] 0000: 12 ff ff"));
    EXPECT_NE(log.find(" ff ab\n[uvc_drv] 0020: ff"), std::string::npos);
    EXPECT_TRUE(log.ends_with("ff 0c\n"));
}

// Whatever request of the store fails, its parameter says so, and what is in the store is whole or nothing.
TEST(DefectControls, AFailingStoreIsTold) {
    for (ULONG id : {20u, 21u, 22u, 23u}) {
        DefectControls plugged("sim:8202");
        for (std::uint64_t nth = 1;; ++nth) {
            SCOPED_TRACE(testing::Message() << "parameter " << id << " transfer " << nth);
            ASSERT_EQ(plugged.SetList(33, 256), STATUS_SUCCESS);
            ASSERT_EQ(plugged.SetList(34, 256), STATUS_SUCCESS);
            ASSERT_EQ(plugged.camera.SetParameter(20, 1), STATUS_SUCCESS);
            plugged.plugged.runtime.Arm(host::FaultPlan().FailTransfer(nth, host::TransferFault::Stall));
            NTSTATUS status = plugged.camera.SetParameter(id, 1);
            bool dealt = plugged.plugged.runtime.Faults().FaultsDealt() != 0;
            plugged.plugged.runtime.Arm({});
            EXPECT_EQ(NT_SUCCESS(status), !dealt);
            if (!dealt) {
                EXPECT_GT(nth, 1u);
                break;
            }
            // As they were, unless the store behind them has just been cleared.
            EXPECT_EQ(plugged.Count(33), id == 23 && nth > 1 ? 0u : 256u);
            EXPECT_EQ(plugged.camera.SetParameter(21, 1), STATUS_SUCCESS);
            const ULONG stored = plugged.Count(34);
            EXPECT_TRUE(stored == 256 || stored == 0) << stored;
        }
    }
}

} // namespace
} // namespace uvc::camera_test
