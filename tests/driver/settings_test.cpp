// Control values over unplugging: what is written to the registry, and what comes back from there.
#include "driver/saved_settings.h"
#include "tests/driver/scripted_controls.h"

#include <cstddef>
#include <string_view>

namespace uvc::driver_test {

namespace {

// The subkey "Settings" of the device's hardware key, as a person would look at it with a registry editor.
class Settings {
  public:
    explicit Settings(PDEVICE_OBJECT pdo) {
        EXPECT_EQ(IoOpenDeviceRegistryKey(pdo, PLUGPLAY_REGKEY_DEVICE, KEY_ALL_ACCESS, &hardware_), STATUS_SUCCESS);
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, L"Settings");
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE, hardware_, nullptr);
        EXPECT_EQ(ZwOpenKey(&settings_, KEY_ALL_ACCESS, &attributes), STATUS_SUCCESS);
    }
    ~Settings() {
        ZwClose(settings_);
        ZwClose(hardware_);
    }
    Settings(const Settings &) = delete;
    Settings &operator=(const Settings &) = delete;

    // "NAME=VALUE; ..." in the order of creation; what is no REG_DWORD shows its type.
    std::string All() const {
        std::ostringstream text;
        alignas(8) UCHAR block[512];
        ULONG length = 0;
        for (ULONG i = 0;
             NT_SUCCESS(ZwEnumerateValueKey(settings_, i, KeyValueFullInformation, block, sizeof(block), &length));
             ++i) {
            const auto &value = *reinterpret_cast<const KEY_VALUE_FULL_INFORMATION *>(block);
            text << (i == 0 ? "" : "; ");
            for (ULONG c = 0; c < value.NameLength / sizeof(WCHAR); ++c)
                text << static_cast<char>(value.Name[c]);
            LONG number = 0;
            std::memcpy(&number, block + value.DataOffset, sizeof(number));
            text << "=" << number;
            if (value.Type != REG_DWORD || value.DataLength != sizeof(number))
                text << " of type " << value.Type;
        }
        return text.str();
    }

    void Write(std::string_view name, ULONGLONG value, ULONG type = REG_DWORD, ULONG size = sizeof(ULONG)) const {
        std::u16string wide(name.begin(), name.end());
        UNICODE_STRING counted{.Length = static_cast<USHORT>(2 * wide.size()),
                               .MaximumLength = static_cast<USHORT>(2 * wide.size()),
                               .Buffer = reinterpret_cast<WCHAR *>(wide.data())};
        EXPECT_EQ(ZwSetValueKey(settings_, &counted, 0, type, &value, size), STATUS_SUCCESS);
    }

  private:
    HANDLE hardware_ = nullptr;
    HANDLE settings_ = nullptr;
};

// The rows of persistent controls in the order of their replay.
constexpr struct {
    std::string_view name;
    ULONG set, id;
} kRows[] = {
    {"Brightness", 3, 0},
    {"Contrast", 3, 1},
    {"Hue", 3, 2},
    {"Saturation", 3, 3},
    {"Sharpness", 3, 4},
    {"Gamma", 3, 5},
    {"ColorEnable", 3, 6},
    {"WhiteBalance", 3, 7},
    {"BacklightCompensation", 3, 8},
    {"Gain", 3, 9},
    {"Pan", 4, 0},
    {"Tilt", 4, 1},
    {"Roll", 4, 2},
    {"Zoom", 4, 3},
    {"Iris", 4, 5},
    {"Focus", 4, 6},
    {"Exposure", 5, 109},
    {"WhiteBalance Green", 5, 101},
    {"WhiteBalance Blue", 5, 101},
    {"WhiteBalance Red", 5, 102},
    {"AutoExposureReference", 5, 106},
    {"AutoExposureMaxValue", 5, 201},
    {"AutoExposureMaxValueAuto", 5, 202},
    {"ColorMatrixEnable", 7, 0},
    {"ColorMatrixConvAlg", 7, 10},
    {"ColorMatrix_R_R", 7, 1},
    {"ColorMatrix_R_G", 7, 2},
    {"ColorMatrix_R_B", 7, 3},
    {"ColorMatrix_G_R", 7, 4},
    {"ColorMatrix_G_G", 7, 5},
    {"ColorMatrix_G_B", 7, 6},
    {"ColorMatrix_B_R", 7, 7},
    {"ColorMatrix_B_G", 7, 8},
    {"ColorMatrix_B_B", 7, 9},
};

