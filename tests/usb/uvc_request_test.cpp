#include "tests/usb/stream_parts.h"
#include "usb/uvc_request.h"

#include <optional>

namespace uvc::usb_test {
namespace {

class UvcRequestTest : public testing::Test {
  protected:
    UvcRequestTest() {
        // Data in comes as 0xA0, 0xA1, ...; at most what the device has.
        lower.answer = [this](const LowerDriver::Request &request) {
            auto &urb = request.urb->UrbControlVendorClassRequest;
            seen = urb;
            auto *data = static_cast<UCHAR *>(urb.TransferBuffer);
            urb.TransferBufferLength = std::min(urb.TransferBufferLength, available);
            for (ULONG i = 0; i < urb.TransferBufferLength; ++i)
                urb.TransferFlags != 0 ? void(data[i] = static_cast<UCHAR>(0xA0 + i)) : sent.push_back(data[i]);
            return lower.Finish(request, status);
        };
    }

    host::Runtime runtime;
    LowerDriver lower;
    RecordingSink sink;
    std::unique_ptr<UvcCamera, CameraDeleter> camera = NewCamera<UvcCamera>(lower.Device(), sink);
    ULONG available = 64, transferred = 99;
    NTSTATUS status = STATUS_SUCCESS;
    std::optional<_URB_CONTROL_VENDOR_OR_CLASS_REQUEST> seen;
    std::vector<UCHAR> sent;
};

TEST_F(UvcRequestTest, TheUrbFollowsFromTheRequest) {
    constexpr USHORT kFunctions[2][5] = {{0x1A, 0x1B, 0x1C, 0x1F, 0xFFFF}, {0x17, 0x18, 0x19, 0x20, 0xFFFF}};
    for (UCHAR kind = 0; kind < 20; ++kind) {
        const UCHAR vendor = kind % 2, recipient = kind / 2 % 5, out = kind / 10;
        UCHAR data[4] = {};
        const UvcControlRequest request{out, static_cast<UCHAR>(vendor * 7), recipient, 0x42, 0xB0C4, 0x2E71, 4, data};
        EXPECT_EQ(UvcSendControlRequest(*camera, request, transferred), STATUS_SUCCESS);
        EXPECT_EQ(seen->Hdr.Length, 136);
        EXPECT_EQ(seen->Hdr.Function, kFunctions[vendor][recipient]);
        EXPECT_EQ(seen->TransferFlags, out != 0 ? 0u : 1u);
        EXPECT_TRUE(seen->Request == 0x42 && seen->Value == 0xB0C4 && seen->Index == 0x2E71);
        EXPECT_EQ(transferred, 4u);
    }
}

TEST_F(UvcRequestTest, FailuresReportNoBytesAndTimeoutsAreFailures) {
    UCHAR data[4];
    const UvcControlRequest request{.recipient = kRecipientInterface, .request = kGetCur, .length = 4, .data = data};
    status = STATUS_UNSUCCESSFUL;
    EXPECT_EQ(UvcSendControlRequest(*camera, request, transferred), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(transferred, 0u);
    lower.answer = [&](const LowerDriver::Request &held) { return lower.Hold(held); };
    for (auto [parameter, milliseconds] : {std::pair<LONG, LONGLONG>{250, 250}, {-1, 1000}}) {
        camera->parameters.controlTimeoutMs = parameter;
        const host::Ticks start = runtime.Now();
        EXPECT_EQ(UvcSendControlRequest(*camera, request, transferred), STATUS_IO_TIMEOUT);
        EXPECT_EQ((runtime.Now() - start) / host::kTicksPerMillisecond, milliseconds);
    }
    auto loose = NewCamera<UvcCamera>(nullptr, sink);
    EXPECT_EQ(UvcSendControlRequest(*loose, request, transferred), STATUS_INVALID_HANDLE);
}

TEST_F(UvcRequestTest, UnitRequestsAddressAnEntityOfTheControlInterface) {
    UCHAR buffer[16] = {kGetCur, 9, 9, 9, 3, 0, 9, 9};
    EXPECT_EQ(UvcUnitRequest(*camera, buffer, 5, 0x0B, transferred), STATUS_SUCCESS);
    EXPECT_EQ(seen->Hdr.Function, URB_FUNCTION_CLASS_INTERFACE);
    EXPECT_TRUE(seen->Request == 0x81 && seen->Value == 0x0B00 && seen->Index == 0x0500);
    EXPECT_EQ(transferred, 3u);
    EXPECT_TRUE(buffer[8] == 0xA0 && buffer[10] == 0xA2 && buffer[11] == 0);
    buffer[0] = kSetCur;
    EXPECT_EQ(UvcUnitRequest(*camera, buffer, 5, 0x0B, transferred), STATUS_SUCCESS);
    EXPECT_EQ(sent, (std::vector<UCHAR>{0xA0, 0xA1, 0xA2}));

    UCHAR id = 9;
    EXPECT_EQ(UvcGetEntityId(*camera, kProcessingUnit, id), STATUS_NOT_IMPLEMENTED); // nothing is parsed yet
    const UCHAR terminal[] = {18, 0x24, 2, 31}, processing[] = {11, 0x24, 5, 32}, extension[] = {26, 0x24, 6, 33};
    camera->descriptors = decltype(camera->descriptors)::Allocate(PagedPool);
    *camera->descriptors = {.cameraTerminal = terminal, .processingUnit = processing, .extensionUnit = extension};
    for (auto [kind, expected] : {std::pair<ULONG, int>{2, 31}, {5, 32}, {6, 33}, {3, 0}, {4, 0}}) {
        EXPECT_EQ(UvcGetEntityId(*camera, kind, id), STATUS_SUCCESS);
        EXPECT_EQ(id, expected);
    }
}

TEST_F(UvcRequestTest, PassThroughChecksItsBufferBeforeAnythingIsSent) {
    //              vendor recipient out request value     index       length
    UCHAR buffer[14] = {1, 2, 1, 0x33, 0x11, 0x22, 0x33, 0x44, 4, 0, 5, 6, 7, 8};
    UCHAR answer[8] = {};
    for (ULONG length : {0u, 9u, 10u, 13u})
        EXPECT_EQ(UvcPassThroughSet(*camera, buffer, length), STATUS_BUFFER_OVERFLOW) << length;
    EXPECT_EQ(UvcPassThroughGet(*camera, buffer, 9, answer, 8, transferred), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(UvcPassThroughGet(*camera, buffer, 10, answer, 3, transferred), STATUS_BUFFER_OVERFLOW);
    EXPECT_FALSE(seen);
    EXPECT_EQ(UvcPassThroughSet(*camera, buffer, 14), STATUS_SUCCESS);
    EXPECT_EQ(seen->Hdr.Function, URB_FUNCTION_VENDOR_ENDPOINT);
    EXPECT_TRUE(seen->Value == 0x2211 && seen->Index == 0x4433);
    EXPECT_EQ(sent, (std::vector<UCHAR>{5, 6, 7, 8}));
    buffer[2] = 0;
    available = 3; // the device has less than was asked for
    EXPECT_EQ(UvcPassThroughGet(*camera, buffer, 10, answer, 4, transferred), STATUS_SUCCESS);
    EXPECT_EQ(transferred, 3u);
    EXPECT_TRUE(answer[2] == 0xA2 && answer[3] == 0);
}

} // namespace
} // namespace uvc::usb_test
