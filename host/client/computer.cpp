#include "host/client/computer.h"

#include "host/executive/pnp.h"
#include "platform/lock.h"

namespace host::client {

namespace {

constexpr WCHAR kServiceName[] = L"uvc_drv";

} // namespace

Computer::Computer(PDRIVER_INITIALIZE driverEntry, ComputerOptions options)
    : runtime_(std::make_unique<Runtime>(std::move(options.runtime))), bus_(std::make_unique<usb::Bus>()),
      plugOptions_(std::move(options.plug)) {
    KeInitializeMutex(&mutex_, 0);
    KeInitializeEvent(&disturbance_, SynchronizationEvent, FALSE);
    KeInitializeEvent(&settled_, NotificationEvent, TRUE);

    // The bus thread must not wait, so another one tells the driver that its device is gone.
    plugOptions_.onGone = [this](PDEVICE_OBJECT) {
        KeClearEvent(&settled_);
        KeSetEvent(&disturbance_, IO_NO_INCREMENT, FALSE);
    };
    watcher_ = std::make_unique<AttachedThread>("device watcher", [this] { Watch(); });
    driverStatus_ = LoadDriver(kServiceName, driverEntry, &driver_);
}

Computer::~Computer() {
    Unplug();
    InterlockedExchange(&shutdown_, 1);
    KeSetEvent(&disturbance_, IO_NO_INCREMENT, FALSE);
    watcher_.reset();
    if (driver_ != nullptr)
        UnloadDriver(driver_);
    bus_.reset();
    runtime_.reset();
}

NTSTATUS Computer::PlugIn(std::shared_ptr<usb::UsbDevice> device) {
    if (!NT_SUCCESS(driverStatus_))
        return driverStatus_;
    Unplug();
    MutexGuard guard(mutex_);
    pdo_ = bus_->Plug(std::move(device), plugOptions_);
    if (pdo_ == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    NTSTATUS status = StartDeviceStack(pdo_, driver_);
    started_ = NT_SUCCESS(status);
    return status;
}

void Computer::Unplug() {
    if (pdo_ == nullptr)
        return;
    bus_->Unplug(pdo_);
    KeWaitForSingleObject(&settled_, Executive, KernelMode, FALSE, nullptr);
    RemoveStack();
    pdo_ = nullptr;
}

NTSTATUS Computer::Restart() {
    MutexGuard guard(mutex_);
    if (!started_)
        return STATUS_NO_SUCH_DEVICE;
    NTSTATUS status = StopDeviceStack(pdo_);
    if (NT_SUCCESS(status))
        status = RestartDeviceStack(pdo_);
    return status;
}

bool Computer::IsConnected() {
    return pdo_ != nullptr && bus_->IsPlugged(pdo_);
}

void Computer::RemoveStack() {
    MutexGuard guard(mutex_);
    if (started_)
        RemoveDeviceStack(pdo_, true);
    started_ = false;
}

void Computer::Watch() {
    for (;;) {
        KeWaitForSingleObject(&disturbance_, Executive, KernelMode, FALSE, nullptr);
        if (InterlockedCompareExchange(&shutdown_, 0, 0) != 0)
            return;
        RemoveStack();
        KeSetEvent(&settled_, IO_NO_INCREMENT, FALSE);
    }
}

} // namespace host::client
