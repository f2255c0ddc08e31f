#include "camera/device_names.h"
#include "tests/camera/plugged_camera.h"

namespace uvc::camera_test {
namespace {

UNICODE_STRING Counted(std::u16string &text) {
    return {.Length = static_cast<USHORT>(2 * text.size()),
            .MaximumLength = static_cast<USHORT>(2 * text.size()),
            .Buffer = reinterpret_cast<WCHAR *>(text.data())};
}

// The value as it stands in the registry, its zero included; "-" when there is none.
std::u16string Stored(PDEVICE_OBJECT pdo, const char16_t *name) {
    HANDLE key = nullptr;
    EXPECT_EQ(IoOpenDeviceRegistryKey(pdo, PLUGPLAY_REGKEY_DEVICE, KEY_READ, &key), STATUS_SUCCESS);
    std::u16string nameText(name);
    UNICODE_STRING counted = Counted(nameText);
    alignas(KEY_VALUE_PARTIAL_INFORMATION) UCHAR buffer[512];
    ULONG length = 0;
    std::u16string text = u"-";
    if (NT_SUCCESS(ZwQueryValueKey(key, &counted, KeyValuePartialInformation, buffer, sizeof(buffer), &length))) {
        auto *value = reinterpret_cast<KEY_VALUE_PARTIAL_INFORMATION *>(buffer);
        EXPECT_EQ(value->Type, ULONG{REG_SZ});
        text.assign(reinterpret_cast<char16_t *>(value->Data), value->DataLength / 2);
    }
    ZwClose(key);
    return text;
}

TEST(DeviceNames, AreStoredUnlessEmpty) {
    PluggedDevice plugged(Simulated("sim:8101"));
    std::u16string none, vendor = u"Vendor", model = u"Model 1", other(126, u'x');
    auto store = [&](std::u16string &first, std::u16string &second) {
        return StoreDeviceNames(plugged.pdo, Counted(first), Counted(second));
    };
    EXPECT_EQ(store(none, none), STATUS_SUCCESS);
    EXPECT_EQ(Stored(plugged.pdo, u"VendorName"), u"-");
    EXPECT_EQ(Stored(plugged.pdo, u"ModelName"), u"-");
    EXPECT_EQ(store(none, model), STATUS_SUCCESS);
    EXPECT_EQ(Stored(plugged.pdo, u"VendorName"), u"-");
    EXPECT_EQ(Stored(plugged.pdo, u"ModelName"), model + u'\0');
    EXPECT_EQ(store(vendor, other), STATUS_SUCCESS);
    EXPECT_EQ(Stored(plugged.pdo, u"VendorName"), vendor + u'\0');
    EXPECT_EQ(Stored(plugged.pdo, u"ModelName"), other + u'\0');
}

} // namespace
} // namespace uvc::camera_test
