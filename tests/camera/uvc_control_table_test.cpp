#include "tests/camera/control_device.h"

#include <algorithm>
#include <limits>

namespace uvc::camera_test {
namespace {

// bmControls with the bits of some selectors.
Bytes Bits(std::initializer_list<unsigned> selectors) {
    Bytes bits;
    for (unsigned selector : selectors) {
        bits.resize(std::max<std::size_t>(bits.size(), (selector + 7) / 8));
        bits[(selector - 1) / 8] |= static_cast<std::uint8_t>(1u << (selector - 1) % 8);
    }
    return bits;
}

TEST(UvcControlTable, AsksForTheAttributesInOrder) {
    struct Case {
        const char *name;
        std::set<UCHAR> stalls;
        ULONGLONG length; // what the extension unit's control answers to GET_LEN
        std::string requests;
        bool present;
        ULONG size;
        const char *valid; // range, default, resolution
    };
    const Case cases[] = {
        {"all is well", {}, 4, "85/2 86/1 84/4 82/4 83/4 87/4 81/4", true, 4, "rds"},
        {"longer than a value", {}, 300, "85/2 86/1 84/8 82/8 83/8 87/8 81/8", true, 8, "rds"},
        {"no length", {}, 0, "85/2", true, 0, "..."},
        {"length refused", {kGetLenCode}, 4, "85/2", true, 0, "..."},
        {"no info", {kGetInfoCode}, 1, "85/2 86/1", false, 0, ""},
        {"no current", {kGetCurCode}, 1, "85/2 86/1 84/1 82/1 83/1 87/1 81/1", false, 0, ""},
        {"no resolution", {kGetResCode}, 1, "85/2 86/1 84/1 82/1 83/1 87/1 81/1", true, 1, "rd."},
        {"minimum only", {kGetMaxCode}, 1, "85/2 86/1 84/1 82/1 83/1 87/1 81/1", true, 1, "rds"},
        {"maximum only", {kGetMinCode}, 1, "85/2 86/1 84/1 82/1 83/1 87/1 81/1", true, 1, "rds"},
        {"a switch",
         {kGetMinCode, kGetMaxCode, kGetResCode, kGetDefCode},
         1,
         "85/2 86/1 84/1 82/1 83/1 87/1 81/1",
         true,
         1,
         "..."},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.name);
        auto device = std::make_shared<ControlDevice>(Bytes{}, Bytes{}, Bits({3, 12}));
        ControlDevice::Control &asked = device->controls[{kExtension, 3}];
        asked.stalls = test.stalls;
        asked.answers = {{kGetLenCode, test.length}, {kGetInfoCode, 0x1B}, {kGetResCode, 5}, {kGetMinCode, 10},
                         {kGetMaxCode, 90},          {kGetDefCode, 50},    {kGetCurCode, 70}};
        device->controls[{kExtension, 12}].answers[kGetLenCode] = 1;
        PluggedDevice plugged(device);
        ASSERT_EQ(plugged.camera->Initialise(), STATUS_SUCCESS);

        std::string requests;
        for (const std::string &request : device->TakeRequests())
            if (request.substr(3, 4) == "6:3 ")
                requests += (requests.empty() ? "" : " ") + request.substr(0, 2) + '/' + request.substr(7);
        EXPECT_EQ(requests, test.requests);

        // What is left out does not take the place of the next one.
        ASSERT_TRUE(plugged.camera->controls.Find(kExtension, 12));
        UvcControl *control = plugged.camera->controls.Find(kExtension, 3);
        ASSERT_EQ(control != nullptr, test.present);
        if (control == nullptr)
            continue;
        EXPECT_EQ(control->unitId, 3u);
        EXPECT_EQ(control->size, test.size);
        EXPECT_EQ(std::string(control->rangeValid ? "r" : ".") + (control->defaultValid ? "d" : ".") +
                      (control->resolutionValid ? "s" : "."),
                  test.valid);
        auto expected = [&](UCHAR request, ULONGLONG value) {
            return test.size != 0 && !test.stalls.contains(request) ? value : 0;
        };
        EXPECT_EQ(control->info, expected(kGetInfoCode, 0x1B));
        EXPECT_EQ(control->resolution, expected(kGetResCode, 5));
        EXPECT_EQ(control->minimum, expected(kGetMinCode, 10));
        EXPECT_EQ(control->maximum, expected(kGetMaxCode, 90));
        EXPECT_EQ(control->defaultValue, expected(kGetDefCode, 50));
        EXPECT_EQ(control->current, expected(kGetCurCode, 70));
    }
}

// Sizes of UVC 1.1, one digit to a selector; later selectors are asked for theirs.
TEST(UvcControlTable, KnowsTheSizesOfStandardControls) {
    const std::string sizes[] = {"11141221212384221", "222212222214122111"};
    auto device = std::make_shared<ControlDevice>(Bytes{0xFF, 0xFF, 0x03}, Bytes{0xFF, 0xFF, 0x07}, Bytes{});
    PluggedDevice plugged(device);
    for (UCHAR kind : {kTerminal, kProcessing})
        for (UCHAR selector = 1; selector <= 19; ++selector)
            device->controls[{kind, selector}] = {};
    ASSERT_EQ(plugged.camera->Initialise(), STATUS_SUCCESS);
    const Requests requests = device->TakeRequests();
    for (UCHAR kind : {kTerminal, kProcessing}) {
        for (ULONG selector = 1; selector <= (kind == kTerminal ? 18u : 19u); ++selector) {
            SCOPED_TRACE(testing::Message() << int{kind} << ':' << selector);
            const std::string &known = sizes[kind == kProcessing];
            const bool ask = selector > known.size();
            const UvcControl *control = plugged.camera->controls.Find(kind, selector);
            ASSERT_TRUE(control);
            EXPECT_EQ(control->size, ask ? 2u : known[selector - 1] - ULONG{'0'});
            const std::string request = "85 " + std::to_string(kind) + ':' + std::to_string(selector) + " 2";
            EXPECT_EQ(std::find(requests.begin(), requests.end(), request) != requests.end(), ask);
        }
    }
}

TEST(UvcControlTable, StopsAfterFortyNineControls) {
    for (bool answering : {true, false}) {
        SCOPED_TRACE(answering);
        auto device = std::make_shared<ControlDevice>(Bytes(1, 0xFF), Bytes(1, 0xFF), Bytes(20, 0xFF));
        if (answering) {
            for (UCHAR selector = 1; selector <= 8; ++selector)
                device->controls[{kTerminal, selector}] = device->controls[{kProcessing, selector}] = {};
            for (UCHAR selector = 1; selector <= 160; ++selector)
                device->controls[{kExtension, selector}] = {};
        }
        PluggedDevice plugged(device);
        ASSERT_EQ(plugged.camera->Initialise(), STATUS_SUCCESS);
        std::set<std::string> asked;
        for (const std::string &request : device->TakeRequests())
            asked.insert(request.substr(3, request.find(' ', 3) - 3));
        EXPECT_EQ(asked.size(), 49u);
        EXPECT_TRUE(asked.contains("6:33"));
        EXPECT_EQ(plugged.camera->controls.Find(kProcessing, 8) != nullptr, answering);
        EXPECT_TRUE(plugged.camera->controls.Find(kExtension, 33)); // without attributes when nobody answers
        EXPECT_EQ(plugged.camera->controls.Find(kExtension, 34), nullptr);
    }
}

TEST(UvcControlTable, HasNoSelectorBeyondAByte) {
    auto device = std::make_shared<ControlDevice>(Bytes{}, Bytes{}, Bits({255, 256, 257, 259}));
    PluggedDevice plugged(device);
    ASSERT_EQ(plugged.camera->Initialise(), STATUS_SUCCESS);
    EXPECT_EQ(device->TakeRequests(), Requests{"85 6:255 2"});
    EXPECT_TRUE(plugged.camera->controls.Find(kExtension, 255));
}

TEST(UvcControlTable, ReadsNumbersBySize) {
    struct Case {
        ULONG size;
        ULONGLONG value;
        LONG number;
    };
    const Case cases[] = {
        {1, 0xFF, 255},  {1, 0x180, 0x80},  {2, 0x7FFF, 32767},  {2, 0x8000, -32768},
        {2, 0xFFFF, -1}, {2, 0xAB0010, 16}, {4, 0xFFFFFFFF, -1}, {4, 0x12345678FFFE, 0x5678FFFE},
        {8, 5, 0},       {3, 5, 0},         {0, 5, 0},
    };
    for (const Case &test : cases)
        EXPECT_EQ(UvcControlNumber({.size = test.size}, test.value), test.number) << test.size << ' ' << test.value;
}

TEST(UvcControlTable, ExtendsShortAnswersAndRefusesEmptyOnes) {
    auto device = std::make_shared<ControlDevice>(Bytes{}, Bits({2, 3}), Bytes{});
    for (UCHAR selector : {UCHAR{2}, UCHAR{3}})
        for (UCHAR request : {kGetMinCode, kGetCurCode})
            device->controls[{kProcessing, selector}].answers[request] = 0xFFFF;
    device->controls[{kProcessing, 2}].longestAnswer = 1;
    device->controls[{kProcessing, 3}].longestAnswer = 0;
    PluggedDevice plugged(device);
    ASSERT_EQ(plugged.camera->Initialise(), STATUS_SUCCESS);
    UvcControl *control = plugged.camera->controls.Find(kProcessing, 2);
    ASSERT_TRUE(control);
    EXPECT_EQ(UvcControlNumber(*control, control->minimum), 255);
    EXPECT_EQ(UvcControlNumber(*control, control->current), 255);
    EXPECT_FALSE(plugged.camera->controls.Find(kProcessing, 3));
}

TEST(UvcControlTable, KeepsWhatItWasToldWhenTheCameraRefuses) {
    auto device = std::make_shared<ControlDevice>(Bytes{}, Bits({2}), Bytes{});
    device->controls[{kProcessing, 2}].answers[kGetCurCode] = 0xABCD;
    PluggedDevice plugged(device);
    ASSERT_EQ(plugged.camera->Initialise(), STATUS_SUCCESS);
    UvcControl &control = *plugged.camera->controls.Find(kProcessing, 2);
    EXPECT_EQ(control.current, 0xABCDu);
    device->TakeRequests();

    ULONGLONG value = 77;
    device->controls[{kProcessing, 2}].stalls = {kSetCurCode, kGetCurCode};
    EXPECT_FALSE(NT_SUCCESS(UvcWriteControl(*plugged.camera, control, 0x1234)));
    EXPECT_EQ(control.current, 0x1234u);
    EXPECT_FALSE(NT_SUCCESS(UvcReadControl(*plugged.camera, control, value)));
    EXPECT_EQ(control.current, 0x1234u);
    EXPECT_EQ(value, 77u);

    device->controls[{kProcessing, 2}].stalls = {};
    EXPECT_EQ(UvcReadControl(*plugged.camera, control, value), STATUS_SUCCESS);
    EXPECT_EQ(control.current, 0xABCDu);
    EXPECT_EQ(UvcWriteControl(*plugged.camera, control, 0xFFFFFFFFFFFF8001), STATUS_SUCCESS);
    EXPECT_EQ(device->TakeRequests(), (Requests{"01 5:2 3412", "81 5:2 2", "81 5:2 2", "01 5:2 0180"}));

    // A camera that is gone, too.
    plugged.bus.Unplug(plugged.pdo);
    EXPECT_FALSE(NT_SUCCESS(UvcWriteControl(*plugged.camera, control, 7)));
    EXPECT_EQ(control.current, 7u);
}

// The same object may be started again, and the device may have changed meanwhile.
TEST(UvcControlTable, StartsEmptyAgain) {
    auto device = std::make_shared<ControlDevice>(Bits({4}), Bits({2, 3}), Bits({1}));
    for (ControlDevice::Key key : {ControlDevice::Key{kTerminal, 4}, {kProcessing, 2}, {kProcessing, 3}})
        device->controls[key] = {};
    PluggedDevice plugged(device);
    ASSERT_EQ(plugged.camera->Initialise(), STATUS_SUCCESS);
    EXPECT_TRUE(plugged.camera->ItemExists(kVideoProcAmpSet, KSPROPERTY_VIDEOPROCAMP_CONTRAST));
    EXPECT_TRUE(plugged.camera->controls.Find(kTerminal, 4));

    device->Describe({}, Bits({2}), {});
    ASSERT_EQ(plugged.camera->Initialise(), STATUS_SUCCESS);
    EXPECT_TRUE(plugged.camera->ItemExists(kVideoProcAmpSet, KSPROPERTY_VIDEOPROCAMP_BRIGHTNESS));
    EXPECT_FALSE(plugged.camera->ItemExists(kVideoProcAmpSet, KSPROPERTY_VIDEOPROCAMP_CONTRAST));
    EXPECT_EQ(plugged.camera->controls.Find(kTerminal, 4), nullptr);
    EXPECT_EQ(plugged.camera->controls.Find(kExtension, 1), nullptr);
}

} // namespace
} // namespace uvc::camera_test