// What the replay of one row sends to the camera.
std::string SetCall(ULONG set, ULONG id, LONG value, ULONG flags) {
    std::ostringstream text;
    text << "set " << set << ":" << id << (set < 5 ? " 0 40 " : " 2 48 ") << value << "/" << flags;
    return text.str();
}

class SettingsTest : public testing::Test {
  protected:
    SettingsTest() : settings(rig.computer.Pdo()), script(rig) {}

    NTSTATUS Set(const GUID &set, ULONG id, LONG value, ULONG flags) {
        auto block = Extended(value, flags);
        return rig.app.filter.SetBlock(set, id, BytesOf(block));
    }

    std::string Replay() {
        script.TakeLog();
        ReplaySettings(script.device);
        return script.TakeLog();
    }

    Rig rig{"sim:8102"}; // starts without values of its own
    Settings settings;
    ScriptedControls script;
};

TEST_F(SettingsTest, WhatTheCameraTookIsWritten) {
    ASSERT_EQ(settings.All(), "");
    script.controls[{5, 106}];
    EXPECT_EQ(Set(PROPSETID_PRIVATE_IMAGE, 106, -5, 1), STATUS_SUCCESS);
    EXPECT_EQ(settings.All(), "AutoExposureReference=-5; AutoExposureReference Auto=1");
    EXPECT_EQ(Set(PROPSETID_PRIVATE_IMAGE, 106, 140, 2), STATUS_SUCCESS);
    const std::string written = "AutoExposureReference=140; AutoExposureReference Auto=2";
    EXPECT_EQ(settings.All(), written);

    script.controls[{5, 106}].set = STATUS_IO_TIMEOUT;
    EXPECT_EQ(Set(PROPSETID_PRIVATE_IMAGE, 106, 7, 2), STATUS_IO_TIMEOUT);
    for (ULONG id : {107, 203, 213}) { // not persistent
        script.controls[{5, id}];
        EXPECT_EQ(Set(PROPSETID_PRIVATE_IMAGE, id, 1, 2), STATUS_SUCCESS);
    }
    script.controls[{5, 122}];
    EXPECT_EQ(Set(PROPSETID_PRIVATE_IMAGE, 122, 1, 2), STATUS_SUCCESS);
    EXPECT_EQ(settings.All(), written);
}

TEST_F(SettingsTest, BothNamesOfControl101) {
    script.controls[{5, 101}];
    EXPECT_EQ(Set(PROPSETID_PRIVATE_IMAGE, 101, 70, 2), STATUS_SUCCESS);
    EXPECT_EQ(settings.All(), "WhiteBalance Green=70; WhiteBalance Green Auto=2");
    settings.Write("WhiteBalance Blue", 90);
    EXPECT_EQ(Replay(), SetCall(5, 101, 70, 2) + "; " + SetCall(5, 101, 90, 2));
    EXPECT_EQ(settings.All(), "WhiteBalance Green=90; WhiteBalance Green Auto=2; WhiteBalance Blue=90");
}

TEST_F(SettingsTest, ExposureIsWrittenInTheCamerasUnit) {
    KSPROPERTY_CAMERACONTROL_S block{};
    block.Value = -4;
    block.Flags = 2;
    auto set = [&] {
        return rig.app.filter.SetBlock(PROPSETID_VIDCAP_CAMERACONTROL, KSPROPERTY_CAMERACONTROL_EXPOSURE,
                                       BytesOf(block));
    };
    script.controls[{4, 4}];
    script.controls[{5, 109}] = {.get = STATUS_IO_TIMEOUT};
    EXPECT_EQ(set(), STATUS_SUCCESS);
    EXPECT_EQ(settings.All(), "");
    script.controls[{5, 109}] = {.words = {625, 1}};
    EXPECT_EQ(set(), STATUS_SUCCESS);
    EXPECT_EQ(script.TakeLog(), "set 4:4 0 40 -4/2; get 5:109 2 48; set 4:4 0 40 -4/2; get 5:109 2 48");
    EXPECT_EQ(settings.All(), "Exposure=625; Exposure Auto=1");
}

