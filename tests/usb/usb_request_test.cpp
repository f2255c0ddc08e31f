#include "tests/usb/lower_driver.h"
#include "usb/device_link.h"
#include "usb/usb_request.h"

#include <optional>

namespace uvc::usb_test {
namespace {

using Request = LowerDriver::Request;

class UsbRequestTest : public testing::Test {
  protected:
    NTSTATUS Submit() {
        _URB_PIPE_REQUEST urb{.Hdr = {.Length = sizeof(urb), .Function = URB_FUNCTION_ABORT_PIPE}};
        return UsbSubmitUrb(lower.Device(), reinterpret_cast<URB *>(&urb), kUsbRequestTimeoutMs);
    }
    void HoldEverything() {
        lower.answer = [this](const Request &request) { return lower.Hold(request); };
    }
    // Answers every descriptor request with the characters as a string descriptor that claims `length` bytes.
    void AnswerString(const std::u16string &text, UCHAR length) {
        lower.answer = [this, text, length](const Request &request) {
            auto &urb = request.urb->UrbControlDescriptorRequest;
            requested = urb;
            const std::u16string words = static_cast<char16_t>(0x0300 | length) + text;
            urb.TransferBufferLength = std::min<ULONG>(urb.TransferBufferLength, static_cast<ULONG>(2 * words.size()));
            RtlCopyMemory(urb.TransferBuffer, words.data(), urb.TransferBufferLength);
            return lower.Finish(request, STATUS_SUCCESS);
        };
    }

