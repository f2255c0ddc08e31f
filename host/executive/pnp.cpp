#include "host/executive/pnp.h"

#include "host/executive/io_request.h"
#include "host/executive/state.h"

#include <map>
#include <memory>

namespace host {
namespace {

// What a dispatch routine that the driver has not set does.
NTSTATUS NTAPI InvalidRequest(PDEVICE_OBJECT, PIRP irp) {
    irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}

// A driver object with the strings that belong to it.
struct Driver {
    DRIVER_OBJECT object{}; // first
    DRIVER_EXTENSION extension{};
    std::u16string name, serviceKey;
    std::map<PVOID, std::unique_ptr<char[]>> clientExtensions;
};

Driver &DriverOf(PDRIVER_OBJECT object, const char *routine) {
    if (!Machine().objects.Is(object, ObjectKind::Driver))
        Violation("not a driver object", routine, Format("%p", static_cast<void *>(object)));
    return *reinterpret_cast<Driver *>(object);
}

NTSTATUS SendPnp(PDEVICE_OBJECT pdo, UCHAR minor, const std::function<void(PIO_STACK_LOCATION)> &prepare = {}) {
    return SendAndWait(pdo, STATUS_NOT_SUPPORTED, [&](PIRP, PIO_STACK_LOCATION location) {
        location->MajorFunction = IRP_MJ_PNP;
        location->MinorFunction = minor;
        if (prepare)
            prepare(location);
    });
}

NTSTATUS Start(PDEVICE_OBJECT pdo) {
    DEVICE_CAPABILITIES capabilities{};
    capabilities.Size = sizeof capabilities;
    capabilities.Version = 1;
    capabilities.Address = capabilities.UINumber = MAXULONG;
    static_cast<void>(SendPnp(pdo, IRP_MN_QUERY_CAPABILITIES, [&](PIO_STACK_LOCATION location) {
        location->Parameters.DeviceCapabilities.Capabilities = &capabilities;
    }));
    return SendPnp(pdo, IRP_MN_START_DEVICE);
}

} // namespace

NTSTATUS LoadDriver(const WCHAR *serviceName, PDRIVER_INITIALIZE entry, PDRIVER_OBJECT *result) {
    constexpr const char *kRoutine = "DriverEntry";
    RequireIrqlAtMost(PASSIVE_LEVEL, kRoutine);
    State &state = Machine();
    auto *driver = new Driver;
    const std::u16string service(View(serviceName));
    driver->name = u"\\Driver\\" + service;
    driver->serviceKey = service;
    driver->object.Type = IO_TYPE_DRIVER;
    driver->object.Size = sizeof(DRIVER_OBJECT);
    driver->object.DriverExtension = &driver->extension;
    driver->object.DriverName = Counted(driver->name);
    driver->object.DriverInit = entry;
    driver->extension.DriverObject = &driver->object;
    driver->extension.ServiceKeyName = Counted(driver->serviceKey);
    for (PDRIVER_DISPATCH &dispatch : driver->object.MajorFunction)
        dispatch = InvalidRequest;
    state.objects.Add(driver, ObjectKind::Driver, ToUtf8(driver->name), CALLER_PLACE(), [driver] { delete driver; });

    Thread &thread = CurrentThread(kRoutine);
    NTSTATUS status;
    {
        // The text lives only for the call, on the heap, where a sanitizer sees a driver that keeps it.
        auto path =
            std::make_unique<std::u16string>(u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\" + service);
        state.registry.CreatePath(*path);
        auto counted = std::make_unique<UNICODE_STRING>(Counted(*path));
        status = entry(&driver->object, counted.get());
    }
    RequireCleanReturn(thread, PASSIVE_LEVEL, 0, kRoutine, "the entry point");
    if (!NT_SUCCESS(status)) {
        if (driver->object.DeviceObject != nullptr)
            Violation("device left", kRoutine, "the entry point failed and left a device object");
        state.objects.Dereference(driver, kRoutine);
        return status;
    }
    *result = &driver->object;
    return status;
}

void UnloadDriver(PDRIVER_OBJECT driver) {
    constexpr const char *kRoutine = "DriverUnload";
    RequireIrqlAtMost(PASSIVE_LEVEL, kRoutine);
    State &state = Machine();
    state.devices.WaitForRemovals();
    if (driver->DriverUnload != nullptr) {
        driver->DriverUnload(driver);
        RequireCleanReturn(CurrentThread(kRoutine), PASSIVE_LEVEL, 0, kRoutine, "the routine");
    }
    if (driver->DeviceObject != nullptr)
        Violation("device left", kRoutine, ToUtf8(state.devices.NameOf(driver->DeviceObject)));
    state.objects.Dereference(driver, kRoutine);
}

void RegisterPdo(PDEVICE_OBJECT pdo, const WCHAR *instancePath) {
    Machine().devices.AddNode(pdo, std::u16string(View(instancePath)));
}

NTSTATUS StartDeviceStack(PDEVICE_OBJECT pdo, PDRIVER_OBJECT function) {
    constexpr const char *kRoutine = "AddDevice";
    RequireIrqlAtMost(PASSIVE_LEVEL, kRoutine);
    State &state = Machine();
    state.devices.ForgetRemoval(pdo);
    NTSTATUS status = function->DriverExtension->AddDevice(function, pdo);
    RequireCleanReturn(CurrentThread(kRoutine), PASSIVE_LEVEL, 0, kRoutine, "the routine");
    if (!NT_SUCCESS(status)) {
        if (pdo->AttachedDevice != nullptr)
            Violation("device left", kRoutine, "the routine failed and left its device attached");
        return status;
    }
    status = Start(pdo);
    if (!NT_SUCCESS(status)) {
        RemoveDeviceStack(pdo, false);
        return status;
    }
    return status;
}

NTSTATUS StopDeviceStack(PDEVICE_OBJECT pdo) {
    const NTSTATUS status = SendPnp(pdo, IRP_MN_QUERY_STOP_DEVICE);
    if (!NT_SUCCESS(status)) {
        static_cast<void>(SendPnp(pdo, IRP_MN_CANCEL_STOP_DEVICE));
        return status;
    }
    return SendPnp(pdo, IRP_MN_STOP_DEVICE);
}

NTSTATUS RestartDeviceStack(PDEVICE_OBJECT pdo) {
    return Start(pdo);
}

void RemoveDeviceStack(PDEVICE_OBJECT pdo, bool surprise) {
    constexpr const char *kRoutine = "RemoveDeviceStack";
    RequireIrqlAtMost(PASSIVE_LEVEL, kRoutine);
    State &state = Machine();
    if (!state.devices.BeginRemoval(pdo))
        return;
    if (surprise)
        static_cast<void>(SendPnp(pdo, IRP_MN_SURPRISE_REMOVAL));
    state.devices.DisableInterfaces(pdo);
    state.devices.WaitUntilDrained(pdo);
    if (!state.devices.DeferRemoval(pdo))
        SendRemoval(pdo);
}

void SendRemoval(PDEVICE_OBJECT pdo) {
    static_cast<void>(SendPnp(pdo, IRP_MN_REMOVE_DEVICE));
    if (pdo->AttachedDevice != nullptr)
        Violation("device left after its removal", "IRP_MN_REMOVE_DEVICE",
                  ToUtf8(Machine().devices.NameOf(pdo->AttachedDevice)) + " is still attached");
}

} // namespace host

using namespace host;

extern "C" {

NTSTATUS NTAPI IoAllocateDriverObjectExtension(PDRIVER_OBJECT driver, PVOID client, ULONG size, PVOID *extension) {
    constexpr const char *kRoutine = "IoAllocateDriverObjectExtension";
    RequireIrqlAtMost(APC_LEVEL, kRoutine);
    auto &extensions = DriverOf(driver, kRoutine).clientExtensions;
    *extension = nullptr;
    if (extensions.contains(client))
        return STATUS_OBJECT_NAME_COLLISION;
    *extension = (extensions[client] = std::make_unique<char[]>(size)).get();
    return STATUS_SUCCESS;
}

PVOID NTAPI IoGetDriverObjectExtension(PDRIVER_OBJECT driver, PVOID client) {
    constexpr const char *kRoutine = "IoGetDriverObjectExtension";
    RequireIrqlAtMost(DISPATCH_LEVEL, kRoutine);
    const auto &extensions = DriverOf(driver, kRoutine).clientExtensions;
    const auto found = extensions.find(client);
    return found != extensions.end() ? found->second.get() : nullptr;
}

} // extern "C"
