#include "camera/camera_family_a.h"

#include "camera/parameter.h"
#include "camera/vendor_protocol.h"

namespace uvc {

CameraFamilyA::CameraFamilyA(PDEVICE_OBJECT device, FrameSink *sink) : UvcCamera(device, sink) {
    familyFlag_ = 1;
    for (ULONG i = 0; i < kFamilyAProviders; ++i)
        familyProviders_[i].Offer(FamilyAControls(i));
}

CameraFamilyA::~CameraFamilyA() {
    for (StatelessProvider &provider : familyProviders_)
        provider.Destroy(0);
}

void CameraFamilyA::Destroy(ULONG flags) {
    this->CameraFamilyA::~CameraFamilyA();
    Release(this, flags);
}

void CameraFamilyA::GetCameraInfo(CameraInfo &info) {
    UvcCamera::GetCameraInfo(info);
    FillFamilyInfo(info);
}

bool CameraFamilyA::IsParameterSupported(ULONG id) {
    switch (id) {
    case kRestartLoaderParameter:
    case kFirmwareRevisionParameter:
    case kDeviceStatusParameter:
    case kUserRegisterParameter:
        return true;
    default:
        return UvcCamera::IsParameterSupported(id);
    }
}

NTSTATUS CameraFamilyA::SetParameter(ULONG id, ULONG value) {
    switch (id) {
    case kRestartLoaderParameter:
        return VendorSend(*this, kRestartLoader, kRestartValue, kRestartIndex, nullptr, 0);
    case kUserRegisterParameter:
        return VendorSend(*this, kWriteUserRegister, 0, 0, &value, sizeof(value));
    default:
        return UvcCamera::SetParameter(id, value);
    }
}

NTSTATUS CameraFamilyA::GetParameter(ULONG id, ULONG &value) {
    switch (id) {
    case kFirmwareRevisionParameter:
        return VendorReadWord(*this, kReadFirmwareRevision, value);
    case kDeviceStatusParameter:
        return VendorReadWord(*this, kReadDeviceStatus, value);
    default:
        return UvcCamera::GetParameter(id, value);
    }
}

NTSTATUS CameraFamilyA::CreateControls() {
    NTSTATUS status = UvcCamera::CreateControls();
    for (ULONG i = 0; NT_SUCCESS(status) && i < kFamilyAProviders; ++i)
        status = RegisterProvider(familyProviders_[i]);
    return status;
}

} // namespace uvc
