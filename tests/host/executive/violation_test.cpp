// Every rule bites: small wrong driver fragments, each of which must end the process with the name of its rule.
#include "tests/host/executive/test_driver.h"

#include "host/executive/lock_order.h"

#include <thread>

namespace host::tests {
namespace {

struct Wrong {
    const char *name;
    const char *rule; // as the report names it; a sanitizer may be quicker where the rule ends in |
    void (*fragment)();
};

void *Block(POOL_TYPE type = NonPagedPool, SIZE_T size = 64) {
    return ExAllocatePoolWithTag(type, size, kTag);
}

KIRQL ToDispatch() {
    KIRQL before;
    KeRaiseIrql(DISPATCH_LEVEL, &before);
    return before;
}

PMDL MdlFor(void *buffer, ULONG length = 64) {
    return IoAllocateMdl(buffer, length, FALSE, FALSE, nullptr);
}

OBJECT_ATTRIBUTES KernelAttributes() {
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    return attributes;
}

void StartThread(PKSTART_ROUTINE routine) {
    OBJECT_ATTRIBUTES attributes = KernelAttributes();
    HANDLE handle;
    PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, &attributes, nullptr, nullptr, routine, nullptr);
    ZwClose(handle);
}

// Sends an IRP of the test's own to a driver that does `dispatch` with it.
void Send(PDRIVER_DISPATCH dispatch, PIO_COMPLETION_ROUTINE completion = TakeBack) {
    TestDriver driver(dispatch);
    const PIRP irp = MakeIrp(driver.Device(), completion);
    static_cast<void>(IoCallDriver(driver.Device(), irp));
    IoFreeIrp(irp);
}

void NTAPI NoCancel(PDEVICE_OBJECT, PIRP) {}

const Wrong kLevels[] = {
    {"PagedAllocationAtDispatch", "IRQL too high: ExAllocatePoolWithTag",
     [] {
         ToDispatch();
         Block(PagedPool);
     }},
    {"WaitAtDispatch", "wait at raised IRQL",
     [] {
         KEVENT event;
         KeInitializeEvent(&event, NotificationEvent, TRUE);
         ToDispatch();
         KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
     }},
    {"PagedTouchAtDispatch", "paged pool at raised IRQL",
     [] {
         auto *bytes = static_cast<volatile char *>(Block(PagedPool));
         bytes[0] = 1;
         ToDispatch();
         bytes[0] = 2;
     }},
    {"WideTextAtDispatch", "IRQL too high: DbgPrint",
     [] {
         UNICODE_STRING text;
         RtlInitUnicodeString(&text, L"text");
         ToDispatch();
         DbgPrint("%wZ", &text);
     }},
    {"DispatchRoutineKeepsLevel", "IRQL changed: IRP_MJ_INTERNAL_DEVICE_CONTROL",
     [] {
         TestDriver driver([](PDEVICE_OBJECT, PIRP irp) {
             ToDispatch();
             return Complete(irp, STATUS_SUCCESS);
         });
         static_cast<void>(IoCallDriver(driver.Device(), MakeIrp(driver.Device())));
     }},
    {"LevelNotLowered", "IRQL changed: Runtime", [] { ToDispatch(); }},
    {"NotAttached", "thread not attached", [] { std::thread([] { Block(); }).join(); }},
};

const Wrong kLocks[] = {
    {"LowerUnderSpinLock", "IRQL lowered under a spin lock",
     [] {
         KSPIN_LOCK lock = 0;
         KIRQL before;
         KeAcquireSpinLock(&lock, &before);
         KeLowerIrql(before);
     }},
    {"ReleaseOfForeignSpinLock", "lock released by another thread",
     [] {
         KSPIN_LOCK lock = 0;
         KIRQL before;
         KeAcquireSpinLock(&lock, &before);
         AttachedThread other("other", [&] { KeReleaseSpinLock(&lock, PASSIVE_LEVEL); });
         for (;;)
             std::this_thread::yield();
     }},
    {"ReleaseAtHigherLevel", "lock released at another level",
     [] {
         KSPIN_LOCK lock = 0;
         KIRQL before, dispatch;
         KeAcquireSpinLock(&lock, &before);
         KeRaiseIrql(DISPATCH_LEVEL + 1, &dispatch);
         KeReleaseSpinLock(&lock, before);
     }},
    {"ReleaseToOtherLevel", "lock released to another level",
     [] {
         KSPIN_LOCK lock = 0;
         KIRQL before;
         KeAcquireSpinLock(&lock, &before);
         KeReleaseSpinLock(&lock, APC_LEVEL);
     }},
    {"SpinLockTwice", "lock acquired twice",
     [] {
         KSPIN_LOCK lock = 0;
         KIRQL before;
         KeAcquireSpinLock(&lock, &before);
         KeAcquireSpinLock(&lock, &before);
     }},
    {"AtDpcLevelFromPassive", "IRQL too low",
     [] {
         KSPIN_LOCK lock = 0;
         KeAcquireSpinLockAtDpcLevel(&lock);
     }},
    {"SpinLockInPagedPool", "spin lock in paged pool",
     [] {
         auto *lock = static_cast<PKSPIN_LOCK>(Block(PagedPool));
         KIRQL before;
         KeInitializeSpinLock(lock);
         KeAcquireSpinLock(lock, &before);
     }},
    {"OrderOfSpinLocks", "lock order",
     [] {
         KSPIN_LOCK a = 0, b = 0;
         for (int turn = 0; turn < 2; ++turn) {
             KIRQL outer, inner;
             KeAcquireSpinLock(turn == 0 ? &a : &b, &outer);
             KeAcquireSpinLock(turn == 0 ? &b : &a, &inner);
             KeReleaseSpinLock(turn == 0 ? &b : &a, inner);
             KeReleaseSpinLock(turn == 0 ? &a : &b, outer);
         }
     }},
    {"OrderOverThree", "lock order",
     [] {
         int locks[3];
         for (int i = 0; i < 3; ++i) {
             LockOrderAcquire(&locks[i], "test lock");
             LockOrderAcquire(&locks[(i + 1) % 3], "test lock");
             LockOrderRelease(&locks[(i + 1) % 3]);
             LockOrderRelease(&locks[i]);
         }
     }},
    {"MutexKeptByThread", "mutex kept",
     [] {
         KMUTEX mutex;
         KeInitializeMutex(&mutex, 0);
         AttachedThread other("other", [&] { WaitFor(&mutex, 0); });
     }},
    {"Deadlock", "deadlock: wait: .*'creator' waits for mutex [^;]* owned by 'other'",
     [] {
         KMUTEX mutex;
         KEVENT taken, never;
         KeInitializeMutex(&mutex, 0);
         KeInitializeEvent(&taken, NotificationEvent, FALSE);
         KeInitializeEvent(&never, SynchronizationEvent, FALSE);
         AttachedThread other("other", [&] {
             WaitFor(&mutex, 0);
             KeSetEvent(&taken, IO_NO_INCREMENT, FALSE);
             KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, nullptr);
         });
         KeWaitForSingleObject(&taken, Executive, KernelMode, FALSE, nullptr);
         KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, nullptr);
     }},
    {"EventNotInitialised", "object not initialised",
     [] {
         KEVENT event{};
         KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
     }},
    {"EventInPagedPool", "dispatcher object in paged pool",
     [] { KeInitializeEvent(static_cast<PKEVENT>(Block(PagedPool)), NotificationEvent, FALSE); }},
};

