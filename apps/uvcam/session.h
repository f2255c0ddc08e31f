// A camera, opened: the runtime, the driver on it, and the capture filter.
#pragma once

#include "host/cameras/catalogue.h"
#include "host/client/computer.h"
#include "host/client/filter.h"

#include <memory>
#include <optional>
#include <string>

namespace uvcam {

struct SessionOptions {
    std::string camera;
    std::string scene;                    // a PNG, or empty
    std::string faults;                   // a fault plan, or empty
    std::string settings;                 // a registry file; empty: the user's own, where there is a place for it
    std::optional<ULONG> maximumTransfer; // of the bus, in bytes
    bool freeRun = false;
};

// Boots in real time. The constructor throws Failure with the reason when the camera is unknown or does not start.
class Session {
  public:
    explicit Session(const SessionOptions &options);

    // Throws Failure when `status` is one: that the camera is gone, where this is why.
    void Require(NTSTATUS status, const std::string &what);
    // Throws Failure when the camera is gone.
    void RequireConnected(const std::string &when);

    const std::string &Name() const { return name_; }
    host::client::Filter &Filter() { return filter_; }
    host::cameras::SimulatedCamera &Camera() { return *camera_; }
    bool IsFreeRunning() const { return freeRun_; }

  private:
    const std::string name_;
    const bool freeRun_;
    std::shared_ptr<host::cameras::SimulatedCamera> camera_;
    std::unique_ptr<host::client::Computer> computer_;
    host::client::Filter filter_; // closes before the computer goes
};

} // namespace uvcam
