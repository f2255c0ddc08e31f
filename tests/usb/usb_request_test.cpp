#include "tests/usb/lower_driver.h"
#include "usb/device_link.h"
#include "usb/usb_request.h"

#include <optional>

namespace uvc::usb_test {
namespace {

using Bytes = std::vector<UCHAR>;

class UsbRequestTest : public testing::Test {
  protected:
    NTSTATUS Submit(LONG timeoutMs = kUsbRequestTimeoutMs) {
        _URB_PIPE_REQUEST urb{};
        urb.Hdr.Length = sizeof(urb);
        urb.Hdr.Function = URB_FUNCTION_ABORT_PIPE;
        return UsbSubmitUrb(lower.Device(), reinterpret_cast<URB *>(&urb), timeoutMs);
    }
    // Answers every descriptor request with these bytes.
    void AnswerDescriptor(Bytes bytes) {
        lower.answer = [this, bytes = std::move(bytes)](const LowerDriver::Request &request) {
            auto &urb = request.urb->UrbControlDescriptorRequest;
            requested = urb;
            const auto length = std::min<ULONG>(urb.TransferBufferLength, static_cast<ULONG>(bytes.size()));
            RtlCopyMemory(urb.TransferBuffer, bytes.data(), length);
            urb.TransferBufferLength = length;
            return lower.Finish(request, STATUS_SUCCESS);
        };
    }