const Wrong kPool[] = {
    {"Overrun", "pool overrun|AddressSanitizer",
     [] {
         auto *bytes = static_cast<volatile char *>(Block(NonPagedPool, 61));
         bytes[61] = 1;
         ExFreePoolWithTag(const_cast<char *>(bytes), kTag);
     }},
    {"Underrun", "pool underrun|AddressSanitizer",
     [] {
         auto *bytes = static_cast<volatile char *>(Block());
         bytes[-1] = 1;
         ExFreePoolWithTag(const_cast<char *>(bytes), kTag);
     }},
    {"FreedTwice", "pool freed twice|pool pointer not known",
     [] {
         void *block = Block();
         ExFreePoolWithTag(block, kTag);
         ExFreePoolWithTag(block, kTag);
     }},
    {"InnerPointerFreed", "pool pointer not known", [] { ExFreePool(static_cast<char *>(Block()) + 8); }},
    {"OtherTag", "pool tag differs: ExFreePoolWithTag: .*'Test'.*'Tesu'",
     [] { ExFreePoolWithTag(Block(), kTag + 0x01000000); }},
    {"NoBytes", "pool block of no bytes", [] { Block(NonPagedPool, 0); }},
    {"WrittenAfterFree", "pool written after free|AddressSanitizer",
     [] {
         auto *bytes = static_cast<volatile char *>(Block());
         ExFreePool(const_cast<char *>(bytes));
         bytes[3] = 0;
     }},
    {"Leak", "pool left: Runtime: .*non-paged pool tag 'Test': 2 blocks, 96 bytes",
     [] {
         Block(NonPagedPool, 64);
         Block(NonPagedPool, 32);
     }},
    {"HeldSpinLockFreed", "held lock freed",
     [] {
         auto *lock = static_cast<PKSPIN_LOCK>(Block());
         KIRQL before;
         KeInitializeSpinLock(lock);
         KeAcquireSpinLock(lock, &before);
         ExFreePoolWithTag(lock, kTag);
     }},
    {"AwaitedEventFreed", "object freed while waited for",
     [] {
         auto *event = static_cast<PKEVENT>(Block());
         KeInitializeEvent(event, NotificationEvent, FALSE);
         AttachedThread other("other", [&] { WaitFor(event, 1000); });
         LARGE_INTEGER interval = Milliseconds(1);
         KeDelayExecutionThread(KernelMode, FALSE, &interval);
         ExFreePoolWithTag(event, kTag);
     }},
    {"LookasideFreed", "lookaside list freed",
     [] {
         auto *list = static_cast<PPAGED_LOOKASIDE_LIST>(Block(NonPagedPool, sizeof(PAGED_LOOKASIDE_LIST)));
         ExInitializePagedLookasideList(list, nullptr, nullptr, 0, 32, kTag, 0);
         ExFreePoolWithTag(list, kTag);
     }},
    {"LookasideLeft", "lookaside lists left",
     [] {
         static PAGED_LOOKASIDE_LIST list;
         ExInitializePagedLookasideList(&list, nullptr, nullptr, 0, 32, kTag, 0);
     }},
};

