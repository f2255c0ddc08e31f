// Device, filter factory, bags: what comes and goes with the device.
#include "tests/host/streaming/test_driver.h"

#include <gtest/gtest.h>

#include <cstring>

namespace streaming_test {
namespace {

using Log = std::vector<std::string>;

TEST(StreamingDevice, FilterIsFoundOnlyWhileTheDeviceIsStarted) {
    Machine machine;
    ASSERT_EQ(machine.StartStatus(), STATUS_SUCCESS);
    // The driver hears of its capabilities after the bus has answered.
    EXPECT_EQ(machine.TakeLog(), (Log{"capabilities 7", "start"}));
    std::u16string link = machine.Link();
    ASSERT_TRUE(link.ends_with(u"\\GLOBAL"));

    host::client::Filter filter;
    EXPECT_EQ(filter.Open(link.substr(0, link.size() - 1)), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(filter.Open(link), STATUS_SUCCESS);
    filter.Close();
    EXPECT_EQ(machine.TakeLog(), (Log{"filter create", "filter context freed"}));

    EXPECT_EQ(host::StopDeviceStack(machine.Pdo()), STATUS_SUCCESS);
    EXPECT_EQ(machine.Link(), u"");
    EXPECT_FALSE(NT_SUCCESS(filter.Open(link)));
    EXPECT_EQ(host::RestartDeviceStack(machine.Pdo()), STATUS_SUCCESS);
    EXPECT_EQ(filter.Open(machine.Link()), STATUS_SUCCESS);
}

TEST(StreamingDevice, BagsFreeWhatTheyHoldOnce) {
    static Log freed;
    freed.clear();
    Hooks hooks;
    hooks.add = [](PKSDEVICE device) {
        auto note = [](PVOID item) { freed.emplace_back(static_cast<const char *>(item)); };
        static char first[] = "first", second[] = "second", third[] = "third";
        KSOBJECT_BAG other = nullptr;
        KsAcquireDevice(device);
        EXPECT_EQ(KsAllocateObjectBag(device, &other), STATUS_SUCCESS);
        EXPECT_EQ(KsAddItemToObjectBag(device->Bag, first, note), STATUS_SUCCESS);
        EXPECT_EQ(KsAddItemToObjectBag(device->Bag, second, note), STATUS_SUCCESS);
        EXPECT_EQ(KsCopyObjectBagItems(other, device->Bag), STATUS_SUCCESS);
        EXPECT_EQ(KsAddItemToObjectBag(other, third, note), STATUS_SUCCESS);
        EXPECT_EQ(KsRemoveItemFromObjectBag(device->Bag, second, TRUE), 1u) << "the copy is left";
        KsReleaseDevice(device);
        EXPECT_TRUE(freed.empty());
        KsFreeObjectBag(other);
        EXPECT_EQ(freed, (Log{"third", "second"}));
        return STATUS_SUCCESS;
    };
    Machine machine(std::move(hooks));
    machine.TearDown();
    EXPECT_EQ(freed, (Log{"third", "second", "first"}));
}

TEST(StreamingDevice, EditCopiesOnceAndGrows) {
    Hooks hooks;
    hooks.filterCreate = [](PKSFILTER filter, PIRP) {
        constexpr ULONG kTag = 'tidE';
        static char text[] = "constant";
        char *edited = text;
        auto pointer = reinterpret_cast<PVOID *>(&edited);
        EXPECT_EQ(_KsEdit(filter->Bag, pointer, 16, sizeof(text), kTag), STATUS_SUCCESS);
        EXPECT_NE(edited, text);
        EXPECT_STREQ(edited, "constant");
        EXPECT_EQ(edited[15], 0);
        char *before = edited;
        EXPECT_EQ(_KsEdit(filter->Bag, pointer, 16, 16, kTag), STATUS_SUCCESS);
        EXPECT_EQ(edited, before) << "an item of the bag is edited in place";
        EXPECT_EQ(_KsEdit(filter->Bag, pointer, 64, 16, kTag), STATUS_SUCCESS);
        EXPECT_NE(edited, before);
        EXPECT_STREQ(edited, "constant");
        char *shortened = text;
        EXPECT_EQ(_KsEdit(filter->Bag, reinterpret_cast<PVOID *>(&shortened), 4, sizeof(text), kTag), STATUS_SUCCESS);
        EXPECT_EQ(std::memcmp(shortened, "cons", 4), 0);
        return STATUS_SUCCESS;
    };
    Machine machine(std::move(hooks));
    host::client::Filter filter;
    EXPECT_EQ(filter.Open(machine.Link()), STATUS_SUCCESS);
}

// Every allocation on the way to a running pin fails in turn: the caller learns of it, and nothing is left behind.
TEST(StreamingDevice, EveryAllocationMayFail) {
    for (std::uint64_t nth = 1;; ++nth) {
        ASSERT_LT(nth, 200u);
        SCOPED_TRACE("pool allocation " + std::to_string(nth));
        Machine machine;
        machine.Runtime().Arm(host::FaultPlan().FailNth(host::FaultSite::PoolAllocation, nth));
        std::u16string link = machine.Link();
        {
            host::client::Frame frame(kFrameSize);
            OpenPin open(machine);
            NTSTATUS status = open.status;
            if (NT_SUCCESS(status))
                status = open.pin.SetState(KSSTATE_RUN);
            if (NT_SUCCESS(status))
                status = open.pin.Queue(frame);
            host::client::Frame *done = nullptr;
            if (NT_SUCCESS(status))
                status = open.pin.NextFrame(&done, 1000);
            if (machine.Runtime().Faults().FaultsDealt() == 0) {
                EXPECT_EQ(status, STATUS_SUCCESS);
                return;
            }
            // Without a link there is nothing to open; a clone that fails only loses one picture.
            EXPECT_TRUE(status == STATUS_INSUFFICIENT_RESOURCES || status == STATUS_SUCCESS || link.empty()) << status;
        }
        machine.TearDown();
    }
}

} // namespace
} // namespace streaming_test
