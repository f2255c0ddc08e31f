#include "tests/usb/scripted_camera.h"
#include "usb/device_link.h"

namespace uvc::usb_test {
namespace {

namespace bus = host::usb::test;

constexpr UCHAR kBulk = 2; // bmAttributes

// A configuration padded with a class descriptor to a total length.
Bytes PaddedConfiguration(std::size_t total) {
    Bytes body = bus::InterfaceDescriptor(0, 0, 0) + bus::InterfaceDescriptor(1, 0, 1) +
                 bus::EndpointDescriptor(0x81, kBulk, 512, 0);
    while (body.size() + 9 < total) {
        const auto length = static_cast<UCHAR>(std::min<std::size_t>(200, total - 9 - body.size()));
        Bytes padding(length);
        padding[0] = length;
        if (length > 1)
            padding[1] = 0x24;
        body = body + padding;
    }
    return bus::ConfigurationDescriptor(2, body);
}

class ConfigurationTest : public testing::Test {
  protected:
    std::vector<std::string> ReadsOfConfiguration() {
        std::vector<std::string> log = on->device->TakeLog();
        std::erase_if(log, [](const std::string &line) { return !line.starts_with("control 80 06 0200"); });
        return log;
    }
    NTSTATUS Configure(UsbDeviceLink &link) {
        on->device->TakeLog();
        return UsbConfigureDevice(link);
    }

    host::Runtime runtime;
    std::optional<ScriptedBus> on;
};

TEST_F(ConfigurationTest, ReadsALongDescriptorAgainWithItsLength) {
    for (std::size_t total : {520, 521, 522, 3000}) {
        on.emplace();
        on->device->configuration = PaddedConfiguration(total);
        UsbDeviceLink link(on->pdo);
        ASSERT_EQ(Configure(link), STATUS_SUCCESS) << total;
        char second[40];
        std::snprintf(second, sizeof(second), "control 80 06 0200 0000 %04zx", total);
        std::vector<std::string> expected{"control 80 06 0200 0000 0209"};
        if (total > 521)
            expected.emplace_back(second);
        EXPECT_EQ(ReadsOfConfiguration(), expected);
        EXPECT_EQ(link.configurationLength, total);
        on.reset();
    }
}

TEST_F(ConfigurationTest, BelievesNoMoreThanWhatCame) {
    const std::tuple<std::size_t, USHORT, ULONG> cases[] = {
        {34, 34, 34}, {34, 500, 34}, {34, 5000, 34}, {0, 0, 0}, {8, 34, 0}}; // sent, claimed, believed
    for (auto [sent, claimed, believed] : cases) {
        on.emplace();
        Bytes bytes = PaddedConfiguration(34);
        bytes[2] = static_cast<UCHAR>(claimed);
        bytes[3] = static_cast<UCHAR>(claimed >> 8);
        bytes.resize(sent);
        on->device->configuration = bytes;
        UsbDeviceLink link(on->pdo);
        EXPECT_EQ(UsbGetConfigurationDescriptor(link),
                  believed != 0 ? STATUS_SUCCESS : STATUS_DEVICE_CONFIGURATION_ERROR);
        EXPECT_EQ(link.ConfigurationBytes().size(), believed);
        EXPECT_TRUE(believed == 0 || link.configuration->wTotalLength == believed);
        on.reset();
    }
}

TEST_F(ConfigurationTest, SaysWhatItRefuses) {
    {
        on.emplace(host::usb::PlugOptions{}, [](ScriptedCamera &device) { device.highSpeed = false; });
        UsbDeviceLink link(on->pdo);
        EXPECT_EQ(Configure(link), STATUS_DEVICE_CONFIGURATION_ERROR);
        EXPECT_TRUE(on->device->TakeLog().empty()); // nothing is asked of it
        EXPECT_EQ(runtime.DebugLog(), "this is not a high speed device, so just quitting.\n");
        on.reset();
    }
    on.emplace(host::usb::PlugOptions{.withoutBandwidth = true});
    UsbDeviceLink link(on->pdo);
    EXPECT_FALSE(NT_SUCCESS(Configure(link)));
    EXPECT_TRUE(runtime.DebugLog().ends_with("Not enough bandwidth available. Failing initialization.\n"));
    EXPECT_EQ(link.StreamingPipe(), nullptr);
}

TEST_F(ConfigurationTest, MeetsUnusualInterfaces) {
    struct Case {
        Bytes configuration;
        NTSTATUS status;
        bool selectsInterface, hasPipe;
    };
    const Bytes endpoint = bus::EndpointDescriptor(0x81, kBulk, 512, 0);
    const Case cases[] = {
        {bus::ConfigurationDescriptor(1, bus::InterfaceDescriptor(0, 0, 1) + endpoint), STATUS_SUCCESS, false, false},
        {bus::ConfigurationDescriptor(2, bus::InterfaceDescriptor(0, 0, 0) + bus::InterfaceDescriptor(1, 0, 0)),
         STATUS_SUCCESS, true, false},
        // A number that is left out ends neither the list nor the driver.
        {bus::ConfigurationDescriptor(3,
                                      bus::InterfaceDescriptor(0, 0, 0) + bus::InterfaceDescriptor(2, 0, 1) + endpoint),
         STATUS_INVALID_PARAMETER, false, false},
        {bus::ConfigurationDescriptor(2, bus::InterfaceDescriptor(1, 0, 1) + endpoint), STATUS_SUCCESS, true, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(&c - cases);
        on.emplace();
        on->device->configuration = c.configuration;
        UsbDeviceLink link(on->pdo);
        EXPECT_EQ(Configure(link), c.status);
        const std::vector<std::string> log = on->device->TakeLog();
        EXPECT_EQ(std::ranges::count(log, "control 01 0b 0000 0001 0000"), c.selectsInterface);
        EXPECT_EQ(link.StreamingPipe() != nullptr, c.hasPipe);
        on.reset();
    }
}

TEST_F(ConfigurationTest, AFaultAnywhereFailsCleanlyAndCanBeRepeated) {
    on.emplace();
    const auto attempt = [&] {
        UsbDeviceLink link(on->pdo);
        const NTSTATUS status = UsbConfigureDevice(link);
        const bool dealt = DisarmFaults();
        EXPECT_TRUE(dealt || NT_SUCCESS(status));
        EXPECT_TRUE(!NT_SUCCESS(status) || link.StreamingPipe() != nullptr);
        EXPECT_NE(status, STATUS_TIMEOUT);
        EXPECT_EQ(UsbConfigureDevice(link), STATUS_SUCCESS);
        EXPECT_NE(link.StreamingPipe(), nullptr);
        return dealt;
    };
    for (host::FaultSite site : {host::FaultSite::PoolAllocation, host::FaultSite::Irp})
        SweepFaults(site, attempt);
    for (host::TransferFault fault :
         {host::TransferFault::Stall, host::TransferFault::Hang, host::TransferFault::Delay})
        SweepFaults(fault, attempt);
}

} // namespace
} // namespace uvc::usb_test
