#include "platform/shared_field.h"
#include "tests/usb/lower_driver.h"
#include "usb/bulk_engine.h"
#include "usb/usb_request.h"

#include <memory>
#include <optional>

namespace uvc::usb_test {
namespace {

using Request = LowerDriver::Request;

constexpr ULONG kTransfers = 3;

// The engine above a bus that holds bulk requests until the test finishes them.
class BulkEngineTest : public testing::Test {
  protected:
    BulkEngineTest() {
        active = this;
        lower.answer = [this](const Request &request) { return Answer(request); };
        // The engine never looks into its owner.
        engine.reset(BulkEngineCreate(*reinterpret_cast<UvcCamera *>(this), lower.Device(), lower.Device(), &pipe,
                                      OnPayload, false));
    }
    ~BulkEngineTest() override { engine.reset(); }

    NTSTATUS Answer(const Request &request) {
        switch (request.Function()) {
        case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER:
            if (refuseBulk != 0 && --refuseBulk == 0)
                return lower.Finish(request, STATUS_DEVICE_NOT_CONNECTED, USBD_STATUS_DEVICE_GONE);
            return lower.Hold(request);
        case URB_FUNCTION_ABORT_PIPE:
            lower.Log("abort");
            while (lower.HeldCount() != 0)
                lower.Finish(lower.TakeHeld(), STATUS_CANCELLED, USBD_STATUS_CANCELED);
            return lower.Finish(request, STATUS_SUCCESS);
        case URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL:
            lower.Log("reset");
            return lower.Finish(request, Next(resets));
        default:
            EXPECT_EQ(request.code, static_cast<ULONG>(IOCTL_INTERNAL_USB_RESET_PORT));
            lower.Log("port");
            return lower.Finish(request, Next(portResets));
        }
    }
    static NTSTATUS Next(std::vector<NTSTATUS> &script) {
        if (script.empty())
            return STATUS_SUCCESS;
        NTSTATUS status = script.front();
        script.erase(script.begin());
        return status;
    }
    // The bus finishes its oldest bulk request.
    void Deliver(NTSTATUS status = STATUS_SUCCESS, USBD_STATUS usbd = USBD_STATUS_SUCCESS, ULONG length = 100) {
        Request request = lower.TakeHeld();
        request.urb->UrbBulkOrInterruptTransfer.TransferBufferLength = length;
        lower.Finish(request, status, usbd);
    }
    static NTSTATUS OnPayload(BulkStreamEngine &, BulkTransfer &transfer, UvcCamera &, const UCHAR *buffer,
                              ULONG length) {
        EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
        EXPECT_EQ(buffer, transfer.buffer);
        active->received.push_back(length);
        active->last = &transfer;
        return active->verdict;
    }
    void Start(ULONG size = 1024, ULONG count = kTransfers) {
        ASSERT_EQ(BulkEngineStart(*engine, size, count), STATUS_SUCCESS);
        ASSERT_EQ(lower.HeldCount(), std::min<std::size_t>(count, engine->transferCount));
        lower.TakeLog();
    }
    bool ResetIsOver() { return InterlockedCompareExchange(&engine->resetPending, 0, 0) == 0; }
    void AwaitReset() {
        while (!ResetIsOver())
            SleepMs(1);
    }

