#include "tests/usb/lower_driver.h"
#include "tests/usb/stream_parts.h"
#include "usb/probe_commit.h"
#include "usb/uvc_request.h"

#include <cstring>
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
            for (ULONG i = 0; i < urb.TransferBufferLength; ++i) {
                if ((urb.TransferFlags & USBD_TRANSFER_DIRECTION_IN) != 0)
                    data[i] = static_cast<UCHAR>(0xA0 + i);
                sent.push_back(data[i]);
            }
            return lower.Finish(request, status);
        };
    }

    host::Runtime runtime;
    LowerDriver lower;
    RecordingSink sink;
    std::unique_ptr<UvcCamera, CameraDeleter> camera = NewCamera<UvcCamera>(lower.Device(), sink);
    ULONG available = 64;
    NTSTATUS status = STATUS_SUCCESS;
    std::optional<_URB_CONTROL_VENDOR_OR_CLASS_REQUEST> seen;
    std::vector<UCHAR> sent;
};

TEST_F(UvcRequestTest, TheUrbFollowsFromTheRequest) {
    constexpr USHORT kFunctions[2][5] = {{0x1A, 0x1B, 0x1C, 0x1F, 0xFFFF}, {0x17, 0x18, 0x19, 0x20, 0xFFFF}};
    for (UCHAR vendor : {0, 1}) {
        for (UCHAR recipient = 0; recipient < 5; ++recipient) {
            for (UCHAR out : {0, 1}) {
                UCHAR data[4] = {1, 2, 3, 4};
                ULONG transferred = 99;
                UvcControlRequest request{.out = out,
                                          .vendor = static_cast<UCHAR>(vendor * 7), // any value but 0
                                          .recipient = recipient,
                                          .request = 0x42,
                                          .value = 0xB0C4,
                                          .index = 0x2E71,
                                          .length = sizeof(data),
                                          .data = data};
                EXPECT_EQ(UvcSendControlRequest(*camera, request, transferred), STATUS_SUCCESS);
                EXPECT_EQ(seen->Hdr.Length, 136);
                EXPECT_EQ(seen->Hdr.Function, kFunctions[vendor][recipient]);
                EXPECT_EQ(seen->TransferFlags, out != 0 ? 0u : 1u);
                EXPECT_EQ(seen->Request, 0x42);
                EXPECT_EQ(seen->Value, 0xB0C4);
                EXPECT_EQ(seen->Index, 0x2E71);
                EXPECT_EQ(transferred, 4u);
            }
        }
    }
}

