#include "tests/usb/lower_driver.h"
#include "usb/work_item_tracker.h"

#include <atomic>

namespace uvc::usb_test {
namespace {

TEST(WorkItems, AreWaitedForCarryCopiesAndLeaveNothingWhenTheyFail) {
    host::Runtime runtime;
    LowerDriver lower;
    WorkItemTracker tracker;
    WorkItemTrackerInitialise(tracker, lower.Device());
    struct Context {
        std::atomic<int> *sum;
        int value;
    };
    std::atomic<int> sum{0};
    const auto queue = [&](int value) {
        Context context{&sum, value};
        const auto add = [](PDEVICE_OBJECT, void *copy) {
            SleepMs(10);
            *static_cast<Context *>(copy)->sum += static_cast<Context *>(copy)->value;
        };
        return WorkItemQueue(tracker, add, &context, sizeof(context));
    };
    EXPECT_EQ(queue(1), STATUS_CANCELLED); // created closed
    for (int round = 1; round <= 2; ++round) {
        WorkItemOpen(tracker);
        for (int value : {1, 10, 100})
            EXPECT_EQ(queue(value), STATUS_SUCCESS);
        WorkItemClose(tracker);
        EXPECT_EQ(sum, 111 * round);
        EXPECT_EQ(queue(1), STATUS_CANCELLED);
        WorkItemClose(tracker); // again, as a family does at the end of every stop
    }
    WorkItemOpen(tracker);
    for (host::FaultSite site : {host::FaultSite::PoolAllocation, host::FaultSite::WorkItem}) {
        runtime.Arm(host::FaultPlan().FailNth(site, 1));
        EXPECT_EQ(queue(1), STATUS_INSUFFICIENT_RESOURCES);
    }
    WorkItemClose(tracker);
}

} // namespace
} // namespace uvc::usb_test
