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
