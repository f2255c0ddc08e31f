#include "camera/family_a_controls.h"
#include "tests/camera/control_device.h"

#include <array>
#include <optional>

namespace uvc::camera_test {
namespace {

// A camera of family A whose extension unit has every control, 4 bytes each.
class FamilyAControlsTest : public testing::Test {
  protected:
    void Start(const Bytes &extension = {0xFF, 0x7F}) {
        device = std::make_shared<ControlDevice>(Bytes{}, Bytes{}, extension);
        device->deviceDescriptor[10] = 0x01;
        device->deviceDescriptor[11] = 0x81;
        for (UCHAR selector = 1; selector <= 16; ++selector)
            device->controls[{kExtension, selector}].answers[kGetLenCode] = 4;
        plugged.emplace(device);
        ASSERT_EQ(plugged->camera->Initialise(), STATUS_SUCCESS);
        device->TakeRequests();
    }

    // Words of a block behind the property header.
    NTSTATUS Get(ULONG id, ULONG kind, ULONG length, std::vector<LONG> *words = nullptr) {
        alignas(8) std::array<UCHAR, 128> buffer;
        buffer.fill(0xCC);
        NTSTATUS status = plugged->camera->GetControl(kPrivateImageSet, id, kind, buffer.data(), length);
        if (words != nullptr) {
            words->resize((length - sizeof(KSPROPERTY)) / sizeof(LONG));
            std::memcpy(words->data(), buffer.data() + sizeof(KSPROPERTY), words->size() * sizeof(LONG));
        } else {
            for (UCHAR byte : buffer)
                EXPECT_EQ(byte, 0xCC);
        }
        return status;
    }
    NTSTATUS Set(ULONG id, ULONG kind, ULONG length, std::initializer_list<LONG> words) {
        alignas(8) std::array<UCHAR, 128> buffer{};
        std::memcpy(buffer.data() + sizeof(KSPROPERTY), std::data(words), words.size() * sizeof(LONG));
        return plugged->camera->SetControl(kPrivateImageSet, id, kind, buffer.data(), length);
    }
    ULONGLONG &Current(UCHAR selector) { return device->controls[{kExtension, selector}].answers[kGetCurCode]; }