TEST_F(SettingsTest, EveryRowComesBackInOrderAndIsWrittenAgain) {
    std::string calls, written;
    LONG value = -3;
    for (auto row = std::rbegin(kRows); row != std::rend(kRows); ++row) { // the order in the key does not matter
        script.controls[{row->set, row->id}];
        settings.Write(row->name, static_cast<ULONG>(value + 10 * (std::rend(kRows) - row)));
        settings.Write(std::string(row->name) + " Auto", 1);
    }
    for (const auto &row : kRows)
        calls += (calls.empty() ? "" : "; ") + SetCall(row.set, row.id, value + 10 * (&row - kRows + 1), 1);
    EXPECT_EQ(Replay(), calls);

    // Refused by the camera or not, every row is tried. The first replay has written control 101 anew.
    script.controls.clear();
    const std::string green = SetCall(5, 101, value + 10 * 18, 1);
    const std::string blue = SetCall(5, 101, value + 10 * 19, 1);
    EXPECT_EQ(Replay(), calls.replace(calls.find(green), green.size(), blue));
}

TEST_F(SettingsTest, OddValues) {
    for (ULONG id = 0; id < 10; ++id)
        script.controls[{3, id}];
    settings.Write("Brightness", 1, REG_QWORD, 8);
    settings.Write("Contrast", 2, REG_DWORD, 3);
    settings.Write("Hue", 3, REG_BINARY);
    settings.Write("Hue Auto", 1, REG_QWORD, 8);
    settings.Write("Gamma Auto", 1);
    settings.Write("Sharpness", 5);
    settings.Write("Sharpness Auto", 7);
    settings.Write("Gain", 9);
    EXPECT_EQ(Replay(), SetCall(3, 2, 3, 2) + "; " + SetCall(3, 4, 5, 7) + "; " + SetCall(3, 9, 9, 2));
}

// A row that cannot be read for want of memory is passed over; the others come back.
TEST_F(SettingsTest, WithoutMemoryForOneRow) {
    script.controls[{3, 0}];
    script.controls[{3, 9}];
    settings.Write("Brightness", 1);
    settings.Write("Brightness Auto", 1);
    settings.Write("Gain", 2);
    for (int fault = 1; fault <= 2; ++fault) { // the value, then its flags
        host::FaultPlan plan;
        plan.FailNth(host::FaultSite::PoolAllocation, static_cast<std::uint64_t>(fault));
        rig.computer.Machine().Arm(plan);
        EXPECT_EQ(Replay(), SetCall(3, 9, 2, 2)) << fault;
        EXPECT_EQ(rig.computer.Machine().Faults().FaultsDealt(), 1u);
        rig.computer.Machine().Arm({});
    }
}

// Applications and a stream at once; ThreadSanitizer watches.
TEST(SettingsOfACamera, AreSetByManyWhileItStreams) {
    constexpr int kRounds = 40;
    Rig rig("sim:8101");
    ASSERT_EQ(rig.started, STATUS_SUCCESS);
    ASSERT_EQ(rig.app.OpenPin(rig.app.Ranges().front()), STATUS_SUCCESS);
    ASSERT_EQ(rig.app.Run(), STATUS_SUCCESS);
    auto work = [](LONG exposure) {
        Application app;
        ASSERT_EQ(app.OpenFilter(), STATUS_SUCCESS);
        for (int i = 0; i < kRounds; ++i) {
            auto block = Extended(exposure + i, 2);
            ASSERT_EQ(app.filter.SetBlock(PROPSETID_PRIVATE_IMAGE, 109, BytesOf(block)), STATUS_SUCCESS);
            block = {};
            ASSERT_EQ(app.filter.GetBlock(PROPSETID_PRIVATE_IMAGE, 109, BytesOf(block)), STATUS_SUCCESS);
            ASSERT_GE(block.value, 100);
            ASSERT_LT(block.value, 200 + kRounds);
            CameraInfo info;
            ASSERT_EQ(app.filter.GetBlock(PROPSETID_DRIVER_INFO, 1, BytesOf(info)), STATUS_SUCCESS);
            KSPROPERTY_DROPPEDFRAMES_CURRENT_S dropped{};
            ASSERT_EQ(app.filter.GetBlock(PROPSETID_VIDCAP_DROPPEDFRAMES, 0, BytesOf(dropped)), STATUS_SUCCESS);
        }
    };
    {
        host::AttachedThread first("first", [&] { work(100); });
        host::AttachedThread second("second", [&] { work(200); });
        for (int i = 0; i < kRounds; ++i) {
            host::client::Frame *frame = rig.app.Next();
            ASSERT_TRUE(frame);
            EXPECT_EQ(frame->Status(), STATUS_SUCCESS);
            rig.app.Return(*frame, *rig.camera);
        }
    }
    rig.app.pin.Close();
    EXPECT_NE(Settings(rig.computer.Pdo()).All().find("Exposure="), std::string::npos);
}

} // namespace

} // namespace uvc::driver_test
