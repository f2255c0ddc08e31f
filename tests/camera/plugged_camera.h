// A camera object over the bus model, without driver and streaming model around it.
#pragma once

#include "camera/model_table.h"
#include "host/cameras/catalogue.h"
#include "host/executive/pnp.h"
#include "host/executive/runtime.h"
#include "host/usb/bus.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace uvc::camera_test {

class NoFrames final : public FrameSink {
  public:
    void CompleteFrame(KSSTREAM_POINTER *, NTSTATUS) override {}
    KSSTREAM_POINTER *AcquireFrame() override { return nullptr; }
};

// Plugs a device in and constructs the camera object that its product id asks for.
class PluggedDevice {
  public:
    explicit PluggedDevice(std::shared_ptr<host::usb::UsbDevice> device) : pdo(bus.Plug(std::move(device))) {
        const ModelTableEntry *model = FindModel(bus.IdentityOf(pdo).product);
        camera = (model != nullptr ? model->factory : MakeCamera<UvcCamera>)(pdo, &sink);
    }
    ~PluggedDevice() {
        if (camera != nullptr)
            camera->Destroy(1);
        bus.Unplug(pdo);
        host::RemoveDeviceStack(pdo, true);
    }

    host::Runtime runtime;
    host::usb::Bus bus;
    NoFrames sink;
    PDEVICE_OBJECT pdo;
    UvcCamera *camera;
};

inline std::shared_ptr<host::cameras::SimulatedCamera> Simulated(const std::string &text) {
    std::string reason;
    auto device = host::cameras::MakeCamera(text, reason);
    EXPECT_TRUE(device) << reason;
    return device;
}

// The same with a simulated camera, initialised.
class PluggedCamera {
  public:
    explicit PluggedCamera(const std::string &text)
        : device(Simulated(text)), plugged(device), camera(*plugged.camera) {
        EXPECT_EQ(camera.Initialise(), STATUS_SUCCESS);
        device->ClearControlLog();
    }

    // The accepted and refused vendor requests since the start or the last call: "40 42 b0c4 2e71 [data]".
    std::vector<std::string> TakeVendorRequests() {
        std::vector<std::string> requests;
        for (const host::cameras::ControlRecord &record : device->ControlLog()) {
            if ((record.setup.requestType & 0x60) != 0x40)
                continue;
            char text[40];
            std::snprintf(text, sizeof(text), "%02x %02x %04x %04x", record.setup.requestType, record.setup.request,
                          record.setup.value, record.setup.index);
            requests.emplace_back(text);
            for (std::uint8_t byte : record.data) {
                std::snprintf(text, sizeof(text), " %02x", byte);
                requests.back() += text;
            }
            if (!record.accepted)
                requests.back() += " refused";
        }
        device->ClearControlLog();
        return requests;
    }

    std::shared_ptr<host::cameras::SimulatedCamera> device;
    PluggedDevice plugged;
    UvcCamera &camera;
};

} // namespace uvc::camera_test