    host::Runtime runtime;
    LowerDriver lower;
    std::optional<_URB_CONTROL_DESCRIPTOR_REQUEST> requested;
    WCHAR buffer[64] = {};
    UNICODE_STRING text{.Length = 0, .MaximumLength = sizeof(buffer), .Buffer = buffer};
};

// The request is completed exactly once and is back before the call returns, whoever comes first: the cancel routine
// from inside IoCancelIrp, the bus later, or the bus at the very time at which the waiter loses patience.
TEST_F(UsbRequestTest, ATimeoutCancelsAndWaitsForTheRequest) {
    struct Case {
        bool cancellable;
        LONGLONG completesAtMs; // 0: never of itself
        bool mayTimeOut, mayBeInTime;
    };
    for (const Case &c : {Case{true, 999, false, true}, Case{true, 0, true, false}, Case{false, 1500, true, false},
                          Case{true, 1000, true, true}, Case{false, 1000, true, true}}) {
        lower.cancellable = c.cancellable;
        HoldEverything();
        std::optional<host::AttachedThread> bus;
        if (c.completesAtMs != 0)
            bus.emplace("bus", [&] {
                SleepMs(c.completesAtMs);
                if (lower.HeldCount() != 0)
                    lower.Finish(lower.TakeHeld(), STATUS_DEVICE_NOT_CONNECTED);
            });
        const host::Ticks start = runtime.Now();
        const NTSTATUS status = Submit();
        EXPECT_TRUE((c.mayTimeOut && status == STATUS_TIMEOUT) ||
                    (c.mayBeInTime && status == STATUS_DEVICE_NOT_CONNECTED))
            << std::hex << status;
        EXPECT_EQ(lower.HeldCount(), 0u);
        EXPECT_EQ((runtime.Now() - start) / host::kTicksPerMillisecond, c.completesAtMs != 0 ? c.completesAtMs : 1000);
        bus.reset();
    }
    // Whoever goes on to use an answer hears of a time-out as a failure.
    lower.cancellable = true;
    USB_DEVICE_DESCRIPTOR descriptor;
    EXPECT_EQ(UsbGetDeviceDescriptor(lower.Device(), &descriptor), STATUS_IO_TIMEOUT);
    EXPECT_EQ(UsbPipeRequest(lower.Device(), nullptr, URB_FUNCTION_ABORT_PIPE), STATUS_IO_TIMEOUT);
    EXPECT_EQ(UsbGetDeviceDescriptor(lower.Device(), nullptr), STATUS_INVALID_PARAMETER);
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
        {u"Camera", 9, 128, STATUS_SUCCESS, u"Cam"},          // rounded down
        {u"Camera", 255, 128, STATUS_SUCCESS, u"Camera"},     // more is claimed than sent
        {u"x", 4, 128, STATUS_SUCCESS, u"DEADBEEF"},          // a single character
        {u"", 2, 128, STATUS_SUCCESS, u""},                   //
        {longest, 124, 128, STATUS_SUCCESS, longest},         // the terminator stands behind the descriptor
        {longest + u"yy", 128, 128, STATUS_SUCCESS, longest}, // no more than was asked for
        {u"Camera", 14, 7, STATUS_INVALID_PARAMETER, u""},    // an odd capacity
    };
    for (const Case &c : cases) {
        AnswerString(c.sent, c.length);
        text = {.Length = 0, .MaximumLength = c.capacity, .Buffer = buffer};
        EXPECT_EQ(UsbGetStringDescriptor(lower.Device(), 5, &text), c.status) << int{c.length};
        EXPECT_EQ(std::u16string(reinterpret_cast<char16_t *>(buffer), text.Length / 2), c.text) << int{c.length};
        EXPECT_TRUE(requested->DescriptorType == 3 && requested->Index == 5 && requested->LanguageId == 9);
    }
}

TEST_F(UsbRequestTest, SaysWhyAStringCouldNotBeRead) {
    lower.answer = [&](const Request &request) {
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
    AnswerString(u"text", 10);
    UsbDeviceLink link(lower.Device());
    EXPECT_EQ(UsbGetDeviceString(link, kProductString, &text), STATUS_DEVICE_CONFIGURATION_ERROR);
    link.deviceDescriptor = decltype(link.deviceDescriptor)::Allocate(NonPagedPool);
    link.deviceDescriptor->iManufacturer = 21;
    link.deviceDescriptor->iProduct = 22;
    for (auto [id, index] : {std::pair<ULONG, int>{256, 21}, {258, 22}, {259, 3}, {7, 7}, {257, 0}}) {
        requested.reset();
        EXPECT_EQ(UsbGetDeviceString(link, id, &text), STATUS_SUCCESS);
        EXPECT_EQ(requested ? requested->Index : 0, index) << id;
        EXPECT_EQ(text.Length, index != 0 ? 8 : 0) << id; // index 0: the device has no such string
    }
}

TEST_F(UsbRequestTest, PipeRequestsShowOnlyBusyAndFailedSubmissions) {
    constexpr NTSTATUS kBusy = USBD_STATUS_ERROR_BUSY;
    struct Case {
        NTSTATUS status;
        USBD_STATUS usbd;
        NTSTATUS expected;
    };
    const Case cases[] = {{STATUS_SUCCESS, USBD_STATUS_SUCCESS, STATUS_SUCCESS},
                          {STATUS_SUCCESS, USBD_STATUS_STALL_PID, STATUS_SUCCESS},
                          {STATUS_UNSUCCESSFUL, USBD_STATUS_STALL_PID, STATUS_UNSUCCESSFUL},
                          {STATUS_UNSUCCESSFUL, kBusy, kBusy},
                          {STATUS_SUCCESS, kBusy, kBusy}};
    USBD_PIPE_INFORMATION pipe{.PipeHandle = &pipe};
    for (const Case &c : cases) {
        lower.answer = [&](const Request &request) {
            EXPECT_EQ(request.urb->UrbHeader.Length, 40);
            EXPECT_EQ(request.Function(), 30);
            EXPECT_EQ(request.urb->UrbPipeRequest.PipeHandle, &pipe);
            return lower.Finish(request, c.status, c.usbd);
        };
        EXPECT_EQ(UsbPipeRequest(lower.Device(), &pipe, URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL), c.expected);
    }
    EXPECT_EQ(UsbPipeRequest(nullptr, &pipe, URB_FUNCTION_ABORT_PIPE), STATUS_INVALID_HANDLE);
}

} // namespace
} // namespace uvc::usb_test