    std::shared_ptr<ControlDevice> device;
    std::optional<PluggedDevice> plugged;
};

TEST_F(FamilyAControlsTest, SwitchTheExternalTriggerByItsFlag) {
    Start();
    std::vector<LONG> words;
    EXPECT_EQ(Get(115, kControlExtendedValue, 48, &words), STATUS_SUCCESS);
    EXPECT_EQ(words, (std::vector<LONG>{0, 4, 2, 0, 0, 0}));
    EXPECT_EQ(Set(115, kControlExtendedValue, 48, {0, 0}), STATUS_SUCCESS);
    EXPECT_EQ(Get(115, kControlExtendedValue, 48, &words), STATUS_SUCCESS);
    EXPECT_EQ(words, (std::vector<LONG>{1, 0, 2, 0, 0, 0}));
    EXPECT_EQ(Set(115, kControlExtendedValue, 48, {1, 4}), STATUS_SUCCESS); // the value does not count
    EXPECT_EQ(Set(115, kControlExtendedValue, 48, {0, 3}), STATUS_SUCCESS);
    EXPECT_EQ(device->TakeRequests(),
              (Requests{"81 6:5 4", "01 6:5 01000000", "81 6:5 4", "01 6:5 00000000", "01 6:5 01000000"}));
}

TEST_F(FamilyAControlsTest, FireTheSoftwareTriggerByItsFlag) {
    Start();
    std::vector<LONG> words;
    EXPECT_EQ(Set(213, kControlExtendedValue, 48, {1, 7}), STATUS_SUCCESS);
    EXPECT_EQ(device->TakeRequests(), Requests{});
    EXPECT_EQ(Set(213, kControlExtendedValue, 48, {0, 8}), STATUS_SUCCESS);
    EXPECT_EQ(Get(213, kControlExtendedValue, 48, &words), STATUS_SUCCESS);
    EXPECT_EQ(words, (std::vector<LONG>{1, 2, 2, 0, 0, 0}));
    EXPECT_EQ(device->TakeRequests(), (Requests{"01 6:15 01000000", "81 6:15 4"}));
}

TEST_F(FamilyAControlsTest, ReadAndWriteRegisters) {
    Start();
    for (UCHAR selector : {6, 7, 8}) {
        UvcControl &control = *plugged->camera->controls.Find(kExtension, selector);
        control.minimum = selector;
        control.maximum = 100u + selector;
        control.defaultValue = 200u + selector;
        control.resolution = 300u + selector;
        Current(selector) = 0x80000000u + selector;
    }
    std::vector<LONG> words;
    EXPECT_EQ(Get(122, kControlRegister, 36, nullptr), STATUS_NOT_IMPLEMENTED);
    EXPECT_EQ(Get(122, kControlRegister, 40, &words), STATUS_SUCCESS);
    words.resize(3); // then the padding of the block
    EXPECT_EQ(words, (std::vector<LONG>{static_cast<LONG>(0x80000008), 2, 2}));
    EXPECT_EQ(Get(125, kControlRegisters, 88, &words), STATUS_SUCCESS);
    EXPECT_EQ(words, (std::vector<LONG>{static_cast<LONG>(0x80000006), 2, 2, 6, 106, 206, 306, 0,
                                        static_cast<LONG>(0x80000007), 2, 2, 7, 107, 207, 307, 0}));
    EXPECT_EQ(device->TakeRequests(), (Requests{"81 6:8 4", "81 6:6 4", "81 6:7 4"}));

    EXPECT_EQ(Set(122, kControlRegister, 40, {0x01020304, 0}), STATUS_SUCCESS);
    EXPECT_EQ(Set(125, kControlRegisters, 88, {-2, 0, 0, 0, 0, 0, 0, 0, 0x05060708}), STATUS_SUCCESS);
    EXPECT_EQ(device->TakeRequests(), (Requests{"01 6:8 04030201", "01 6:6 feffffff", "01 6:7 08070605"}));
}

// Unlike the generic handlers, these write nothing for a malformed set, and nothing goes to a camera without the
// control.
TEST_F(FamilyAControlsTest, SendNothingForWhatTheyCannotServe) {
    struct Case {
        ULONG id;
        ULONG kind;
        ULONG length;
        ULONG otherKind;
    };
    const Case cases[] = {
        {115, kControlExtendedValue, 48, kControlRegisters},
        {213, kControlExtendedValue, 48, kControlRegister},
        {122, kControlRegister, 40, kControlExtendedValue},
        {125, kControlRegisters, 88, kControlExtendedValue},
    };
    for (bool present : {true, false}) {
        Start(present ? Bytes{0xFF, 0x7F} : Bytes{0x01});
        for (const Case &test : cases) {
            SCOPED_TRACE(testing::Message() << test.id << (present ? "" : " absent"));
            UvcCamera &camera = *plugged->camera;
            EXPECT_EQ(camera.ItemExists(kPrivateImageSet, test.id), present);
            EXPECT_EQ(Get(test.id, test.kind, test.length - 1), STATUS_NOT_IMPLEMENTED);
            EXPECT_EQ(Get(test.id, test.otherKind, 128), STATUS_NOT_IMPLEMENTED);
            EXPECT_EQ(camera.GetControl(kPrivateImageSet, test.id, test.kind, nullptr, 128), STATUS_NOT_IMPLEMENTED);
            EXPECT_EQ(Set(test.id, test.kind, test.length - 1, {1, 8}),
                      present ? STATUS_INVALID_BUFFER_SIZE : STATUS_NOT_IMPLEMENTED);
            EXPECT_EQ(Set(test.id, test.otherKind, 128, {1, 8}), STATUS_NOT_IMPLEMENTED);
            EXPECT_EQ(camera.SetControl(kPrivateImageSet, test.id, test.kind, nullptr, 128),
                      present ? STATUS_INVALID_PARAMETER : STATUS_NOT_IMPLEMENTED);
        }
        EXPECT_EQ(device->TakeRequests(), Requests{});
        plugged.reset();
    }
}

TEST_F(FamilyAControlsTest, HandOnWhatTheCameraAnswers) {
    Start();
    for (UCHAR selector : {5, 7, 8, 15})
        device->controls[{kExtension, selector}].stalls = {kGetCurCode, kSetCurCode};
    const struct {
        ULONG id;
        ULONG kind;
        ULONG length;
    } cases[] = {
        {115, kControlExtendedValue, 48},
        {213, kControlExtendedValue, 48},
        {122, kControlRegister, 40},
        {125, kControlRegisters, 88},
    };
    for (const auto &test : cases) {
        EXPECT_FALSE(NT_SUCCESS(Get(test.id, test.kind, test.length))) << test.id;
        EXPECT_FALSE(NT_SUCCESS(Set(test.id, test.kind, test.length, {1, 8}))) << test.id;
    }
}

} // namespace
} // namespace uvc::camera_test
