#include "imaging/processor_features.h"
#include "tests/camera/plugged_camera.h"

#include <array>

namespace uvc::camera_test {
namespace {

constexpr ULONG kJunk = 0xDEADBEEF;

TEST(CameraParameters, KeepWhatTheyAreSetTo) {
    struct Case {
        ULONG id;
        ULONG initial;
        ULONG set;
        ULONG then;
    };
    const Case cases[] = {
        {1, 0, 7, 1},
        {2, 1, 0, 0},
        {10, 6, 0xFFFFFFFF, 0xFFFFFFFF},
        {12, 1000, 0xFFFFFFFF, 0xFFFFFFFF},
        {17, 1, 0, 0},
        {18, 0, 0x100, 1},
        {25, 0, 1, 0},
        {14, 0, 0x12345, 0x12345},
        {16, 1, 0, 0},
    };
    PluggedCamera plugged("sim:8201");
    for (const Case &test : cases) {
        SCOPED_TRACE(test.id);
        ULONG value = kJunk;
        EXPECT_EQ(plugged.camera.GetParameter(test.id, value), STATUS_SUCCESS);
        EXPECT_EQ(value, test.initial);
        EXPECT_EQ(plugged.camera.SetParameter(test.id, test.set), STATUS_SUCCESS);
        EXPECT_EQ(plugged.camera.GetParameter(test.id, value), STATUS_SUCCESS);
        EXPECT_EQ(value, test.then);
    }
    EXPECT_TRUE(plugged.TakeVendorRequests().empty()); // a mode is applied by the next stream
}

TEST(CameraParameters, InstructionSetLevelsStandForMasks) {
    PluggedCamera plugged("sim:generic");
    const ULONG detected = imaging::DetectProcessorFeatures();
    EXPECT_EQ(plugged.camera.parameters.processorMask, detected);
    struct Case {
        ULONG level;
        ULONG mask;
        ULONG readBack;
    };
    const Case cases[] = {{1, 0, 1}, {2, 3, 2}, {3, 7, 3}, {4, 31, 4}, {5, 63, 5}, {6, 96, 6}, {7, 320, 7}};
    for (const Case &test : cases) {
        SCOPED_TRACE(test.level);
        ULONG value = kJunk;
        EXPECT_EQ(plugged.camera.SetParameter(26, test.level), STATUS_SUCCESS);
        EXPECT_EQ(plugged.camera.parameters.processorMask, test.mask);
        EXPECT_EQ(plugged.camera.GetParameter(26, value), STATUS_SUCCESS);
        EXPECT_EQ(value, test.readBack);
        EXPECT_EQ(plugged.camera.SetParameter(26, 8), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(plugged.camera.parameters.processorMask, test.mask);
    }
    EXPECT_EQ(plugged.camera.SetParameter(26, 0), STATUS_SUCCESS);
    EXPECT_EQ(plugged.camera.parameters.processorMask, detected);
    // Masks that no level sets: the highest level whose features are all there.
    for (auto [mask, level] : {std::pair<ULONG, ULONG>{127, 6}, {1, 1}, {6, 1}, {30, 1}, {256, 1}, {0x1FF, 7}}) {
        ULONG value = kJunk;
        plugged.camera.parameters.processorMask = mask;
        EXPECT_EQ(plugged.camera.GetParameter(26, value), STATUS_SUCCESS);
        EXPECT_EQ(value, level) << mask;
    }
}

TEST(CameraParameters, VendorSettingsBecomeTheirRequests) {
    for (const char *text : {"sim:8101", "sim:8102"}) {
        SCOPED_TRACE(text);
        PluggedCamera plugged(text);
        ULONG value = kJunk;
        EXPECT_EQ(plugged.camera.GetParameter(4, value), STATUS_SUCCESS);
        EXPECT_EQ(value, plugged.device->model().firmwareRevision);
        EXPECT_EQ(plugged.camera.GetParameter(5, value), STATUS_SUCCESS);
        EXPECT_EQ(value, 0u);
        EXPECT_EQ(plugged.camera.SetParameter(11, 0x12345678), STATUS_SUCCESS);
        EXPECT_EQ(plugged.camera.SetParameter(3, 99), STATUS_SUCCESS);
        auto requests = plugged.TakeVendorRequests();
        ASSERT_EQ(requests.size(), 4u);
        EXPECT_TRUE(requests[0].starts_with("c0 16 0000 0000"));
        EXPECT_TRUE(requests[1].starts_with("c0 17 0000 0000"));
        EXPECT_EQ(requests[2], "40 19 0000 0000 78 56 34 12");
        EXPECT_EQ(requests[3], "40 42 b0c4 2e71");
    }
}

TEST(CameraParameters, PortCommandsReachTheBus) {
    PluggedCamera plugged("sim:generic");
    EXPECT_EQ(plugged.camera.SetParameter(24, 0), STATUS_SUCCESS);
    EXPECT_EQ(plugged.plugged.bus.PortCycles(plugged.plugged.pdo), 1u);
    EXPECT_EQ(plugged.camera.SetParameter(28, 0), STATUS_SUCCESS);
    EXPECT_EQ(plugged.plugged.bus.PortCycles(plugged.plugged.pdo), 1u);
}

TEST(CameraParameters, BlocksArePassedThroughOrAnswered) {
    PluggedCamera plugged("sim:8201");
    // A vendor request from the device, two bytes: the firmware revision.
    std::array<UCHAR, 10> request{1, 0, 0, 0x16, 0, 0, 0, 0, 2, 0};
    UCHAR data[8] = {};
    ULONG information = kJunk;
    EXPECT_EQ(plugged.camera.GetParameterBlock(6, request.data(), 10, data, 2, information), STATUS_SUCCESS);
    EXPECT_EQ(information, 2u);
    EXPECT_EQ(data[0] | data[1] << 8, plugged.device->model().firmwareRevision);
    EXPECT_EQ(plugged.TakeVendorRequests().size(), 1u);

    // The camera's description, and the colours of its sensor.
    EXPECT_EQ(plugged.camera.GetParameterBlock(15, nullptr, 0, data, 8, information), STATUS_SUCCESS);
    EXPECT_EQ(information, 8u);
    EXPECT_EQ(data[0], 1);
    EXPECT_EQ(data[4] | data[5] << 8, 1280);
    EXPECT_EQ(plugged.camera.GetParameterBlock(19, nullptr, 0, data, 8, information), STATUS_SUCCESS);
    EXPECT_EQ(data[0], 1);
    EXPECT_EQ(data[4], 0); // blue, green first
    EXPECT_EQ(plugged.camera.GetParameterBlock(19, nullptr, 0, data, 7, information), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(plugged.camera.SetParameterBlock(15, data, 8), STATUS_NOT_IMPLEMENTED);

    for (ULONG id : {0u, 1u, 4u, 16u, 26u}) {
        EXPECT_EQ(plugged.camera.GetParameterBlock(id, request.data(), 10, data, 8, information),
                  STATUS_NOT_IMPLEMENTED);
        EXPECT_EQ(plugged.camera.SetParameterBlock(id, request.data(), 10), STATUS_NOT_IMPLEMENTED);
    }
}

} // namespace
} // namespace uvc::camera_test
