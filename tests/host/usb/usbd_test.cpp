#include "host/executive/runtime.h"
#include "platform/platform.h"
#include "tests/host/usb/fake_device.h"

#include <gtest/gtest.h>

#include <memory>

namespace host::usb::test {
namespace {

constexpr int kNone = -1;

// In a block of its exact size, so that a read beyond the end is seen by the address sanitizer.
std::unique_ptr<std::uint8_t[]> Exactly(const Bytes &bytes) {
    auto block = std::make_unique<std::uint8_t[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), block.get());
    return block;
}

TEST(ParseDescriptors, StopsAtWhatCannotBeADescriptor) {
    struct Case {
        const char *name;
        Bytes bytes;
        int start;
        int found; // offset
    };
    const Case cases[] = {
        {"first", {2, 5, 2, 4}, 0, 0},
        {"second", {2, 4, 3, 5, 0}, 0, 2},
        {"search starts where told", {2, 5, 2, 5}, 2, 2},
        {"none", {2, 4, 2, 4}, 0, kNone},
        {"zero length", {0, 4, 2, 5}, 0, kNone},
        {"zero length of the wanted type", {0, 5}, 0, kNone},
        {"length one", {1, 5, 2, 5}, 0, kNone},
        {"wanted one is truncated", {2, 4, 3, 5}, 0, kNone},
        {"one before is truncated", {9, 4, 2, 5}, 0, kNone},
        {"half a header", {2, 4, 2}, 0, kNone},
        {"start at the end", {2, 5}, 2, kNone},
        {"empty", {}, 0, kNone},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.name);
        auto block = Exactly(test.bytes);
        auto *found =
            USBD_ParseDescriptors(block.get(), static_cast<ULONG>(test.bytes.size()), block.get() + test.start, 5);
        EXPECT_EQ(found == nullptr ? kNone : reinterpret_cast<std::uint8_t *>(found) - block.get(), test.found);
    }
    std::uint8_t bytes[] = {2, 5, 2, 5};
    EXPECT_EQ(USBD_ParseDescriptors(bytes + 2, 2, bytes, 5), nullptr);
    EXPECT_EQ(USBD_ParseDescriptors(bytes, 2, bytes + 4, 5), nullptr);
}

TEST(ParseConfigurationDescriptor, FindsByEveryCriterionWithinTheTotalLength) {
    Bytes whole = CameraConfiguration();
    auto find = [](Bytes bytes, LONG number, LONG alternate, LONG type, LONG subclass, LONG protocol, int start = 0) {
        auto block = Exactly(bytes);
        auto *configuration = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(block.get());
        auto *found = USBD_ParseConfigurationDescriptorEx(configuration, block.get() + start, number, alternate, type,
                                                          subclass, protocol);
        return found == nullptr ? kNone : static_cast<int>(reinterpret_cast<std::uint8_t *>(found) - block.get());
    };
    EXPECT_EQ(find(whole, -1, -1, -1, -1, -1), 9);
    EXPECT_EQ(find(whole, -1, -1, -1, -1, -1, 18), 30);
    EXPECT_EQ(find(whole, 1, 0, -1, -1, -1), 30);
    EXPECT_EQ(find(whole, 1, 1, 0x0E, 0x02, 0x01), 46);
    EXPECT_EQ(find(whole, 1, 2, -1, -1, -1), kNone);
    EXPECT_EQ(find(whole, -1, -1, 0x0D, -1, -1), kNone);
    EXPECT_EQ(find(whole, -1, -1, -1, 0x01, -1), kNone);
    EXPECT_EQ(find(whole, -1, -1, -1, -1, 0x00), kNone);

    // An interface descriptor that is too short to be one is passed over; one behind the total length is not seen.
    Bytes stunted = ConfigurationDescriptor(1, Bytes{4, 4, 1, 0} + InterfaceDescriptor(1, 0, 0));
    EXPECT_EQ(find(stunted, 1, 0, -1, -1, -1), 13);
    Bytes lying = CameraConfiguration();
    lying[2] = 40;
    lying[3] = 0;
    EXPECT_EQ(find(lying, 1, 1, -1, -1, -1), kNone);
    lying[2] = 8;
    EXPECT_EQ(find(lying, -1, -1, -1, -1, -1), kNone);
}

TEST(CreateConfigurationRequest, RefusesWhatDoesNotFitItsLength) {
    Runtime runtime;
    Bytes configuration = CameraConfiguration();
    auto *descriptor = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(configuration.data());
    // 11 interfaces of 255 endpoints do not fit into a 16-bit length.
    USB_INTERFACE_DESCRIPTOR huge{.bLength = 9, .bDescriptorType = 4, .bNumEndpoints = 255};
    std::vector<USBD_INTERFACE_LIST_ENTRY> many(12, {&huge, nullptr});
    many.back() = {};
    EXPECT_EQ(USBD_CreateConfigurationRequestEx(descriptor, many.data()), nullptr);
}

} // namespace
} // namespace host::usb::test