const Wrong kIrps[] = {
    {"CompletedTwice", "IRP completed twice",
     [] {
         Send([](PDEVICE_OBJECT, PIRP irp) {
             Complete(irp, STATUS_SUCCESS);
             return Complete(irp, STATUS_SUCCESS);
         });
     }},
    {"CancelRoutineSet", "IRP completed with its cancel routine set",
     [] {
         Send([](PDEVICE_OBJECT, PIRP irp) {
             static_cast<void>(IoSetCancelRoutine(irp, NoCancel));
             return Complete(irp, STATUS_SUCCESS);
         });
     }},
    {"CompletedPending", "IRP completed with STATUS_PENDING",
     [] { Send([](PDEVICE_OBJECT, PIRP irp) { return Complete(irp, STATUS_PENDING); }); }},
    {"FreedInFlight", "IRP freed while in flight",
     [] {
         Send([](PDEVICE_OBJECT, PIRP irp) -> NTSTATUS {
             IoMarkIrpPending(irp);
             return STATUS_PENDING;
         });
     }},
    {"FreedTwice", "IRP used after it was freed",
     [] {
         const PIRP irp = IoAllocateIrp(1, FALSE);
         IoFreeIrp(irp);
         IoFreeIrp(irp);
     }},
    {"NotMarkedPending", "IRP not marked pending",
     [] {
         Send([](PDEVICE_OBJECT, PIRP irp) -> NTSTATUS {
             Complete(irp, STATUS_SUCCESS);
             return STATUS_PENDING;
         });
     }},
    {"MarkedPendingAndReturned", "IRP marked pending",
     [] {
         Send([](PDEVICE_OBJECT, PIRP irp) {
             IoMarkIrpPending(irp);
             return Complete(irp, STATUS_SUCCESS);
         });
     }},
    {"ForgottenIrp", "IRP not completed",
     [] { Send([](PDEVICE_OBJECT, PIRP) -> NTSTATUS { return STATUS_SUCCESS; }); }},
    {"OtherStatus", "IRP status differs",
     [] {
         Send([](PDEVICE_OBJECT, PIRP irp) -> NTSTATUS {
             Complete(irp, STATUS_UNSUCCESSFUL);
             return STATUS_SUCCESS;
         });
     }},
    {"NoStackLocation", "no stack location left",
     [] { Send([](PDEVICE_OBJECT device, PIRP irp) -> NTSTATUS { return IoCallDriver(device, irp); }); }},
    {"NobodyTakesItBack", "IRP completed beyond its owner", [] { Send(Succeed, nullptr); }},
    {"CancelLockKept", "cancel spin lock kept",
     [] {
         const PIRP irp = IoAllocateIrp(1, FALSE);
         static_cast<void>(IoSetCancelRoutine(irp, NoCancel));
         IoCancelIrp(irp);
     }},
    {"SentToDeletedDevice", "IRP sent to no device",
     [] {
         TestDriver driver(Succeed);
         const PIRP irp = MakeIrp(driver.Device());
         const PDEVICE_OBJECT device = driver.Device();
         IoDeleteDevice(device);
         static_cast<void>(IoCallDriver(device, irp));
     }},
    {"Leak", "IRPs left", [] { IoAllocateIrp(1, FALSE); }},
};

