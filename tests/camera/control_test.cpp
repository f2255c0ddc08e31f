#include "tests/camera/control_device.h"

#include <algorithm>
#include <climits>
#include <optional>

namespace uvc::camera_test {
namespace {

constexpr ULONG kKinds[] = {kControlValue, kControlRange, kControlExtendedValue};
constexpr ULONG kSizes[] = {40, 20, 48};
constexpr ULONG kHeaders[] = {24, 0, 24};
constexpr ULONG kEnds[] = {36, 20, 48}; // of what a get writes

// A generic camera with scripted controls: exposure; brightness, hue with its automatic, white-balance components; and
// hue's automatic alone when `hue` is false.
class ScriptedControlsTest : public testing::Test {
  protected:
    ScriptedControlsTest() {
        auto &hue = device->controls[{kProcessing, 6}].answers;
        hue = {{kGetInfoCode, 3},  {kGetResCode, 5},      {kGetMinCode, 0xFF4C},
               {kGetMaxCode, 180}, {kGetDefCode, 0xFFFF}, {kGetCurCode, 0xFFFE}};
        for (ControlDevice::Key key :
             {ControlDevice::Key{kTerminal, 4}, {kProcessing, 2}, {kProcessing, 12}, {kProcessing, 16}})
            device->controls[key] = {};
    }

    UvcCamera &Start() {
        plugged.emplace(device);
        EXPECT_EQ(plugged->camera->Initialise(), STATUS_SUCCESS);
        device->TakeRequests();
        return *plugged->camera;
    }

