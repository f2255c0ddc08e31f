// A booted computer with a USB bus and one driver: the whole runtime in one object, for programs, tests and benchmarks.
#pragma once

#include "host/executive/runtime.h"
#include "host/usb/bus.h"

#include <memory>
#include <optional>

namespace host::client {

struct ComputerOptions {
    RuntimeOptions runtime;
    usb::PlugOptions plug; // of every device; onGone and onCyclePort are the computer's own
};

class Computer {
  public:
    // Boots, and loads the driver. DriverStatus tells what its entry point returned.
    explicit Computer(PDRIVER_INITIALIZE driverEntry, ComputerOptions options = {});
    // Unplugs what is there, unloads the driver and shuts down; the runtime then checks that nothing is left. Files
    // must have been closed.
    ~Computer();
    Computer(const Computer &) = delete;
    Computer &operator=(const Computer &) = delete;

    NTSTATUS DriverStatus() const { return driverStatus_; }

    // Connects the device and starts the driver on it; the status of the start. A device whose start failed stays
    // connected without a driver. One device at a time.
    NTSTATUS PlugIn(std::shared_ptr<usb::UsbDevice> device);

    // Pulls the cable: transfers fail, then the driver is told. Nothing happens when there is no device.
    void Unplug();

    // Stops the device and starts it again, as a resource rebalance does.
    NTSTATUS Restart();

    // False once the device has gone, by Unplug or of itself.
    bool IsConnected();

    PDEVICE_OBJECT Pdo() const { return pdo_; }
    Runtime &Machine() { return *runtime_; }
    usb::Bus &Bus() { return *bus_; }

  private:
    void Watch();
    void RemoveStack();

    std::unique_ptr<Runtime> runtime_;
    std::unique_ptr<usb::Bus> bus_;
    usb::PlugOptions plugOptions_;
    NTSTATUS driverStatus_;
    PDRIVER_OBJECT driver_ = nullptr;
    PDEVICE_OBJECT pdo_ = nullptr;

    KMUTEX mutex_;         // over the device stack: started, restarted or removed by one at a time
    bool started_ = false; // a device stack is there
    KEVENT disturbance_;   // the device went away of itself, or the computer shuts down
    KEVENT settled_;       // signalled while the watcher has nothing to do
    LONG shutdown_ = 0;    // interlocked
    std::unique_ptr<AttachedThread> watcher_;
};

} // namespace host::client