    static inline BulkEngineTest *active = nullptr;
    host::Runtime runtime;
    LowerDriver lower;
    USBD_PIPE_INFORMATION pipe{.MaximumPacketSize = 512, .EndpointAddress = 0x81, .PipeHandle = &pipe};
    std::unique_ptr<BulkStreamEngine, void (*)(BulkStreamEngine *)> engine{nullptr, BulkEngineDestroy};
    NTSTATUS verdict = STATUS_SUCCESS;
    std::vector<ULONG> received;
    BulkTransfer *last = nullptr;
    std::vector<NTSTATUS> resets, portResets;
    int refuseBulk = 0; // the n-th bulk request fails at once
};

TEST_F(BulkEngineTest, SubmitsEveryTransferAfterAPipeReset) {
    for (auto [size, expected] : {std::pair<ULONG, ULONG>{0, 4096}, {100'000, 100'000}}) {
        EXPECT_EQ(BulkEngineStart(*engine, size, kTransfers), STATUS_SUCCESS);
        EXPECT_EQ(lower.TakeLog(), "reset");
        EXPECT_EQ(BulkEngineStart(*engine, size, kTransfers), STATUS_SUCCESS); // started already: nothing happens
        ASSERT_EQ(lower.HeldCount(), kTransfers);
        Request request = lower.TakeHeld();
        const auto &urb = request.urb->UrbBulkOrInterruptTransfer;
        EXPECT_EQ(urb.Hdr.Length, 128);
        EXPECT_EQ(urb.PipeHandle, pipe.PipeHandle);
        EXPECT_EQ(urb.TransferFlags, 3u);
        EXPECT_EQ(urb.TransferBufferLength, expected);
        EXPECT_EQ(urb.TransferBuffer, nullptr);
        EXPECT_EQ(MmGetMdlByteCount(urb.TransferBufferMDL), expected);
        EXPECT_EQ(request.irp->StackCount, lower.Device()->StackSize + 1);
        lower.Finish(request, STATUS_CANCELLED, USBD_STATUS_CANCELED);
        EXPECT_EQ(BulkEngineStop(*engine), STATUS_SUCCESS);
        EXPECT_EQ(lower.TakeLog(), "abort");
        EXPECT_EQ(BulkEngineStop(*engine), STATUS_SUCCESS);
        EXPECT_EQ(lower.TakeLog(), "");
    }
}

TEST_F(BulkEngineTest, TheVerdictDecidesWhatBecomesOfATransfer) {
    struct Case {
        NTSTATUS status;
        USBD_STATUS usbd;
        NTSTATUS verdict;
        bool called, resubmitted;
    };
    const Case cases[] = {
        {STATUS_SUCCESS, USBD_STATUS_SUCCESS, STATUS_SUCCESS, true, true},
        {STATUS_SUCCESS, USBD_STATUS_SUCCESS, STATUS_CANCELLED, true, false},
        {STATUS_SUCCESS, USBD_STATUS_SUCCESS, STATUS_UNSUCCESSFUL, true, false},
        {STATUS_SUCCESS, USBD_STATUS_SUCCESS, STATUS_MORE_PROCESSING_REQUIRED, true, false},
        {STATUS_UNSUCCESSFUL, USBD_STATUS_STALL_PID, STATUS_SUCCESS, false, false},
        {STATUS_SUCCESS, USBD_STATUS_CRC, STATUS_SUCCESS, false, false},
        {STATUS_CANCELLED, USBD_STATUS_SUCCESS, STATUS_SUCCESS, false, false},
    };
    for (const Case &c : cases) {
        Start();
        verdict = c.verdict;
        received.clear();
        Deliver(c.status, c.usbd, 77);
        EXPECT_EQ(received, c.called ? std::vector<ULONG>{77} : std::vector<ULONG>{}) << &c - cases;
        EXPECT_EQ(lower.HeldCount(), c.resubmitted ? kTransfers : kTransfers - 1) << &c - cases;
        if (c.verdict == STATUS_MORE_PROCESSING_REQUIRED) {
            BulkEngineHandBack(*engine, *last);
            EXPECT_EQ(lower.HeldCount(), kTransfers);
        }
        EXPECT_EQ(BulkEngineStop(*engine), STATUS_SUCCESS);
        EXPECT_EQ(lower.TakeLog(), "abort");
    }
}

TEST_F(BulkEngineTest, ClearsTheBufferBeforeEverySubmissionWhenAsked) {
    for (bool zero : {false, true}) {
        Start(64, 1);
        SharedStore(engine->zeroBuffers, zero);
        memset(engine->transfers[0].buffer, 0xAB, 64);
        Deliver();
        EXPECT_EQ(engine->transfers[0].buffer[63], zero ? 0 : 0xAB);
        BulkEngineStop(*engine);
    }
}

TEST_F(BulkEngineTest, ATransferKeptWhileStoppingIsDoneWhenItIsHandedBack) {
    Start();
    verdict = STATUS_MORE_PROCESSING_REQUIRED;
    InterlockedExchange(&engine->stopping, 1); // a stop has begun on another processor
    Deliver();
    EXPECT_EQ(KeReadStateEvent(&last->done), 0);
    BulkEngineHandBack(*engine, *last);
    EXPECT_NE(KeReadStateEvent(&last->done), 0);
    BulkEngineStop(*engine);
}

TEST_F(BulkEngineTest, StopWaitsForATransferThatAConsumerKeeps) {
    Start();
    verdict = STATUS_MORE_PROCESSING_REQUIRED;
    Deliver();
    bool handedBack = false;
    host::AttachedThread consumer("consumer", [&] {
        SleepMs(200);
        handedBack = true;
        BulkEngineHandBack(*engine, *last);
    });
    BulkEngineStop(*engine);
    EXPECT_TRUE(handedBack);
    EXPECT_EQ(lower.HeldCount(), 0u); // not resubmitted: the engine was stopping
}

TEST_F(BulkEngineTest, BabbleBringsOneResetAndEveryTransferBack) {
    Start();
    Deliver(STATUS_UNSUCCESSFUL, USBD_STATUS_STALL_PID); // retired
    KIRQL level;                                         // at DISPATCH_LEVEL no work item can run between the two
    KeRaiseIrql(DISPATCH_LEVEL, &level);
    Deliver(STATUS_UNSUCCESSFUL, USBD_STATUS_BABBLE_DETECTED);
    Deliver(STATUS_UNSUCCESSFUL, USBD_STATUS_BABBLE_DETECTED);
    KeLowerIrql(level);
    AwaitReset();
    EXPECT_EQ(lower.TakeLog(), "abort reset");
    EXPECT_EQ(lower.HeldCount(), kTransfers); // the retired one too, and none twice
    BulkEngineStop(*engine);
}

TEST_F(BulkEngineTest, AResetWaitsForKeptTransfersAndKeepsOthersOffTheBus) {
    Start();
    verdict = STATUS_MORE_PROCESSING_REQUIRED;
    Deliver();
    BulkTransfer *kept = last;
    verdict = STATUS_SUCCESS;
    KIRQL level;
    KeRaiseIrql(DISPATCH_LEVEL, &level);
    Deliver(STATUS_UNSUCCESSFUL, USBD_STATUS_BABBLE_DETECTED);
    Deliver(); // succeeds, but a reset is pending
    KeLowerIrql(level);
    EXPECT_EQ(lower.HeldCount(), 0u);
    SleepMs(100);
    EXPECT_EQ(lower.TakeLog(), "abort");
    EXPECT_FALSE(ResetIsOver());
    BulkEngineHandBack(*engine, *kept);
    AwaitReset();
    EXPECT_EQ(lower.TakeLog(), "reset");
    EXPECT_EQ(lower.HeldCount(), kTransfers);
    BulkEngineStop(*engine);
}

TEST_F(BulkEngineTest, AFailedPipeResetIsFollowedByAPortReset) {
    constexpr NTSTATUS kBusy = USBD_STATUS_ERROR_BUSY;
    struct Case {
        std::vector<NTSTATUS> resets, portResets;
        const char *log;
        LONGLONG delayMs;
        bool recovers;
    };
    const Case cases[] = {
        {{STATUS_SUCCESS}, {}, "abort reset", 0, true},
        {{STATUS_UNSUCCESSFUL}, {STATUS_SUCCESS}, "abort reset port", 0, true},
        {{STATUS_UNSUCCESSFUL}, {STATUS_UNSUCCESSFUL}, "abort reset port", 0, false},
        {{STATUS_UNSUCCESSFUL, STATUS_SUCCESS}, {kBusy}, "abort reset port reset", 50, true},
        {{STATUS_UNSUCCESSFUL, STATUS_UNSUCCESSFUL}, {kBusy}, "abort reset port reset", 50, false},
    };
    for (const Case &c : cases) {
        Start();
        resets = c.resets;
        portResets = c.portResets;
        const host::Ticks start = runtime.Now();
        Deliver(STATUS_UNSUCCESSFUL, USBD_STATUS_BABBLE_DETECTED);
        AwaitReset();
        const LONGLONG elapsed = (runtime.Now() - start) / host::kTicksPerMillisecond;
        EXPECT_TRUE(elapsed >= c.delayMs && elapsed <= c.delayMs + 2) << elapsed;
        EXPECT_EQ(lower.TakeLog(), c.log);
        EXPECT_EQ(lower.HeldCount(), c.recovers ? kTransfers : 0);
        BulkEngineStop(*engine);
        lower.TakeLog();
    }
}

TEST_F(BulkEngineTest, StopEndsAResetWithoutResubmission) {
    Start();
    verdict = STATUS_MORE_PROCESSING_REQUIRED;
    Deliver(); // holds the reset up
    Deliver(STATUS_UNSUCCESSFUL, USBD_STATUS_BABBLE_DETECTED);
    host::AttachedThread consumer("consumer", [&] {
        SleepMs(50);
        BulkEngineHandBack(*engine, *last);
    });
    BulkEngineStop(*engine);
    EXPECT_EQ(lower.HeldCount(), 0u);
    EXPECT_EQ(lower.TakeLog(), "abort reset abort");
}

TEST_F(BulkEngineTest, ABabbleWithoutMemoryForItsResetRetiresTheTransfer) {
    Start();
    runtime.Arm(host::FaultPlan().FailNth(host::FaultSite::WorkItem, 1));
    Deliver(STATUS_UNSUCCESSFUL, USBD_STATUS_BABBLE_DETECTED);
    EXPECT_TRUE(ResetIsOver());
    Deliver();
    EXPECT_EQ(lower.HeldCount(), kTransfers - 1); // the others go on
    Deliver(STATUS_UNSUCCESSFUL, USBD_STATUS_BABBLE_DETECTED);
    AwaitReset();
    EXPECT_EQ(lower.HeldCount(), kTransfers); // and the next babble brings all back
    BulkEngineStop(*engine);
}

TEST_F(BulkEngineTest, StopCancelsTheRequestsWhenTheAbortCannotBeSent) {
    for (host::FaultSite site : {host::FaultSite::PoolAllocation, host::FaultSite::Irp}) {
        Start();
        runtime.Arm(host::FaultPlan().FailNth(site, 1));
        EXPECT_EQ(BulkEngineStop(*engine), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(lower.TakeLog(), "cancel cancel cancel");
        EXPECT_FALSE(engine->started);
    }
}

TEST_F(BulkEngineTest, ManagesWithTheTransfersThatMemoryAllows) {
    struct Case {
        host::FaultSite site;
        std::uint64_t nth;
        ULONG built;
    };
    // The array is the first allocation, then each transfer takes one request, one buffer and one MDL.
    const Case cases[] = {{host::FaultSite::PoolAllocation, 1, 0},
                          {host::FaultSite::PoolAllocation, 2, 0},
                          {host::FaultSite::PoolAllocation, 3, 1},
                          {host::FaultSite::Irp, 1, 0},
                          {host::FaultSite::Irp, 3, 2},
                          {host::FaultSite::Mdl, 1, 0},
                          {host::FaultSite::Mdl, 2, 1}};
    for (const Case &c : cases) {
        runtime.Arm(host::FaultPlan().FailNth(c.site, c.nth));
        EXPECT_EQ(BulkEngineStart(*engine, 1024, kTransfers),
                  c.built != 0 ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(engine->transferCount, c.built);
        EXPECT_EQ(lower.HeldCount(), c.built);
        BulkEngineStop(*engine);
        runtime.Arm({});
    }
    EXPECT_EQ(BulkEngineStart(*engine, 1024, 0xFFFFFFFF), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(BulkEngineStart(*engine, 1024, 0), STATUS_SUCCESS);
    EXPECT_EQ(lower.HeldCount(), 0u);
    BulkEngineStop(*engine);
}

TEST_F(BulkEngineTest, AFailedStartLeavesNothingInFlight) {
    resets = {STATUS_UNSUCCESSFUL};
    EXPECT_EQ(BulkEngineStart(*engine, 1024, kTransfers), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(engine->transferCount, 0u);
    for (int failing : {1, 2, 3}) {
        refuseBulk = failing;
        EXPECT_EQ(BulkEngineStart(*engine, 1024, kTransfers), STATUS_DEVICE_NOT_CONNECTED);
        EXPECT_EQ(lower.HeldCount(), 0u);
        EXPECT_EQ(engine->transferCount, 0u);
    }
    Start(); // and it can be tried again
    BulkEngineStop(*engine);
}

} // namespace
} // namespace uvc::usb_test
