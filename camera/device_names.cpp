#include "camera/device_names.h"

#include "platform/counted_string.h"

#include <algorithm>

namespace uvc {

namespace {

// No string descriptor holds more characters.
constexpr USHORT kMaximumNameBytes = 126 * sizeof(WCHAR);

// A counted text need not end in a zero; the registry's must.
NTSTATUS WriteText(HANDLE key, UNICODE_STRING name, const UNICODE_STRING &text) {
    WCHAR terminated[kMaximumNameBytes / sizeof(WCHAR) + 1] = {};
    USHORT length = std::min(text.Length, kMaximumNameBytes);
    RtlCopyMemory(terminated, text.Buffer, length);
    return ZwSetValueKey(key, &name, 0, REG_SZ, terminated, length + sizeof(WCHAR));
}

} // namespace

NTSTATUS StoreDeviceNames(PDEVICE_OBJECT physicalDevice, const UNICODE_STRING &vendor, const UNICODE_STRING &model) {
    HANDLE key = nullptr;
    NTSTATUS status = IoOpenDeviceRegistryKey(physicalDevice, PLUGPLAY_REGKEY_DEVICE, KEY_WRITE, &key);
    if (!NT_SUCCESS(status))
        return status;
    if (vendor.Length != 0)
        status = WriteText(key, ConstantString(L"VendorName"), vendor);
    if (model.Length != 0)
        status = WriteText(key, ConstantString(L"ModelName"), model);
    ZwClose(key);
    return status;
}

ULONG SerialNumberOf(UNICODE_STRING text) {
    constexpr USHORT kNumberBytes = 8 * sizeof(WCHAR);
    text.Length = std::min(text.Length, kNumberBytes);
    ULONG number = 0;
    if (text.Length == 0 || !NT_SUCCESS(RtlUnicodeStringToInteger(&text, 16, &number)))
        return 0;
    return number;
}

} // namespace uvc
