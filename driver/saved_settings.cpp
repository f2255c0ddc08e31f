#include "driver/saved_settings.h"

#include "camera/control.h"
#include "camera/settings.h"
#include "driver/property_router.h"
#include "driver/uvc_device.h"

namespace uvc {

namespace {

void Replay(const StoredSetting &setting, void *context) {
    KSPROPERTY property{};
    property.Set = setting.set;
    property.Id = setting.id;
    property.Flags = KSPROPERTY_TYPE_SET;
    // Value and flags stand at the same place in the shorter block.
    ControlExtendedBlock block{};
    block.value = setting.value;
    block.flags = setting.flags;
    PropertyRequest request{.irp = nullptr,
                            .property = &property,
                            .instance = nullptr,
                            .data = &block,
                            .inputLength = setting.blockSize,
                            .outputLength = setting.blockSize};
    static_cast<void>(RouteProperty(*static_cast<UvcDevice *>(context), request)); // every row is tried
}

} // namespace

void PersistSetting(UvcDevice &device, const GUID &set, ULONG id, LONG value, ULONG flags) {
    static_cast<void>(SaveSetting(device.device->PhysicalDeviceObject, set, id, value, flags));
}

void ReplaySettings(UvcDevice &device) {
    static_cast<void>(RestoreSettings(device.device->PhysicalDeviceObject, Replay, &device));
}

} // namespace uvc