TEST_F(UvcRequestTest, FailuresReportNoBytesAndTimeoutsAreFailures) {
    UCHAR data[4];
    const UvcControlRequest request{.recipient = kRecipientInterface, .request = kGetCur, .length = 4, .data = data};
    ULONG transferred = 99;
    status = STATUS_UNSUCCESSFUL;
    EXPECT_EQ(UvcSendControlRequest(*camera, request, transferred), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(transferred, 0u);

    lower.answer = [&](const LowerDriver::Request &held) { return lower.Hold(held); };
    const std::pair<LONG, LONGLONG> timeouts[] = {{1000, 1000}, {250, 250}, {-1, 1000}, {-5000, 1000}};
    for (auto [parameter, milliseconds] : timeouts) {
        camera->parameters.controlTimeoutMs = parameter;
        const host::Ticks start = runtime.Now();
        EXPECT_EQ(UvcSendControlRequest(*camera, request, transferred), STATUS_IO_TIMEOUT);
        EXPECT_EQ((runtime.Now() - start) / host::kTicksPerMillisecond, milliseconds) << parameter;
    }
    auto loose = NewCamera<UvcCamera>(nullptr, sink);
    EXPECT_EQ(UvcSendControlRequest(*loose, request, transferred), STATUS_INVALID_HANDLE);
}

TEST_F(UvcRequestTest, UnitRequestsAddressAnEntityOfTheControlInterface) {
    UCHAR buffer[16] = {kGetCur, 9, 9, 9, 3, 0, 9, 9};
    ULONG transferred = 0;
    EXPECT_EQ(UvcUnitRequest(*camera, buffer, 5, 0x0B, transferred), STATUS_SUCCESS);
    EXPECT_EQ(seen->Hdr.Function, URB_FUNCTION_CLASS_INTERFACE);
    EXPECT_EQ(seen->TransferFlags, 1u);
    EXPECT_EQ(seen->Request, 0x81);
    EXPECT_EQ(seen->Value, 0x0B00);
    EXPECT_EQ(seen->Index, 0x0500);
    EXPECT_EQ(transferred, 3u);
    EXPECT_EQ(buffer[8], 0xA0);
    EXPECT_EQ(buffer[10], 0xA2);
    EXPECT_EQ(buffer[11], 0);
    buffer[0] = kSetCur;
    sent.clear();
    EXPECT_EQ(UvcUnitRequest(*camera, buffer, 5, 0x0B, transferred), STATUS_SUCCESS);
    EXPECT_EQ(seen->TransferFlags, 0u);
    EXPECT_EQ(sent, (std::vector<UCHAR>{0xA0, 0xA1, 0xA2}));
}

TEST_F(UvcRequestTest, EntitiesAreFoundByKind) {
    UCHAR id = 9;
    EXPECT_EQ(UvcGetEntityId(*camera, kProcessingUnit, id), STATUS_NOT_IMPLEMENTED); // nothing is parsed yet
    const UCHAR terminal[] = {18, 0x24, 2, 31}, processing[] = {11, 0x24, 5, 32}, extension[] = {26, 0x24, 6, 33};
    camera->descriptors = decltype(camera->descriptors)::Allocate(PagedPool);
    *camera->descriptors = {.cameraTerminal = terminal, .processingUnit = processing, .extensionUnit = extension};
    const std::pair<ULONG, int> kinds[] = {{2, 31}, {5, 32}, {6, 33}, {3, 0}, {4, 0}};
    for (auto [kind, expected] : kinds) {
        EXPECT_EQ(UvcGetEntityId(*camera, kind, id), STATUS_SUCCESS);
        EXPECT_EQ(id, expected);
    }
    camera->descriptors->cameraTerminal = nullptr;
    EXPECT_EQ(UvcGetEntityId(*camera, kInputTerminal, id), STATUS_NOT_IMPLEMENTED);
    EXPECT_EQ(id, 0);
}

TEST_F(UvcRequestTest, PassThroughChecksItsBufferBeforeAnythingIsSent) {
    //                vendor recipient out request value       index       length
    UCHAR buffer[14] = {1, 2, 1, 0x33, 0x11, 0x22, 0x33, 0x44, 4, 0, 5, 6, 7, 8};
    for (ULONG length : {0u, 9u, 10u, 13u})
        EXPECT_EQ(UvcPassThroughSet(*camera, buffer, length), STATUS_BUFFER_OVERFLOW) << length;
    EXPECT_FALSE(seen);
    EXPECT_EQ(UvcPassThroughSet(*camera, buffer, 14), STATUS_SUCCESS);
    EXPECT_EQ(seen->Hdr.Function, URB_FUNCTION_VENDOR_ENDPOINT);
    EXPECT_EQ(seen->Value, 0x2211);
    EXPECT_EQ(seen->Index, 0x4433);
    EXPECT_EQ(sent, (std::vector<UCHAR>{5, 6, 7, 8}));

    buffer[2] = 0;
    UCHAR answer[8] = {};
    ULONG information = 99;
    seen.reset();
    EXPECT_EQ(UvcPassThroughGet(*camera, buffer, 9, answer, 8, information), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(UvcPassThroughGet(*camera, buffer, 10, answer, 3, information), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(information, 0u);
    EXPECT_FALSE(seen);
    available = 3; // the device has less than was asked for
    EXPECT_EQ(UvcPassThroughGet(*camera, buffer, 10, answer, 4, information), STATUS_SUCCESS);
    EXPECT_EQ(information, 3u);
    EXPECT_EQ(answer[2], 0xA2);
    EXPECT_EQ(answer[3], 0);
}

} // namespace
} // namespace uvc::usb_test
