#include "camera/settings.h"

#include "camera/control.h"
#include "camera/control_id.h"
#include "platform/counted_string.h"
#include "platform/pool.h"
#include "uvc_drv/properties.h"

namespace uvc {

namespace {

struct SettingsEntry {
    UNICODE_STRING name;
    const GUID *set;
    ULONG id;
    ULONG blockSize;
};

template <SIZE_T N> constexpr SettingsEntry Standard(const WCHAR (&name)[N], const GUID &set, ULONG id) {
    return {.name = ConstantString(name), .set = &set, .id = id, .blockSize = sizeof(ControlValueBlock)};
}

template <SIZE_T N> constexpr SettingsEntry Private(const WCHAR (&name)[N], const GUID &set, ULONG id) {
    return {.name = ConstantString(name), .set = &set, .id = id, .blockSize = sizeof(ControlExtendedBlock)};
}

// In the order of restoration. Control 101 has two names: what is saved goes under the first, and a value under the
// second is restored after it.
constexpr SettingsEntry kSettings[] = {
    Standard(L"Brightness", PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_BRIGHTNESS),
    Standard(L"Contrast", PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_CONTRAST),
    Standard(L"Hue", PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_HUE),
    Standard(L"Saturation", PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_SATURATION),
    Standard(L"Sharpness", PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_SHARPNESS),
    Standard(L"Gamma", PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_GAMMA),
    Standard(L"ColorEnable", PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_COLORENABLE),
    Standard(L"WhiteBalance", PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_WHITEBALANCE),
    Standard(L"BacklightCompensation", PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_BACKLIGHT_COMPENSATION),
    Standard(L"Gain", PROPSETID_VIDCAP_VIDEOPROCAMP, KSPROPERTY_VIDEOPROCAMP_GAIN),
    Standard(L"Pan", PROPSETID_VIDCAP_CAMERACONTROL, KSPROPERTY_CAMERACONTROL_PAN),
    Standard(L"Tilt", PROPSETID_VIDCAP_CAMERACONTROL, KSPROPERTY_CAMERACONTROL_TILT),
    Standard(L"Roll", PROPSETID_VIDCAP_CAMERACONTROL, KSPROPERTY_CAMERACONTROL_ROLL),
    Standard(L"Zoom", PROPSETID_VIDCAP_CAMERACONTROL, KSPROPERTY_CAMERACONTROL_ZOOM),
    Standard(L"Iris", PROPSETID_VIDCAP_CAMERACONTROL, KSPROPERTY_CAMERACONTROL_IRIS),
    Standard(L"Focus", PROPSETID_VIDCAP_CAMERACONTROL, KSPROPERTY_CAMERACONTROL_FOCUS),
    Private(L"Exposure", PROPSETID_PRIVATE_IMAGE, kCameraExposureId),
    Private(L"WhiteBalance Green", PROPSETID_PRIVATE_IMAGE, kWhiteBalanceBlueId),
    Private(L"WhiteBalance Blue", PROPSETID_PRIVATE_IMAGE, kWhiteBalanceBlueId),
    Private(L"WhiteBalance Red", PROPSETID_PRIVATE_IMAGE, kWhiteBalanceRedId),
    Private(L"AutoExposureReference", PROPSETID_PRIVATE_IMAGE, kExposureReferenceId),
    Private(L"AutoExposureMaxValue", PROPSETID_PRIVATE_IMAGE, kExposureLimitId),
    Private(L"AutoExposureMaxValueAuto", PROPSETID_PRIVATE_IMAGE, kExposureLimitFollowsCameraId),
    Private(L"ColorMatrixEnable", PROPSETID_PRIVATE_COLORMATRIX, 0),
    Private(L"ColorMatrixConvAlg", PROPSETID_PRIVATE_COLORMATRIX, 10),
    Private(L"ColorMatrix_R_R", PROPSETID_PRIVATE_COLORMATRIX, 1),
    Private(L"ColorMatrix_R_G", PROPSETID_PRIVATE_COLORMATRIX, 2),
    Private(L"ColorMatrix_R_B", PROPSETID_PRIVATE_COLORMATRIX, 3),
    Private(L"ColorMatrix_G_R", PROPSETID_PRIVATE_COLORMATRIX, 4),
    Private(L"ColorMatrix_G_G", PROPSETID_PRIVATE_COLORMATRIX, 5),
    Private(L"ColorMatrix_G_B", PROPSETID_PRIVATE_COLORMATRIX, 6),
    Private(L"ColorMatrix_B_R", PROPSETID_PRIVATE_COLORMATRIX, 7),
    Private(L"ColorMatrix_B_G", PROPSETID_PRIVATE_COLORMATRIX, 8),
    Private(L"ColorMatrix_B_B", PROPSETID_PRIVATE_COLORMATRIX, 9),
};
static_assert(ARRAYSIZE(kSettings) == 34);

class SettingsKey {
  public:
    SettingsKey(PDEVICE_OBJECT physicalDevice, ACCESS_MASK access) {
        status_ = IoOpenDeviceRegistryKey(physicalDevice, PLUGPLAY_REGKEY_DEVICE, KEY_READ, &hardware_);
        if (!NT_SUCCESS(status_))
            return;
        UNICODE_STRING name = ConstantString(L"Settings");
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, hardware_, nullptr);
        status_ = ZwCreateKey(&settings_, access, &attributes, 0, nullptr, REG_OPTION_NON_VOLATILE, nullptr);
    }
    ~SettingsKey() {
        if (settings_ != nullptr)
            ZwClose(settings_);
        if (hardware_ != nullptr)
            ZwClose(hardware_);
    }
    SettingsKey(const SettingsKey &) = delete;
    SettingsKey &operator=(const SettingsKey &) = delete;

