// Requests on their way down and up a stack, and their cancellation.
#include "tests/host/executive/test_driver.h"

#include <atomic>
#include <string>
#include <vector>

namespace host::tests {
namespace {

using Irps = ExecutiveTest;

// What happened, in order.
std::vector<std::string> trace;

TEST_F(Irps, StatusAndPendingTravelUpTheStack) {
    static PIRP held;
    static PDEVICE_OBJECT lower;
    trace.clear();
    TestDriver driver([](PDEVICE_OBJECT device, PIRP irp) -> NTSTATUS {
        if (device == lower) {
            IoMarkIrpPending(irp);
            held = irp;
            return STATUS_PENDING;
        }
        IoCopyCurrentIrpStackLocationToNext(irp);
        IoSetCompletionRoutine(
            irp,
            [](PDEVICE_OBJECT, PIRP done, PVOID) -> NTSTATUS {
                trace.push_back(done->PendingReturned ? "upper, pending" : "upper");
                if (done->PendingReturned)
                    IoMarkIrpPending(done);
                done->IoStatus.Status = STATUS_NO_MATCH;
                return STATUS_SUCCESS;
            },
            nullptr, FALSE, TRUE, FALSE);
        return IoCallDriver(lower, irp);
    });
    lower = driver.Device();
    const PDEVICE_OBJECT upper = driver.AddUpper();
    EXPECT_EQ(upper->StackSize, 2);
    NTSTATUS final = 0;
    const PIRP irp = MakeIrp(
        upper,
        [](PDEVICE_OBJECT device, PIRP done, PVOID context) -> NTSTATUS {
            trace.push_back(device == nullptr ? "owner" : "?");
            *static_cast<NTSTATUS *>(context) = done->IoStatus.Status;
            return STATUS_MORE_PROCESSING_REQUIRED;
        },
        &final);
    EXPECT_EQ(IoCallDriver(upper, irp), STATUS_PENDING);
    Complete(held, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(trace, (std::vector<std::string>{"upper, pending", "owner"}));
    EXPECT_EQ(final, STATUS_NO_MATCH);
    IoReuseIrp(irp, STATUS_SUCCESS);
    EXPECT_EQ(irp->CurrentLocation, 3);
    IoFreeIrp(irp);
    IoDetachDevice(lower);
}

TEST_F(Irps, CompletionRoutineRunsOnlyForWhatItAskedFor) {
    struct Case {
        NTSTATUS status;
        BOOLEAN onSuccess, onError, onCancel, cancelled;
        bool called;
    };
    static NTSTATUS status;
    static bool called;
    TestDriver driver([](PDEVICE_OBJECT device, PIRP irp) -> NTSTATUS {
        return device->AttachedDevice != nullptr ? Complete(irp, status) : STATUS_NOT_SUPPORTED;
    });
    const PDEVICE_OBJECT upper = driver.AddUpper();
    for (const Case &row :
         {Case{STATUS_SUCCESS, TRUE, FALSE, FALSE, FALSE, true}, Case{STATUS_SUCCESS, FALSE, TRUE, TRUE, FALSE, false},
          Case{STATUS_UNSUCCESSFUL, TRUE, FALSE, TRUE, FALSE, false},
          Case{STATUS_UNSUCCESSFUL, FALSE, TRUE, FALSE, FALSE, true},
          Case{STATUS_CANCELLED, FALSE, FALSE, TRUE, TRUE, true},
          Case{STATUS_CANCELLED, TRUE, FALSE, FALSE, TRUE, false}}) {
        status = row.status;
        called = false;
        const PIRP irp = MakeIrp(upper); // one location more than is needed: the test plays the upper driver
        IoSetNextIrpStackLocation(irp);
        IoCopyCurrentIrpStackLocationToNext(irp);
        IoSetCompletionRoutine(
            irp, [](PDEVICE_OBJECT, PIRP, PVOID) -> NTSTATUS { return called = true, STATUS_SUCCESS; }, nullptr,
            row.onSuccess, row.onError, row.onCancel);
        irp->Cancel = row.cancelled;
        EXPECT_EQ(IoCallDriver(driver.Device(), irp), row.status);
        EXPECT_EQ(called, row.called);
        IoFreeIrp(irp);
    }
    IoDetachDevice(driver.Device());
}

constexpr ULONG kBuffered = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x800, METHOD_BUFFERED, FILE_ANY_ACCESS);

// As on Windows: who ignores the returned status and waits, waits for ever.
TEST_F(Irps, BuiltRequestThatFailsAtOnceLeavesEventAndStatusBlockAlone) {
    TestDriver driver([](PDEVICE_OBJECT, PIRP irp) { return Complete(irp, STATUS_UNSUCCESSFUL); });
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK ioStatus{.Information = 77};
    EXPECT_EQ(IoCallDriver(driver.Device(), IoBuildDeviceIoControlRequest(kBuffered, driver.Device(), nullptr, 0,
                                                                          nullptr, 0, TRUE, &event, &ioStatus)),
              STATUS_UNSUCCESSFUL);
    EXPECT_EQ(WaitFor(&event, 0), STATUS_TIMEOUT);
    EXPECT_EQ(ioStatus.Information, 77u);
}

// A driver that holds one IRP and completes it on demand, racing with its cancellation.
struct Holder {
    KSPIN_LOCK lock = 0;
    PIRP irp = nullptr;
};
Holder *holder;

void NTAPI CancelHeld(PDEVICE_OBJECT, PIRP irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    KIRQL level;
    KeAcquireSpinLock(&holder->lock, &level);
    holder->irp = nullptr;
    KeReleaseSpinLock(&holder->lock, level);
    Complete(irp, STATUS_CANCELLED);
}

NTSTATUS NTAPI Hold(PDEVICE_OBJECT, PIRP irp) {
    KIRQL level;
    KeAcquireSpinLock(&holder->lock, &level);
    static_cast<void>(IoSetCancelRoutine(irp, CancelHeld));
    if (irp->Cancel && IoSetCancelRoutine(irp, nullptr) != nullptr) {
        KeReleaseSpinLock(&holder->lock, level);
        return Complete(irp, STATUS_CANCELLED);
    }
    IoMarkIrpPending(irp);
    holder->irp = irp;
    KeReleaseSpinLock(&holder->lock, level);
    return STATUS_PENDING;
}

void FinishHeld() {
    KIRQL level;
    KeAcquireSpinLock(&holder->lock, &level);
    const PIRP irp = holder->irp;
    const bool mine = irp != nullptr && IoSetCancelRoutine(irp, nullptr) != nullptr;
    if (mine)
        holder->irp = nullptr;
    KeReleaseSpinLock(&holder->lock, level);
    if (mine)
        Complete(irp, STATUS_SUCCESS);
}

TEST_F(Irps, CancelAndCompletionMeetExactlyOnce) {
    Holder state;
    holder = &state;
    TestDriver driver(Hold);
    struct Owner {
        KEVENT back;
        std::atomic<int> times{0};
        NTSTATUS status = 0;
    };
    int cancelled = 0;
    for (int round = 0; round < 200; ++round) {
        Owner owner;
        KeInitializeEvent(&owner.back, NotificationEvent, FALSE);
        const PIRP irp = MakeIrp(
            driver.Device(),
            [](PDEVICE_OBJECT, PIRP done, PVOID context) -> NTSTATUS {
                auto &to = *static_cast<Owner *>(context);
                ++to.times;
                to.status = done->IoStatus.Status;
                KeSetEvent(&to.back, IO_NO_INCREMENT, FALSE);
                return STATUS_MORE_PROCESSING_REQUIRED;
            },
            &owner);
        EXPECT_EQ(IoCallDriver(driver.Device(), irp), STATUS_PENDING);
        {
            AttachedThread canceller("canceller", [&] { IoCancelIrp(irp); });
            AttachedThread finisher("finisher", FinishHeld);
        }
        EXPECT_EQ(WaitFor(&owner.back, 0), STATUS_SUCCESS);
        EXPECT_EQ(owner.times, 1);
        cancelled += owner.status == STATUS_CANCELLED;
        IoFreeIrp(irp);
    }
    RecordProperty("cancelled", cancelled);
}

} // namespace
} // namespace host::tests
