// Waits and time.
#include "tests/host/executive/fixture.h"

#include <atomic>

namespace host::tests {
namespace {

using Dispatcher = ExecutiveTest;

TEST_F(Dispatcher, TimeMovesToTheDeadlineAndNoFurther) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    const Ticks before = runtime_.Now();
    EXPECT_EQ(WaitFor(&event, 250), STATUS_TIMEOUT);
    EXPECT_EQ(runtime_.Now() - before, 250 * kTicksPerMillisecond);
    LARGE_INTEGER absolute{.QuadPart = runtime_.Now() + 5};
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &absolute), STATUS_TIMEOUT);
    EXPECT_EQ(runtime_.Now() - before, 250 * kTicksPerMillisecond + 5);
    EXPECT_EQ(WaitFor(&event, 0), STATUS_TIMEOUT);
    EXPECT_EQ(runtime_.Now() - before, 250 * kTicksPerMillisecond + 5);
}

TEST_F(Dispatcher, PerformanceCounterAndSystemTimeReadTheSameClock) {
    LARGE_INTEGER frequency, system[2];
    const LONGLONG first = KeQueryPerformanceCounter(&frequency).QuadPart;
    KeQuerySystemTime(&system[0]);
    LARGE_INTEGER interval = Milliseconds(1234);
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
    KeQuerySystemTime(&system[1]);
    EXPECT_EQ(frequency.QuadPart, 10'000'000);
    EXPECT_EQ(KeQueryPerformanceCounter(nullptr).QuadPart - first, 12'340'000);
    EXPECT_EQ(system[1].QuadPart - system[0].QuadPart, 12'340'000);
}

TEST_F(Dispatcher, AutomaticEventsReleaseOneWaiterAndNotificationEventsAll) {
    for (const auto &[type, released] : {std::pair{SynchronizationEvent, 1}, {NotificationEvent, 3}}) {
        KEVENT event;
        KeInitializeEvent(&event, type, FALSE);
        std::atomic<int> awake{0};
        {
            const auto wait = [&] { awake += WaitFor(&event, 1000) == STATUS_SUCCESS; };
            AttachedThread a("a", wait), b("b", wait), c("c", wait);
            LARGE_INTEGER interval = Milliseconds(10);
            KeDelayExecutionThread(KernelMode, FALSE, &interval); // all three wait by then
            EXPECT_EQ(KeSetEvent(&event, IO_NO_INCREMENT, FALSE), 0);
        }
        EXPECT_EQ(awake, released);
        EXPECT_EQ(KeReadStateEvent(&event), type == NotificationEvent);
    }
}

TEST_F(Dispatcher, WaitForAllTakesNothingUntilEverythingIsThere) {
    KEVENT first, second;
    KeInitializeEvent(&first, SynchronizationEvent, TRUE);
    KeInitializeEvent(&second, SynchronizationEvent, FALSE);
    PVOID objects[] = {&first, &second};
    LARGE_INTEGER timeout = Milliseconds(5);
    const auto wait = [&](WAIT_TYPE type) {
        return KeWaitForMultipleObjects(2, objects, type, Executive, KernelMode, FALSE, &timeout, nullptr);
    };
    EXPECT_EQ(wait(WaitAll), STATUS_TIMEOUT);
    EXPECT_NE(KeReadStateEvent(&first), 0);
    KeSetEvent(&second, IO_NO_INCREMENT, FALSE);
    EXPECT_EQ(wait(WaitAll), STATUS_WAIT_0);
    EXPECT_EQ(KeReadStateEvent(&first) + KeReadStateEvent(&second), 0);
    KeSetEvent(&second, IO_NO_INCREMENT, FALSE);
    EXPECT_EQ(wait(WaitAny), STATUS_WAIT_1);
}

TEST_F(Dispatcher, MutexIsRecursiveAndHandedOver) {
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    ASSERT_EQ(WaitFor(&mutex, 0), STATUS_SUCCESS);
    ASSERT_EQ(WaitFor(&mutex, 0), STATUS_SUCCESS);
    NTSTATUS held = STATUS_SUCCESS, later = STATUS_TIMEOUT;
    AttachedThread other("other", [&] {
        held = WaitFor(&mutex, 10);
        later = WaitFor(&mutex, 1000);
        KeReleaseMutex(&mutex, FALSE);
    });
    LARGE_INTEGER interval = Milliseconds(20);
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
    KeReleaseMutex(&mutex, FALSE);
    EXPECT_EQ(KeReadStateMutex(&mutex), 0);
    KeReleaseMutex(&mutex, FALSE);
    other.Join();
    EXPECT_EQ(held, STATUS_TIMEOUT);
    EXPECT_EQ(later, STATUS_SUCCESS);
    EXPECT_EQ(KeReadStateMutex(&mutex), 1);
}

TEST_F(Dispatcher, SystemThreadEndsItselfAndIsWaitedFor) {
    struct Context {
        KEVENT go;
        bool ran = false, ranOn = false;
    } context;
    KeInitializeEvent(&context.go, NotificationEvent, FALSE);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE handle;
    ASSERT_EQ(PsCreateSystemThread(
                  &handle, THREAD_ALL_ACCESS, &attributes, nullptr, nullptr,
                  [](PVOID given) {
                      auto &shared = *static_cast<Context *>(given);
                      KeWaitForSingleObject(&shared.go, Executive, KernelMode, FALSE, nullptr);
                      shared.ran = true;
                      PsTerminateSystemThread(STATUS_SUCCESS);
                      shared.ranOn = true;
                  },
                  &context),
              STATUS_SUCCESS);
    PVOID thread = nullptr;
    EXPECT_EQ(ObReferenceObjectByHandle(handle, THREAD_ALL_ACCESS, *reinterpret_cast<POBJECT_TYPE *>(PsThreadType),
                                        KernelMode, &thread, nullptr),
              STATUS_OBJECT_TYPE_MISMATCH);
    ASSERT_EQ(ObReferenceObjectByHandle(handle, THREAD_ALL_ACCESS, (POBJECT_TYPE)(PVOID)PsThreadType, KernelMode,
                                        &thread, nullptr),
              STATUS_SUCCESS);
    ZwClose(handle);
    EXPECT_EQ(WaitFor(thread, 50), STATUS_TIMEOUT);
    KeSetEvent(&context.go, IO_NO_INCREMENT, FALSE);
    EXPECT_EQ(WaitFor(thread, 50), STATUS_SUCCESS);
    ObDereferenceObject(thread);
    EXPECT_TRUE(context.ran);
    EXPECT_FALSE(context.ranOn);
}

TEST(RealTime, WaitsForAsLongAsItSays) {
    Runtime runtime({.clock = ClockKind::Real});
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    const Ticks before = runtime.Now();
    EXPECT_EQ(WaitFor(&event, 30), STATUS_TIMEOUT);
    EXPECT_GE(runtime.Now() - before, 30 * kTicksPerMillisecond);
    AttachedThread other("other", [&] { KeSetEvent(&event, IO_NO_INCREMENT, FALSE); });
    EXPECT_EQ(WaitFor(&event, 60'000), STATUS_SUCCESS);
}

} // namespace
} // namespace host::tests