    NTSTATUS Status() const { return status_; }

    NTSTATUS Write(UNICODE_STRING name, ULONG value) const {
        return ZwSetValueKey(settings_, &name, 0, REG_DWORD, &value, sizeof(value));
    }

    // Any value of exactly four bytes, whatever its type. STATUS_OBJECT_TYPE_MISMATCH for another length.
    NTSTATUS Read(UNICODE_STRING name, ULONG &value) const {
        // The head, the name, padding up to the data, the data: longer data does not matter.
        constexpr ULONG kBesideName = 30;
        const ULONG size = name.Length + kBesideName;
        auto block = PoolPointer<UCHAR, pool_tag::Array>::AllocateArray(PagedPool, size);
        if (!block)
            return STATUS_INSUFFICIENT_RESOURCES;
        ULONG needed = 0;
        NTSTATUS status = ZwQueryValueKey(settings_, &name, KeyValueFullInformation, block.Get(), size, &needed);
        if (!NT_SUCCESS(status))
            return status;
        const auto &information = *reinterpret_cast<const KEY_VALUE_FULL_INFORMATION *>(block.Get());
        if (information.DataLength != sizeof(value) || information.DataOffset > size - sizeof(value))
            return STATUS_OBJECT_TYPE_MISMATCH;
        RtlCopyMemory(&value, block.Get() + information.DataOffset, sizeof(value));
        return STATUS_SUCCESS;
    }

  private:
    HANDLE hardware_ = nullptr;
    HANDLE settings_ = nullptr;
    NTSTATUS status_;
};

// The name under which a setting's flags are kept.
struct CompanionName {
    explicit CompanionName(const UNICODE_STRING &name) {
        RtlCopyUnicodeString(&text, &name);
        static_cast<void>(RtlAppendUnicodeToString(&text, L" Auto")); // every name of the table fits
    }
    WCHAR characters[100];
    UNICODE_STRING text{.Length = 0, .MaximumLength = sizeof(characters), .Buffer = characters};
};

// False for a setting that is not stored, or cannot be read for want of memory.
bool ReadSetting(const SettingsKey &key, const SettingsEntry &entry, ULONG &value, ULONG &flags) {
    if (!NT_SUCCESS(key.Read(entry.name, value)))
        return false;
    NTSTATUS status = key.Read(CompanionName(entry.name).text, flags);
    if (!NT_SUCCESS(status))
        flags = kControlManual;
    return status != STATUS_INSUFFICIENT_RESOURCES;
}

} // namespace

NTSTATUS SaveSetting(PDEVICE_OBJECT physicalDevice, const GUID &set, ULONG id, LONG value, ULONG flags) {
    for (const SettingsEntry &entry : kSettings) {
        if (entry.id != id || !IsEqualGUID(*entry.set, set))
            continue;
        SettingsKey key(physicalDevice, KEY_WRITE);
        if (NT_SUCCESS(key.Status())) {
            static_cast<void>(key.Write(entry.name, static_cast<ULONG>(value)));
            static_cast<void>(key.Write(CompanionName(entry.name).text, flags));
        }
        return key.Status();
    }
    return STATUS_NOT_IMPLEMENTED;
}

NTSTATUS RestoreSettings(PDEVICE_OBJECT physicalDevice, ApplySetting apply, void *context) {
    SettingsKey key(physicalDevice, KEY_ALL_ACCESS);
    if (!NT_SUCCESS(key.Status()))
        return key.Status();
    for (const SettingsEntry &entry : kSettings) {
        ULONG value = 0;
        ULONG flags = 0;
        if (ReadSetting(key, entry, value, flags))
            apply({.set = *entry.set,
                   .id = entry.id,
                   .blockSize = entry.blockSize,
                   .value = static_cast<LONG>(value),
                   .flags = flags},
                  context);
    }
    return STATUS_SUCCESS;
}

} // namespace uvc