    host::Runtime runtime;
    LowerDriver lower;
    std::optional<_URB_CONTROL_DESCRIPTOR_REQUEST> requested;
};

TEST_F(UsbRequestTest, ReturnsTheStatusOfTheRequestWhetherItPendsOrNot) {
    for (NTSTATUS status : {STATUS_SUCCESS, STATUS_UNSUCCESSFUL, STATUS_DEVICE_NOT_CONNECTED}) {
        lower.answer = [&](const LowerDriver::Request &request) { return lower.Finish(request, status); };
        EXPECT_EQ(Submit(), status);
        lower.answer = [&](const LowerDriver::Request &request) { return lower.Hold(request); };
        host::AttachedThread bus("bus", [&] {
            SleepMs(999);
            lower.Finish(lower.TakeHeld(), status);
        });
        EXPECT_EQ(Submit(), status);
    }
}

// The request is completed exactly once and is back before the call returns, whoever comes first: the cancel routine
// from inside IoCancelIrp, the bus later, or the bus at the very time at which the waiter loses patience.
TEST_F(UsbRequestTest, ATimeoutCancelsAndWaitsForTheRequest) {
    struct Case {
        bool cancellable;
        LONGLONG completesAtMs; // 0: never of itself
        bool mayBeInTime;
    };
    for (const Case &c :
         {Case{true, 0, false}, Case{false, 1500, false}, Case{true, 1000, true}, Case{false, 1000, true}}) {
        lower.cancellable = c.cancellable;
        lower.answer = [&](const LowerDriver::Request &request) { return lower.Hold(request); };
        std::optional<host::AttachedThread> bus;
        if (c.completesAtMs != 0)
            bus.emplace("bus", [&] {
                SleepMs(c.completesAtMs);
                if (lower.HeldCount() != 0)
                    lower.Finish(lower.TakeHeld(), STATUS_SUCCESS);
            });
        const host::Ticks start = runtime.Now();
        const NTSTATUS status = Submit(1000);
        EXPECT_TRUE(status == STATUS_TIMEOUT || (c.mayBeInTime && status == STATUS_SUCCESS)) << std::hex << status;
        EXPECT_EQ(lower.HeldCount(), 0u);
        EXPECT_EQ((runtime.Now() - start) / host::kTicksPerMillisecond, std::max(c.completesAtMs, 1000ll));
        bus.reset();
    }
    lower.cancellable = true;
    lower.answer = [&](const LowerDriver::Request &request) { return lower.Hold(request); };
    USB_DEVICE_DESCRIPTOR descriptor;
    EXPECT_EQ(UsbGetDeviceDescriptor(lower.Device(), &descriptor), STATUS_IO_TIMEOUT);
    EXPECT_EQ(UsbPipeRequest(lower.Device(), nullptr, URB_FUNCTION_ABORT_PIPE), STATUS_IO_TIMEOUT);
}

TEST_F(UsbRequestTest, AsksForTheDeviceDescriptorInOneRequest) {
    Bytes bytes(18);
    bytes[0] = 18;
    bytes[10] = 0x34;
    bytes[11] = 0x12;
    AnswerDescriptor(bytes);
    USB_DEVICE_DESCRIPTOR descriptor{};
    EXPECT_EQ(UsbGetDeviceDescriptor(lower.Device(), &descriptor), STATUS_SUCCESS);
    EXPECT_EQ(descriptor.idProduct, 0x1234);
    EXPECT_EQ(requested->Hdr.Function, 0x000B);
    EXPECT_EQ(requested->DescriptorType, 1);
    EXPECT_EQ(UsbGetDeviceDescriptor(lower.Device(), nullptr), STATUS_INVALID_PARAMETER);
}

Bytes StringDescriptor(const std::u16string &text, UCHAR length) {
    Bytes bytes{length, 3};
    for (char16_t character : text)
        bytes.insert(bytes.end(), {static_cast<UCHAR>(character), static_cast<UCHAR>(character >> 8)});
    return bytes;
}

TEST_F(UsbRequestTest, ReadsStringsOfEveryLength) {
    const std::u16string longest(61, u'x');
    struct Case {
        std::u16string sent;
        UCHAR length; // bLength as the device claims it
        USHORT capacity;
        NTSTATUS status;
        std::u16string text;
    };
    const Case cases[] = {
        {u"Camera", 14, 128, STATUS_SUCCESS, u"Camera"},
        {u"Camera", 14, 8, STATUS_BUFFER_OVERFLOW, u"Came"},
        {u"Camera", 8, 128, STATUS_SUCCESS, u"Cam"},          // ends at bLength, whatever follows
        {u"Camera", 9, 128, STATUS_SUCCESS, u"Cam"},          // an odd bLength is rounded down
        {u"Camera", 255, 128, STATUS_SUCCESS, u"Camera"},     // more is claimed than sent
        {u"x", 4, 128, STATUS_SUCCESS, u"DEADBEEF"},          // a single character
        {u"x", 4, 6, STATUS_BUFFER_OVERFLOW, u"DEA"},         //
        {u"", 2, 128, STATUS_SUCCESS, u""},                   //
        {longest, 124, 128, STATUS_SUCCESS, longest},         // the terminator stands behind the descriptor
        {longest + u"yy", 128, 128, STATUS_SUCCESS, longest}, // no more than was asked for
        {u"Camera", 14, 7, STATUS_INVALID_PARAMETER, u""},    // an odd capacity
    };
    for (const Case &c : cases) {
        AnswerDescriptor(StringDescriptor(c.sent, c.length));
        WCHAR buffer[64] = {};
        UNICODE_STRING text{.Length = 0, .MaximumLength = c.capacity, .Buffer = buffer};
        EXPECT_EQ(UsbGetStringDescriptor(lower.Device(), 5, &text), c.status) << int{c.length};
        EXPECT_EQ(std::u16string(reinterpret_cast<char16_t *>(buffer), text.Length / 2), c.text) << int{c.length};
        EXPECT_EQ(requested->DescriptorType, 3);
        EXPECT_EQ(requested->Index, 5);
        EXPECT_EQ(requested->LanguageId, 9);
    }
}

TEST_F(UsbRequestTest, SaysWhyAStringCouldNotBeRead) {
    WCHAR buffer[8];
    UNICODE_STRING text{.Length = 0, .MaximumLength = sizeof(buffer), .Buffer = buffer};
    lower.answer = [&](const LowerDriver::Request &request) {
        return lower.Finish(request, STATUS_UNSUCCESSFUL, USBD_STATUS_STALL_PID);
    };
    EXPECT_EQ(UsbGetStringDescriptor(lower.Device(), 7, &text), STATUS_UNSUCCESSFUL);
    for (int failing : {1, 2}) {
        runtime.Arm(host::FaultPlan().FailNth(host::FaultSite::PoolAllocation, failing));
        EXPECT_EQ(UsbGetStringDescriptor(lower.Device(), 7, &text), STATUS_INSUFFICIENT_RESOURCES);
    }
    EXPECT_EQ(runtime.DebugLog(), "Failed to retrieve string descriptor for index 7, langID 0x9\n"
                                  "Failed to allocate USD\nFailed to allocate urb\n");
}

TEST_F(UsbRequestTest, FindsDeviceStringsByPurposeOrIndex) {
    AnswerDescriptor(StringDescriptor(u"text", 10));
    UsbDeviceLink link(lower.Device());
    WCHAR buffer[8];
    UNICODE_STRING text{.Length = 0, .MaximumLength = sizeof(buffer), .Buffer = buffer};
    EXPECT_EQ(UsbGetDeviceString(link, kProductString, &text), STATUS_DEVICE_CONFIGURATION_ERROR);
    link.deviceDescriptor = decltype(link.deviceDescriptor)::Allocate(NonPagedPool);
    link.deviceDescriptor->iManufacturer = 21;
    link.deviceDescriptor->iProduct = 22;
    const std::pair<ULONG, int> cases[] = {{256, 21}, {258, 22}, {259, 3}, {7, 7}, {257, 0}};
    for (auto [id, index] : cases) {
        requested.reset();
        EXPECT_EQ(UsbGetDeviceString(link, id, &text), STATUS_SUCCESS);
        EXPECT_EQ(requested ? requested->Index : 0, index) << id;
        EXPECT_EQ(text.Length, index != 0 ? 8 : 0) << id; // index 0: the device has no such string
    }
}

TEST_F(UsbRequestTest, PipeRequestsShowOnlyBusyAndFailedSubmissions) {
    struct Case {
        NTSTATUS status;
        USBD_STATUS usbd;
        NTSTATUS expected;
    };
    const Case cases[] = {
        {STATUS_SUCCESS, USBD_STATUS_SUCCESS, STATUS_SUCCESS},
        {STATUS_SUCCESS, USBD_STATUS_STALL_PID, STATUS_SUCCESS},
        {STATUS_UNSUCCESSFUL, USBD_STATUS_STALL_PID, STATUS_UNSUCCESSFUL},
        {STATUS_UNSUCCESSFUL, USBD_STATUS_ERROR_BUSY, USBD_STATUS_ERROR_BUSY},
        {STATUS_SUCCESS, USBD_STATUS_ERROR_BUSY, USBD_STATUS_ERROR_BUSY},
    };
    USBD_PIPE_INFORMATION pipe{.PipeHandle = &pipe};
    for (const Case &c : cases) {
        for (const USBD_PIPE_INFORMATION *asked : {&pipe, static_cast<USBD_PIPE_INFORMATION *>(nullptr)}) {
            lower.answer = [&](const LowerDriver::Request &request) {
                EXPECT_EQ(request.urb->UrbHeader.Length, 40);
                EXPECT_EQ(request.Function(), 30);
                EXPECT_EQ(request.urb->UrbPipeRequest.PipeHandle, asked != nullptr ? asked->PipeHandle : nullptr);
                return lower.Finish(request, c.status, c.usbd);
            };
            EXPECT_EQ(UsbPipeRequest(lower.Device(), asked, URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL), c.expected);
        }
    }
    EXPECT_EQ(UsbPipeRequest(nullptr, &pipe, URB_FUNCTION_ABORT_PIPE), STATUS_INVALID_HANDLE);
}

TEST_F(UsbRequestTest, InternalControlCodesAreWaitedForWithoutTimeout) {
    lower.answer = [&](const LowerDriver::Request &request) {
        EXPECT_EQ(request.code, 0x220007u);
        return lower.Hold(request);
    };
    host::AttachedThread bus("bus", [&] {
        SleepMs(30'000);
        lower.Finish(lower.TakeHeld(), STATUS_NO_SUCH_DEVICE);
    });
    EXPECT_EQ(UsbSendInternalIoctl(lower.Device(), IOCTL_INTERNAL_USB_RESET_PORT), STATUS_NO_SUCH_DEVICE);
}

} // namespace
} // namespace uvc::usb_test
