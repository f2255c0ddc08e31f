// Pool, lookaside lists, MDLs, and calls that survive a bad address.
#include "platform/guarded_call.h"
#include "tests/host/executive/fixture.h"

#include <cstring>
#include <sys/mman.h>

namespace host::tests {
namespace {

using Memory = ExecutiveTest;

TEST_F(Memory, BlocksAreCountedJunkAndAligned) {
    for (POOL_TYPE type : {NonPagedPool, PagedPool}) {
        for (SIZE_T size : {1, 15, 16, 4095, 4096, 70'000}) {
            auto *block = static_cast<unsigned char *>(ExAllocatePoolWithTag(type, size, kTag));
            ASSERT_NE(block, nullptr);
            EXPECT_EQ(reinterpret_cast<ULONG_PTR>(block) % (size >= 4096 ? 4096 : 16), 0u);
            EXPECT_NE(block[0], 0);
            EXPECT_NE(block[size - 1], 0);
            EXPECT_EQ(runtime_.OutstandingPool().bytes, size);
            ExFreePoolWithTag(block, kTag);
        }
    }
    EXPECT_EQ(runtime_.OutstandingPool().blocks, 0u);
}

TEST_F(Memory, AllocationsFailByNumber) {
    runtime_.Arm(FaultPlan().FailNth(FaultSite::PoolAllocation, 2).FailNth(FaultSite::Mdl, 1, true));
    void *first = ExAllocatePoolWithTag(NonPagedPool, 8, kTag);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(ExAllocatePoolWithTag(PagedPool, 8, kTag), nullptr);
    UNICODE_STRING wide;
    RtlInitUnicodeString(&wide, L"text");
    ANSI_STRING narrow;
    EXPECT_EQ(RtlUnicodeStringToAnsiString(&narrow, &wide, TRUE), STATUS_SUCCESS);
    RtlFreeAnsiString(&narrow);
    EXPECT_EQ(IoAllocateMdl(first, 8, FALSE, FALSE, nullptr), nullptr);
    EXPECT_EQ(IoAllocateMdl(first, 8, FALSE, FALSE, nullptr), nullptr);
    EXPECT_EQ(runtime_.Faults().Visits(FaultSite::PoolAllocation), 3u);
    EXPECT_EQ(runtime_.Faults().FaultsDealt(), 3u);
    ExFreePoolWithTag(first, kTag);
}

TEST_F(Memory, GuardedCallTurnsFaultsAndRaisedStatusesIntoResults) {
    void *forbidden = mmap(nullptr, PAGE_SIZE, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    struct Case {
        const char *name;
        GuardedRoutine routine;
        NTSTATUS expected;
    };
    for (const Case &row : {
             Case{"return", [](void *) {}, STATUS_SUCCESS},
             Case{"read", [](void *page) { static_cast<void>(*static_cast<volatile char *>(page)); },
                  STATUS_ACCESS_VIOLATION},
             Case{"copy", [](void *page) { std::memset(page, 1, 16); }, STATUS_ACCESS_VIOLATION},
             Case{"raise", [](void *) { ExRaiseStatus(STATUS_DEVICE_BUSY); }, STATUS_DEVICE_BUSY},
             Case{"null page", [](void *) { ProbeForRead(reinterpret_cast<PVOID>(64), 4, 1); },
                  STATUS_ACCESS_VIOLATION},
             Case{"no bytes", [](void *) { ProbeForRead(nullptr, 0, 1); }, STATUS_SUCCESS},
             Case{"kernel", [](void *) { ProbeForRead(reinterpret_cast<PVOID>(0xFFFF'8000'0000'0000), 4, 1); },
                  STATUS_ACCESS_VIOLATION},
             Case{"wrap", [](void *page) { ProbeForRead(page, ~SIZE_T{0}, 1); }, STATUS_ACCESS_VIOLATION},
             Case{"misaligned", [](void *page) { ProbeForRead(static_cast<char *>(page) + 2, 4, 4); },
                  STATUS_DATATYPE_MISALIGNMENT},
             Case{"write probe touches", [](void *page) { ProbeForWrite(page, 1, 1); }, STATUS_ACCESS_VIOLATION},
             Case{"nested",
                  [](void *page) {
                      EXPECT_EQ(GuardedCall([](void *inner) { *static_cast<volatile char *>(inner) = 1; }, page),
                                STATUS_ACCESS_VIOLATION);
                      ExRaiseStatus(STATUS_NO_MATCH);
                  },
                  STATUS_NO_MATCH},
         })
        EXPECT_EQ(GuardedCall(row.routine, forbidden), row.expected) << row.name;
    munmap(forbidden, PAGE_SIZE);
}

TEST(FaultPlans, TextsAreUnderstoodOrRefusedWithAReason) {
    std::string reason;
    auto plan = FaultPlan::Parse("pool:2,irp:1+,usb:2=short,abort:2+=never", reason);
    ASSERT_TRUE(plan) << reason;
    for (bool expected : {false, true, false})
        EXPECT_EQ(plan->Fails(FaultSite::PoolAllocation), expected);
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(plan->Fails(FaultSite::Irp));
    EXPECT_FALSE(plan->Fails(FaultSite::Thread));
    EXPECT_EQ(plan->NextTransfer(), std::nullopt);
    EXPECT_EQ(plan->NextTransfer(), TransferFault::Short);
    EXPECT_EQ(plan->NextAbort(), std::nullopt);
    EXPECT_EQ(plan->NextAbort(), AbortFault::Never);
    EXPECT_EQ(plan->FaultsDealt(), 6u);
    EXPECT_EQ(FaultPlan(*plan).Visits(FaultSite::Irp), 0u);
    for (const char *bad : {"pool", "pool:", "pool:0", "pool:1x", "disk:1", "usb:1", "usb:1=", "usb:1=fire",
                            "pool:1=stall", "abort:1", "abort:1=stall"}) {
        reason.clear();
        EXPECT_FALSE(FaultPlan::Parse(bad, reason)) << bad;
        EXPECT_FALSE(reason.empty()) << bad;
    }
}

} // namespace
} // namespace host::tests
