#include "driver/property_router.h"

#include "driver/capture_pin.h"
#include "driver/property_handlers.h"
#include "driver/uvc_device.h"
#include "platform/guarded_call.h"
#include "platform/lock.h"
#include "platform/shared_field.h"
#include "uvc_drv/properties.h"

namespace uvc {

namespace {

constexpr ULONG kTransferTypeMask = 3; // of a control code

// The connected pin answers for the filter; without one there is nobody who counts. The pin may belong to another
// filter, which closes it when it likes: the lock keeps it here. No fault is to be feared under it: property and data
// are the class driver's copies.
NTSTATUS HandleDroppedFrames(UvcDevice &device, PropertyRequest &request) {
    SpinLockGuard guard(device.pinLock);
    return device.pin != nullptr ? device.pin->HandlePinProperty(request, STATUS_NOT_IMPLEMENTED)
                                 : STATUS_NOT_IMPLEMENTED;
}

// The handlers of requests that need the camera.
template <PropertyHandler Handler> NTSTATUS AskCamera(UvcDevice &device, PropertyRequest &request) {
    UvcCamera *camera = ReadPublished(device.camera);
    return camera != nullptr ? Handler(device, *camera, request) : STATUS_DEVICE_NOT_CONNECTED;
}

struct Route {
    const GUID *set;
    NTSTATUS (*handler)(UvcDevice &, PropertyRequest &);
};

constexpr Route kRoutes[] = {
    {.set = &PROPSETID_DEVICE_INFO, .handler = AskCamera<HandleDeviceInformation>},
    {.set = &PROPSETID_DRIVER_INFO, .handler = AskCamera<HandleDriverInformation>},
    {.set = &PROPSETID_VIDCAP_VIDEOPROCAMP, .handler = AskCamera<HandleVideoProcAmp>},
    {.set = &PROPSETID_VIDCAP_CAMERACONTROL, .handler = AskCamera<HandleCameraControl>},
    {.set = &PROPSETID_PRIVATE_IMAGE, .handler = AskCamera<HandleImageControl>},
    {.set = &PROPSETID_VIDCAP_VIDEOCONTROL, .handler = AskCamera<HandleVideoControl>},
    {.set = &PROPSETID_DRIVER_PARAMETER, .handler = AskCamera<HandleDriverParameter>},
    {.set = &PROPSETID_VIDCAP_DROPPEDFRAMES, .handler = HandleDroppedFrames},
    {.set = &PROPSETID_PRIVATE_COLORMATRIX, .handler = AskCamera<HandleColourMatrix>},
};
static_assert(ARRAYSIZE(kRoutes) == 9);

struct Probe {
    void *buffer;
    ULONG length;
};

void ProbeCaller(void *context) {
    auto *probe = static_cast<Probe *>(context);
    ProbeForRead(probe->buffer, probe->length, 1);
}

struct Routing {
    UvcDevice *device;
    PropertyRequest request;
    NTSTATUS status;
};

void RouteGuarded(void *context) {
    auto *routing = static_cast<Routing *>(context);
    routing->status = RouteProperty(*routing->device, routing->request);
}

} // namespace

NTSTATUS HandleFilterProperty(PIRP irp, PKSIDENTIFIER property, PVOID data) {
    KSFILTER *filter = KsGetFilterFromIrp(irp);
    KSDEVICE *ksDevice = filter != nullptr ? KsFilterGetDevice(filter) : nullptr;
    UvcDevice *device = ksDevice != nullptr ? UvcDevice::From(ksDevice) : nullptr;
    if (device == nullptr)
        return STATUS_INVALID_PARAMETER;

    const auto &control = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
    void *instance = irp->AssociatedIrp.SystemBuffer;
    if ((control.IoControlCode & kTransferTypeMask) == METHOD_NEITHER) {
        Probe probe{.buffer = control.Type3InputBuffer, .length = control.InputBufferLength};
        if (!NT_SUCCESS(GuardedCall(ProbeCaller, &probe)))
            return STATUS_INVALID_PARAMETER;
        instance = static_cast<KSPROPERTY *>(control.Type3InputBuffer) + 1;
    }

    CameraUse camera(*device); // outside the guarded call, from which a fault returns past every scope
    if (!camera)
        return STATUS_DEVICE_NOT_CONNECTED;
    Routing routing{.device = device,
                    .request = {.irp = irp,
                                .property = property,
                                .instance = instance,
                                .data = data,
                                .inputLength = control.InputBufferLength,
                                .outputLength = control.OutputBufferLength}};
    if (!NT_SUCCESS(GuardedCall(RouteGuarded, &routing)))
        return STATUS_ACCESS_VIOLATION;
    irp->IoStatus.Information = routing.request.information;
    return routing.status;
}

NTSTATUS RouteProperty(UvcDevice &device, PropertyRequest &request) {
    for (const Route &route : kRoutes) {
        if (IsEqualGUID(request.property->Set, *route.set))
            return route.handler(device, request);
    }
    return STATUS_NOT_IMPLEMENTED;
}

} // namespace uvc
