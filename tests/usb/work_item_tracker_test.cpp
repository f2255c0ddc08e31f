#include "tests/usb/lower_driver.h"
#include "usb/work_item_tracker.h"

#include <atomic>

namespace uvc::usb_test {
namespace {

class WorkItemTest : public testing::Test {
  protected:
    WorkItemTest() { WorkItemTrackerInitialise(tracker, lower.Device()); }
    ~WorkItemTest() override { WorkItemClose(tracker); }

    static void CountAfterAWhile(PDEVICE_OBJECT, void *context) {
        SleepMs(10);
        ++*static_cast<std::atomic<int> *>(context);
    }

    host::Runtime runtime;
    LowerDriver lower;
    WorkItemTracker tracker;
    std::atomic<int> ran{0};
};

TEST_F(WorkItemTest, CloseWaitsForEveryItemAndRefusesFurtherOnes) {
    EXPECT_EQ(WorkItemQueue(tracker, CountAfterAWhile, &ran, 0), STATUS_CANCELLED); // created closed
    for (int round = 1; round <= 2; ++round) {
        WorkItemOpen(tracker);
        for (int i = 0; i < 5; ++i)
            EXPECT_EQ(WorkItemQueue(tracker, CountAfterAWhile, &ran, 0), STATUS_SUCCESS);
        WorkItemClose(tracker);
        EXPECT_EQ(ran, 5 * round);
        EXPECT_EQ(WorkItemQueue(tracker, CountAfterAWhile, &ran, 0), STATUS_CANCELLED);
        WorkItemClose(tracker); // again, as a family does at the end of every stop
    }
}

TEST_F(WorkItemTest, AnItemCarriesACopyOfItsContext) {
    struct Context {
        std::atomic<int> *sum;
        int value;
    };
    WorkItemOpen(tracker);
    for (int value : {1, 10, 100}) {
        Context context{&ran, value};
        auto add = [](PDEVICE_OBJECT, void *copy) {
            auto *own = static_cast<Context *>(copy);
            *own->sum += own->value;
        };
        EXPECT_EQ(WorkItemQueue(tracker, add, &context, sizeof(context)), STATUS_SUCCESS);
        context.value = 1'000'000;
    }
    WorkItemClose(tracker);
    EXPECT_EQ(ran, 111);
}

TEST_F(WorkItemTest, AFailedQueueingLeavesNothingToWaitFor) {
    WorkItemOpen(tracker);
    for (host::FaultSite site : {host::FaultSite::PoolAllocation, host::FaultSite::WorkItem}) {
        runtime.Arm(host::FaultPlan().FailNth(site, 1));
        EXPECT_EQ(WorkItemQueue(tracker, CountAfterAWhile, &ran, 8), STATUS_INSUFFICIENT_RESOURCES);
    }
    WorkItemClose(tracker);
    EXPECT_EQ(ran, 0);
}

} // namespace
} // namespace uvc::usb_test