    std::shared_ptr<ControlDevice> device = std::make_shared<ControlDevice>(Bytes{0x08}, Bytes{0x22, 0x88}, Bytes{});
    std::optional<PluggedDevice> plugged;
};

// The block of a get behind its header, as words. Bytes behind the block and the header itself stay as they are.
NTSTATUS Get(UvcCamera &camera, ULONG set, ULONG id, ULONG kind, std::vector<LONG> &words) {
    alignas(8) UCHAR buffer[128];
    std::memset(buffer, 0xCC, sizeof(buffer));
    const ULONG index = kind == kControlRange ? 1 : kind == kControlExtendedValue ? 2 : 0;
    NTSTATUS status = camera.GetControl(set, id, kind, buffer, kSizes[index]);
    auto untouched = [](UCHAR byte) { return byte == 0xCC; };
    EXPECT_TRUE(std::all_of(buffer, buffer + kHeaders[index], untouched));
    EXPECT_TRUE(std::all_of(buffer + kEnds[index], std::end(buffer), untouched));
    words.resize((kEnds[index] - kHeaders[index]) / sizeof(LONG));
    std::memcpy(words.data(), buffer + kHeaders[index], words.size() * sizeof(LONG));
    return status;
}

NTSTATUS Set(UvcCamera &camera, ULONG set, ULONG id, LONG value, ULONG flags, ULONG kind = kControlValue) {
    ControlExtendedBlock block{};
    block.value = value;
    block.flags = flags;
    return camera.SetControl(set, id, kind, &block, kind == kControlExtendedValue ? 48 : 40);
}

constexpr ULONG kHueId = KSPROPERTY_VIDEOPROCAMP_HUE;

TEST_F(ScriptedControlsTest, AnswerEachKindOfGet) {
    UvcCamera &camera = Start();
    std::vector<LONG> words;
    EXPECT_EQ(Get(camera, kVideoProcAmpSet, kHueId, kControlRange, words), STATUS_SUCCESS);
    EXPECT_EQ(words, (std::vector<LONG>{-180, 180, -1, 5, 3}));
    EXPECT_EQ(device->TakeRequests(), Requests{});

    EXPECT_EQ(Get(camera, kVideoProcAmpSet, kHueId, kControlValue, words), STATUS_SUCCESS);
    EXPECT_EQ(words, (std::vector<LONG>{-2, 2, 3}));
    EXPECT_EQ(device->TakeRequests(), (Requests{"81 5:6 2", "81 5:16 1"}));

    device->controls[{kProcessing, 16}].answers[kGetCurCode] = 2;
    EXPECT_EQ(Get(camera, kVideoProcAmpSet, kHueId, kControlExtendedValue, words), STATUS_SUCCESS);
    EXPECT_EQ(words, (std::vector<LONG>{-2, 1, 3, -180, 180, -1}));

    device->TakeRequests();
    EXPECT_EQ(Get(camera, kVideoProcAmpSet, KSPROPERTY_VIDEOPROCAMP_BRIGHTNESS, kControlValue, words), STATUS_SUCCESS);
    EXPECT_EQ(words, (std::vector<LONG>{0, 2, 2}));
    EXPECT_EQ(device->TakeRequests(), Requests{"81 5:2 2"});
}

TEST_F(ScriptedControlsTest, RefuseGetsThatCannotBeAnswered) {
    UvcCamera &camera = Start();
    alignas(8) UCHAR buffer[128] = {};
    for (ULONG i = 0; i < std::size(kKinds); ++i) {
        EXPECT_EQ(camera.GetControl(kVideoProcAmpSet, kHueId, kKinds[i], buffer, kSizes[i] - 1),
                  STATUS_NOT_IMPLEMENTED);
        EXPECT_EQ(camera.GetControl(kVideoProcAmpSet, kHueId, kKinds[i], nullptr, kSizes[i]), STATUS_NOT_IMPLEMENTED);
        // Neither control is there, or no such item.
        EXPECT_EQ(camera.GetControl(kVideoProcAmpSet, KSPROPERTY_VIDEOPROCAMP_GAIN, kKinds[i], buffer, 48),
                  STATUS_NOT_IMPLEMENTED);
        EXPECT_EQ(camera.GetControl(kVideoProcAmpSet, 6, kKinds[i], buffer, 48), STATUS_NOT_IMPLEMENTED);
        EXPECT_EQ(camera.GetControl(6, kHueId, kKinds[i], buffer, 48), STATUS_NOT_IMPLEMENTED);
    }
    for (ULONG kind : {3u, 4u, 6u, 7u, ~0u})
        EXPECT_EQ(camera.GetControl(kVideoProcAmpSet, kHueId, kind, buffer, sizeof(buffer)), STATUS_NOT_IMPLEMENTED);
    EXPECT_TRUE(std::all_of(std::begin(buffer), std::end(buffer), [](UCHAR byte) { return byte == 0; }));
    EXPECT_EQ(device->TakeRequests(), Requests{});
}

// The last request decides the status, of gets and sets alike.
TEST_F(ScriptedControlsTest, ReportTheLastRequest) {
    UvcCamera &camera = Start();
    device->controls[{kProcessing, 16}].answers[kGetCurCode] = 1;
    std::vector<LONG> words;

    device->controls[{kProcessing, 6}].stalls = {kGetCurCode, kSetCurCode};
    EXPECT_EQ(Get(camera, kVideoProcAmpSet, kHueId, kControlValue, words), STATUS_SUCCESS);
    EXPECT_EQ(words, (std::vector<LONG>{0, 1, 3}));
    EXPECT_EQ(Set(camera, kVideoProcAmpSet, kHueId, 20, 0), STATUS_SUCCESS);

    device->controls[{kProcessing, 6}].stalls = {};
    device->controls[{kProcessing, 16}].stalls = {kGetCurCode, kSetCurCode};
    EXPECT_FALSE(NT_SUCCESS(Get(camera, kVideoProcAmpSet, kHueId, kControlValue, words)));
    EXPECT_FALSE(NT_SUCCESS(Set(camera, kVideoProcAmpSet, kHueId, 20, 0)));
    EXPECT_EQ(device->controls[(ControlDevice::Key{kProcessing, 6})].answers[kGetCurCode], 20u);
}

TEST_F(ScriptedControlsTest, SetValueAndMode) {
    UvcCamera &camera = Start();
    EXPECT_EQ(Set(camera, kVideoProcAmpSet, kHueId, -3, 1), STATUS_SUCCESS);
    EXPECT_EQ(Set(camera, kVideoProcAmpSet, kHueId, 0x12345678, 2, kControlExtendedValue), STATUS_SUCCESS);
    EXPECT_EQ(Set(camera, kVideoProcAmpSet, KSPROPERTY_VIDEOPROCAMP_BRIGHTNESS, 7, 1), STATUS_SUCCESS);
    EXPECT_EQ(device->TakeRequests(),
              (Requests{"01 5:6 fdff", "01 5:16 01", "01 5:6 7856", "01 5:16 00", "01 5:2 0700"}));
}

// A malformed request drives the control to 0; its own status is seen only where there is no control to drive.
TEST_F(ScriptedControlsTest, DriveTheControlByMalformedSetsToo) {
    UvcCamera &camera = Start();
    alignas(8) UCHAR buffer[128];
    std::memset(buffer, 0x11, sizeof(buffer));
    struct Case {
        ULONG kind;
        void *buffer;
        ULONG length;
        NTSTATUS absent;
    };
    const Case cases[] = {
        {kControlValue, buffer, 40, STATUS_SUCCESS},
        {kControlValue, buffer, 39, STATUS_INVALID_BUFFER_SIZE},
        {kControlExtendedValue, buffer, 48, STATUS_SUCCESS},
        {kControlExtendedValue, buffer, 47, STATUS_INVALID_BUFFER_SIZE},
        {kControlValue, nullptr, 40, STATUS_INVALID_PARAMETER},
        {kControlRange, buffer, 128, STATUS_NOT_IMPLEMENTED},
        {kControlRegister, buffer, 128, STATUS_NOT_IMPLEMENTED},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(testing::Message() << test.kind << ' ' << test.length);
        EXPECT_EQ(
            camera.SetControl(kVideoProcAmpSet, KSPROPERTY_VIDEOPROCAMP_GAIN, test.kind, test.buffer, test.length),
            test.absent);
        EXPECT_EQ(device->TakeRequests(), Requests{});
        EXPECT_EQ(camera.SetControl(kVideoProcAmpSet, kHueId, test.kind, test.buffer, test.length), STATUS_SUCCESS);
        EXPECT_EQ(device->TakeRequests(), NT_SUCCESS(test.absent) ? (Requests{"01 5:6 1111", "01 5:16 01"})
                                                                  : (Requests{"01 5:6 0000", "01 5:16 00"}));
    }
}

TEST_F(ScriptedControlsTest, ConvertExposures) {
    UvcCamera &camera = Start();
    auto &stored = device->controls[{kTerminal, 4}].answers[kGetCurCode];
    const std::pair<LONG, ULONG> sent[] = {
        {-3, 1250},       {0, 10000},       {2, 40000},       {-1, 5000}, {-13, 1}, {-14, 0},
        {17, 1310720000}, {18, 1310720000}, {32, 1310720000}, {-32, 0},   {-64, 0}, {INT_MAX, 1310720000},
        {INT_MIN, 0},
    };
    for (const auto &[value, time] : sent) {
        EXPECT_EQ(Set(camera, kCameraControlSet, KSPROPERTY_CAMERACONTROL_EXPOSURE, value, 2), STATUS_SUCCESS);
        EXPECT_EQ(stored, time) << value;
    }
    const std::pair<ULONG, LONG> read[] = {
        {0, -13},   {1, -13},   {2, -12},   {3, -11},         {333, -4},        {1250, -3},
        {5000, -1}, {5001, 0},  {9999, 0},  {10000, 0},       {19999, 0},       {20000, 1},
        {40000, 2}, {79999, 2}, {80000, 3}, {1310720000, 17}, {0xFFFFFFFF, 18},
    };
    for (const auto &[time, value] : read) {
        stored = time;
        std::vector<LONG> words;
        EXPECT_EQ(Get(camera, kCameraControlSet, KSPROPERTY_CAMERACONTROL_EXPOSURE, kControlValue, words),
                  STATUS_SUCCESS);
        EXPECT_EQ(words, (std::vector<LONG>{value, 2, 2})) << time;
    }
    for (LONG value = -13; value <= 17; ++value) {
        std::vector<LONG> words;
        EXPECT_EQ(Set(camera, kCameraControlSet, KSPROPERTY_CAMERACONTROL_EXPOSURE, value, 2), STATUS_SUCCESS);
        EXPECT_EQ(Get(camera, kCameraControlSet, KSPROPERTY_CAMERACONTROL_EXPOSURE, kControlValue, words),
                  STATUS_SUCCESS);
        EXPECT_EQ(words[0], value);
    }
}

TEST_F(ScriptedControlsTest, ConvertTheRangeOfExposuresButNotTheStep) {
    device->controls[{kTerminal, 4}].answers = {{kGetInfoCode, 3},    {kGetResCode, 7},   {kGetMinCode, 1},
                                                {kGetMaxCode, 20000}, {kGetDefCode, 333}, {kGetCurCode, 400}};
    UvcCamera &camera = Start();
    std::vector<LONG> words;
    EXPECT_EQ(Get(camera, kCameraControlSet, KSPROPERTY_CAMERACONTROL_EXPOSURE, kControlRange, words), STATUS_SUCCESS);
    EXPECT_EQ(words, (std::vector<LONG>{-13, 1, -4, 7, 2}));
    EXPECT_EQ(Get(camera, kPrivateImageSet, 109, kControlExtendedValue, words), STATUS_SUCCESS);
    EXPECT_EQ(words, (std::vector<LONG>{400, 2, 2, 1, 20000, 333}));
}

TEST_F(ScriptedControlsTest, SplitWhiteBalanceComponents) {
    UvcCamera &camera = Start();
    struct Case {
        ULONG size;
        ULONGLONG stored; // by the camera
        LONG blue;
        LONG red;
        const char *afterBlue; // is set to 0x01020304
        const char *afterRed;
    };
    const Case cases[] = {
        {2, 0xB1A0, 0xA0, 0xB1, "01 5:12 04b1", "01 5:12 0404"},
        {4, 0xB1B2A1A0, 0xA1A0, 0xB1B2, "01 5:12 0403b2b1", "01 5:12 04030403"},
        {8, 0x0102030405060708, 0x05060708, 0x01020304, "01 5:12 0403020104030201", "01 5:12 0403020104030201"},
        {3, 0xA1A2A3, 0, 0, "01 5:12 a3a2a1", "01 5:12 a3a2a1"},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.size);
        camera.controls.Find(kProcessing, 12)->size = test.size;
        device->controls[{kProcessing, 12}].answers[kGetCurCode] = test.stored;
        std::vector<LONG> words;
        EXPECT_EQ(Get(camera, kPrivateImageSet, 101, kControlValue, words), STATUS_SUCCESS);
        EXPECT_EQ(words, (std::vector<LONG>{test.blue, 2, 2}));
        EXPECT_EQ(Get(camera, kPrivateImageSet, 102, kControlExtendedValue, words), STATUS_SUCCESS);
        EXPECT_EQ(words, (std::vector<LONG>{test.red, 2, 2, 0, 0, 0}));
        device->TakeRequests();
        EXPECT_EQ(Set(camera, kPrivateImageSet, 101, 0x01020304, 2, kControlExtendedValue), STATUS_SUCCESS);
        EXPECT_EQ(Set(camera, kPrivateImageSet, 102, 0x01020304, 2, kControlExtendedValue), STATUS_SUCCESS);
        EXPECT_EQ(device->TakeRequests(), (Requests{test.afterBlue, test.afterRed}));
    }
}

class TestProvider final : public PropertyProvider {
  public:
    TestProvider(std::span<const ControlItem> items, NTSTATUS attached = STATUS_SUCCESS) : attached_(attached) {
        items_ = items;
    }
    NTSTATUS Attach(UvcCamera &) override { return attached_; }