const Wrong kOthers[] = {
    {"BufferFreedUnderMdl", "MDL outlives its buffer",
     [] {
         void *block = Block();
         MmBuildMdlForNonPagedPool(MdlFor(block));
         ExFreePoolWithTag(block, kTag);
     }},
    {"MdlOverPagedPool", "MDL buffer not in non-paged pool",
     [] { MmBuildMdlForNonPagedPool(MdlFor(Block(PagedPool))); }},
    {"MdlFreedLocked", "MDL freed while locked",
     [] {
         static char buffer[16];
         const PMDL mdl = MdlFor(buffer, sizeof buffer);
         MmProbeAndLockPages(mdl, KernelMode, IoWriteAccess);
         IoFreeMdl(mdl);
     }},
    {"MdlUnlockedTwice", "MDL not locked",
     [] {
         static char buffer[16];
         MmUnlockPages(MdlFor(buffer, sizeof buffer));
     }},
    {"MdlLeft", "MDLs left",
     [] {
         static char buffer[16];
         MdlFor(buffer, sizeof buffer);
     }},
    {"WorkItemFreedQueued", "work item freed while queued",
     [] {
         TestDriver driver(Succeed);
         const PIO_WORKITEM blocker = IoAllocateWorkItem(driver.Device());
         KIRQL before = ToDispatch();
         static_cast<void>(before);
         // Four blockers keep every worker busy, so that the fifth stays in the queue.
         static KEVENT never;
         KeInitializeEvent(&never, NotificationEvent, FALSE);
         for (int i = 0; i < 4; ++i)
             IoQueueWorkItem(
                 IoAllocateWorkItem(driver.Device()), [](PDEVICE_OBJECT, PVOID) { WaitFor(&never, 100); },
                 DelayedWorkQueue, nullptr);
         IoQueueWorkItem(
             blocker, [](PDEVICE_OBJECT, PVOID) {}, DelayedWorkQueue, nullptr);
         IoFreeWorkItem(blocker);
     }},
    {"WorkItemLeft", "work items left",
     [] {
         TestDriver driver(Succeed);
         IoAllocateWorkItem(driver.Device());
     }},
    {"WorkRoutineKeepsLevel", "IRQL changed: work item",
     [] {
         TestDriver driver(Succeed);
         IoQueueWorkItem(
             IoAllocateWorkItem(driver.Device()), [](PDEVICE_OBJECT, PVOID) { ToDispatch(); }, DelayedWorkQueue,
             nullptr);
         LARGE_INTEGER interval = Milliseconds(1);
         KeDelayExecutionThread(KernelMode, FALSE, &interval);
     }},
    {"UserHandleForThread", "handle of the caller's process",
     [] {
         HANDLE handle;
         PsCreateSystemThread(
             &handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, [](PVOID) {}, nullptr);
     }},
    {"ThreadLeft", "threads left",
     [] {
         StartThread([](PVOID) {
             KEVENT event;
             KeInitializeEvent(&event, NotificationEvent, FALSE);
             WaitFor(&event, 1000);
         });
     }},
    {"HandleClosedTwice", "handle not known",
     [] {
         HANDLE handle;
         CreateEventHandle(&handle, NotificationEvent, false);
         ZwClose(handle);
         ZwClose(handle);
     }},
    {"HandleLeft", "handles or objects left",
     [] {
         HANDLE handle;
         CreateEventHandle(&handle, NotificationEvent, false);
     }},
    {"DereferencedTooOften", "device dereferenced too often",
     [] {
         TestDriver driver(Succeed);
         ObDereferenceObject(driver.Device());
     }},
    {"NoObject", "not an object",
     [] {
         int nothing;
         ObReferenceObject(&nothing);
     }},
    {"DeletedWhileAttached", "device deleted while attached",
     [] {
         TestDriver driver(Succeed);
         driver.AddUpper();
         IoDeleteDevice(driver.Device());
     }},
    {"UnhandledException", "exception without a handler", [] { ProbeForRead(nullptr, 1, 1); }},
    {"BugCheck", "bug check: KeBugCheckEx: 0x000000c4", [] { KeBugCheckEx(0xC4, 0, 0, 0, 0); }},
    {"FloatingPointPrint", "format not understood", [] { DbgPrint("%f", 1.0); }},
};

void PrintTo(const Wrong &wrong, std::ostream *out) {
    *out << wrong.rule;
}

class Violations : public testing::TestWithParam<Wrong> {};

TEST_P(Violations, AreNamed) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const Wrong &wrong = GetParam();
    std::string expected = wrong.rule;
    EXPECT_DEATH(
        {
            Runtime runtime;
            wrong.fragment();
        },
        expected.ends_with("|AddressSanitizer") ? expected : "violation: (" + expected + ")");
}

constexpr auto kName = [](const testing::TestParamInfo<Wrong> &info) { return info.param.name; };
INSTANTIATE_TEST_SUITE_P(Levels, Violations, testing::ValuesIn(kLevels), kName);
INSTANTIATE_TEST_SUITE_P(Locks, Violations, testing::ValuesIn(kLocks), kName);
INSTANTIATE_TEST_SUITE_P(Pool, Violations, testing::ValuesIn(kPool), kName);
INSTANTIATE_TEST_SUITE_P(Irps, Violations, testing::ValuesIn(kIrps), kName);
INSTANTIATE_TEST_SUITE_P(Others, Violations, testing::ValuesIn(kOthers), kName);

} // namespace
} // namespace host::tests
