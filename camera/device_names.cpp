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

} // namespace uvc