  private:
    NTSTATUS attached_;
};

template <NTSTATUS status> NTSTATUS Handler(const ControlRequest &) {
    return status;
}

// Later providers come first, providers before the base table; what has no handler is not implemented.
TEST_F(ScriptedControlsTest, AskProvidersFromTheLastToTheFirst) {
    UvcCamera &camera = Start();
    constexpr ControlItem first[] = {
        {.propertySet = 3, .propertyId = 0, .get = Handler<1>, .set = nullptr, .modeCount = 1, .mappings = {{6, 9}}},
        {.propertySet = 3, .propertyId = 99, .get = nullptr, .set = Handler<1>, .modeCount = 0, .mappings = {}},
    };
    constexpr ControlItem second[] = {
        {.propertySet = 3,
         .propertyId = 0,
         .get = Handler<2>,
         .set = nullptr,
         .modeCount = 1,
         .mappings = {{6, 9}, {5, 2}}},
        // The list of mappings ends before the control that the camera has.
        {.propertySet = 3,
         .propertyId = 98,
         .get = Handler<2>,
         .set = nullptr,
         .modeCount = 2,
         .mappings = {{6, 9}, {6, 0}, {5, 2}}},
    };
    TestProvider providers[] = {TestProvider(first), TestProvider(second), TestProvider(first, STATUS_NOT_SUPPORTED),
                                TestProvider(first, STATUS_INSUFFICIENT_RESOURCES)};
    std::vector<LONG> words;
    EXPECT_TRUE(camera.ItemExists(3, 0));
    EXPECT_EQ(camera.FindOwner(3, 0), nullptr);

    EXPECT_EQ(camera.RegisterProvider(providers[0]), STATUS_SUCCESS);
    EXPECT_EQ(Get(camera, 3, 0, kControlValue, words), 1);
    EXPECT_FALSE(camera.ItemExists(3, 0));
    EXPECT_EQ(Set(camera, 3, 0, 1, 2), STATUS_NOT_IMPLEMENTED);
    EXPECT_TRUE(camera.ItemExists(3, 99));
    EXPECT_EQ(Get(camera, 3, 99, kControlValue, words), STATUS_NOT_IMPLEMENTED);
    EXPECT_EQ(Set(camera, 3, 99, 1, 2), 1);

    EXPECT_EQ(camera.RegisterProvider(providers[1]), STATUS_SUCCESS);
    EXPECT_EQ(camera.RegisterProvider(providers[2]), STATUS_SUCCESS); // and left out
    EXPECT_EQ(camera.RegisterProvider(providers[3]), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(Get(camera, 3, 0, kControlValue, words), 2);
    EXPECT_EQ(camera.FindOwner(3, 0), &providers[1]);
    EXPECT_EQ(camera.FindOwner(3, 99), &providers[0]);
    EXPECT_TRUE(camera.ItemExists(3, 0));
    EXPECT_FALSE(camera.ItemExists(3, 98));
    EXPECT_EQ(device->TakeRequests(), Requests{});

    // A provider that was destroyed has nothing to offer, and a new start knows none of them.
    providers[1].Destroy(0);
    EXPECT_EQ(camera.FindOwner(3, 0), &providers[0]);
    EXPECT_EQ(camera.Initialise(), STATUS_SUCCESS);
    EXPECT_EQ(camera.FindOwner(3, 0), nullptr);
    EXPECT_EQ(camera.FindItem(3, 99), nullptr);
}

// Requests while another thread makes its own: every one is answered, whatever the order.
TEST_F(ScriptedControlsTest, ServeTwoThreads) {
    UvcCamera &camera = Start();
    auto work = [&camera](LONG value) {
        for (int i = 0; i < 50; ++i) {
            std::vector<LONG> words;
            EXPECT_EQ(Set(camera, kVideoProcAmpSet, kHueId, value, 1), STATUS_SUCCESS);
            EXPECT_EQ(Get(camera, kVideoProcAmpSet, kHueId, kControlExtendedValue, words), STATUS_SUCCESS);
            EXPECT_TRUE(words[0] == 100 || words[0] == -100) << words[0];
            EXPECT_EQ(words[1], 1);
            EXPECT_EQ(Set(camera, kPrivateImageSet, value > 0 ? 101 : 102, value, 2), STATUS_SUCCESS);
        }
    };
    host::AttachedThread first("first", [&] { work(100); });
    host::AttachedThread second("second", [&] { work(-100); });
}

// Which controls stand behind an item, seen from the camera: a get and a set ask for the value, then for the mode.
TEST(Controls, StandForTheControlsOfTheirTable) {
    struct Row {
        ULONG set;
        ULONG id;
        const char *value;
        const char *mode = nullptr;
    };
    const std::vector<Row> base = {
        {3, 0, "5:2"},        {3, 1, "5:3"},          {3, 2, "5:6", "5:16"}, {3, 3, "5:7"},   {3, 4, "5:8"},
        {3, 5, "5:9"},        {3, 7, "5:10", "5:13"}, {3, 8, "5:1"},         {3, 9, "5:4"},   {3, 10, "5:14"},
        {3, 11, "5:15"},      {4, 2, "2:15"},         {4, 3, "2:11"},        {4, 4, "2:4"},   {4, 5, "2:9"},
        {4, 6, "2:6", "2:8"}, {5, 101, "5:12"},       {5, 102, "5:12"},      {5, 109, "2:4"},
    };
    const std::vector<Row> familyA = {
        {3, 7, "5:10", "5:13"}, {5, 107, "6:3"},  {4, 4, "2:4", "6:1"},   {5, 106, "6:4"},
        {5, 201, "6:9"},        {5, 202, "6:10"}, {5, 109, "2:4", "6:1"}, {3, 9, "5:4", "6:2"},
        {5, 203, "6:11"},       {5, 204, "6:12"}, {5, 205, "6:13"},       {3, 0, "5:2"},
    };
    struct Model {
        Bytes terminal, processing, extension;
        USHORT product;
        const std::vector<Row> &rows;
    };
    const Model models[] = {
        {{0xFF, 0x7F}, {0xFF, 0xFF}, {}, 0x8000, base},
        {{0xFF, 0x7F}, {0xFF, 0xFF}, {0xFF, 0x7F}, 0x8101, familyA},
    };
    for (const Model &model : models) {
        auto device = std::make_shared<ControlDevice>(model.terminal, model.processing, model.extension);
        device->deviceDescriptor[10] = static_cast<UCHAR>(model.product);
        device->deviceDescriptor[11] = static_cast<UCHAR>(model.product >> 8);
        for (UCHAR kind : {kTerminal, kProcessing, kExtension})
            for (UCHAR selector = 1; selector <= 16; ++selector)
                device->controls[{kind, selector}] = {};
        PluggedDevice plugged(device);
        UvcCamera &camera = *plugged.camera;
        ASSERT_EQ(camera.Initialise(), STATUS_SUCCESS);
        device->TakeRequests();
        for (const Row &row : model.rows) {
            SCOPED_TRACE(testing::Message()
                         << std::hex << model.product << ' ' << std::dec << row.set << '/' << row.id);
            auto asked = [&] {
                std::string names;
                for (const std::string &request : device->TakeRequests())
                    names += (names.empty() ? "" : ", ") + request.substr(0, request.find(' ', 3));
                return names;
            };
            auto expected = [&row](const std::string &code) {
                return code + row.value + (row.mode != nullptr ? ", " + code + row.mode : "");
            };
            EXPECT_TRUE(camera.ItemExists(row.set, row.id));
            std::vector<LONG> words;
            const bool writeOnly = row.id == 107;
            EXPECT_EQ(Get(camera, row.set, row.id, kControlValue, words),
                      writeOnly ? STATUS_NOT_IMPLEMENTED : STATUS_SUCCESS);
            EXPECT_EQ(asked(), writeOnly ? "" : expected("81 "));
            EXPECT_EQ(Set(camera, row.set, row.id, 0, 1, kControlExtendedValue), STATUS_SUCCESS);
            EXPECT_EQ(asked(), expected("01 "));
        }
        ULONG items = 0;
        for (ULONG set = 0; set < 10; ++set)
            for (ULONG id = 0; id < 300; ++id)
                items += camera.FindItem(set, id) != nullptr;
        EXPECT_EQ(items, model.product == 0x8101 ? 19u + 11u : 19u); // four of the fifteen replace base items
    }
}

} // namespace
} // namespace uvc::camera_test
