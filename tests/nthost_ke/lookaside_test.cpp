// Pool by flags, and lookaside lists.
#include <atomic>
#include <cstring>

#include <nthost/faults.h>
#include <nthost/pool.h>

#include "kernel.h"

namespace {

using Lookaside = KernelTest;

constexpr ULONG kTag = PoolTag("Look");

struct FlagsRow {
    POOL_FLAGS Flags;
    ULONG Tag;
    bool Given;
    int Type; // of the block
};

constexpr FlagsRow kFlags[] = {
    {POOL_FLAG_PAGED, kTag, true, PagedPool},
    {POOL_FLAG_NON_PAGED, kTag, true, NonPagedPool},
    {POOL_FLAG_NON_PAGED_EXECUTE | POOL_FLAG_USE_QUOTA | POOL_FLAG_CACHE_ALIGNED, kTag, true, NonPagedPool},
    {POOL_FLAG_PAGED | POOL_FLAG_OPTIONAL_START, kTag, true, PagedPool}, // flags that may be ignored
    {POOL_FLAG_PAGED | 0x80000000, kTag, false, 0},                      // one that may not
    {0, kTag, false, 0},
    {POOL_FLAG_PAGED | POOL_FLAG_NON_PAGED, kTag, false, 0},
    {POOL_FLAG_PAGED, 0, false, 0},
};

TEST_F(Lookaside, PoolByFlags)
{
    for (const FlagsRow& row : kFlags) {
        SCOPED_TRACE(&row - kFlags);
        const uint64_t before = nthost::PoolAllocations();
        auto* const block = static_cast<char*>(ExAllocatePool2(row.Flags, 100, row.Tag));
        ASSERT_EQ(block != nullptr, row.Given);
        const POOL_FLAGS raises = row.Flags | POOL_FLAG_RAISE_ON_FAILURE;
        if (!block) {
            EXPECT_EQ(Guarded([&] { ExAllocatePool2(raises, 100, row.Tag); }), STATUS_INVALID_PARAMETER);
            continue;
        }
        for (int i = 0; i < 100; ++i) ASSERT_EQ(block[i], 0);
        EXPECT_EQ(nthost::LivePoolBlocks(before).at(0).Type, row.Type);
        ExFreePool2(block, row.Tag, nullptr, 0);
    }
    AsDriver([] {
        const nthost::FaultPlan plan("ExAllocatePoolWithTag", 1);
        EXPECT_EQ(ExAllocatePool2(POOL_FLAG_PAGED, 8, kTag), nullptr);
    });
    AsDriver([] {
        const nthost::FaultPlan plan("ExAllocatePoolWithTag", 1);
        EXPECT_EQ(Guarded([] { ExAllocatePool2(POOL_FLAG_PAGED | POOL_FLAG_RAISE_ON_FAILURE, 8, kTag); }),
                  STATUS_INSUFFICIENT_RESOURCES);
    });
}

TEST_F(Lookaside, GivesBlocksOfItsKindAndKeepsNoneBeyondItsEnd)
{
    PAGED_LOOKASIDE_LIST list;
    ExInitializePagedLookasideList(&list, nullptr, nullptr, 0, 40, kTag, 0);
    PVOID blocks[100];
    for (PVOID& block : blocks) {
        block = ExAllocateFromPagedLookasideList(&list);
        memset(block, 1, 40);
    }
    EXPECT_EQ(nthost::PoolByTag()[kTag].LiveBlocks, 100u);
    EXPECT_EQ(nthost::LivePoolBlocks().back().Type, PagedPool);
    for (PVOID block : blocks) ExFreeToPagedLookasideList(&list, block);
    EXPECT_EQ(nthost::PoolByTag()[kTag].LiveBlocks, list.L.Depth); // what nthost checks keeps nothing
    EXPECT_EQ(list.L.TotalAllocates, 100u);
    EXPECT_EQ(list.L.FreeMisses, 100u - list.L.Depth);
    PVOID const again = ExAllocateFromPagedLookasideList(&list);
    EXPECT_EQ(list.L.AllocateMisses, 100u + (list.L.Depth ? 0 : 1));
    ExFreeToPagedLookasideList(&list, again);
    ExDeletePagedLookasideList(&list);
    EXPECT_EQ(nthost::PoolByTag()[kTag].LiveBlocks, 0u);
}

// The driver's own routines, and a list that keeps blocks: none is handed out twice.
TEST_F(Lookaside, SharedByThreads)
{
    static std::atomic<int> live;
    NPAGED_LOOKASIDE_LIST list;
    ExInitializeNPagedLookasideList(
        &list,
        [](POOL_TYPE type, SIZE_T size, ULONG tag) NTAPI {
            ++live;
            return ExAllocatePoolWithTag(type, size, tag);
        },
        [](PVOID block) NTAPI {
            --live;
            ExFreePoolWithTag(block, kTag);
        },
        0, sizeof(std::atomic<int>), kTag, 0);
    list.L.Depth = 4;
    const auto use = [&] {
        for (int i = 0; i < 3000; ++i) {
            auto* const block = static_cast<volatile int*>(ExAllocateFromNPagedLookasideList(&list));
            *block = i;
            if (i % 64 == 0) std::this_thread::yield();
            ASSERT_EQ(*block, i);
            ExFreeToNPagedLookasideList(&list, const_cast<int*>(block));
        }
    };
    std::thread other = nthost::StartThread(nthost::HostProcess(), use);
    use();
    other.join();
    EXPECT_EQ(live, ExQueryDepthSList(&list.L.ListHead));
    ExDeleteNPagedLookasideList(&list);
    EXPECT_EQ(live, 0);
}

#if NTHOST_CHECKS

TEST_F(Lookaside, NotDeletedIsFound)
{
    const nthost::QuietFindings quiet;
    auto* const list =
        static_cast<PPAGED_LOOKASIDE_LIST>(ExAllocatePoolWithTag(NonPagedPool, sizeof(PAGED_LOOKASIDE_LIST), kTag));
    ExInitializePagedLookasideList(list, nullptr, nullptr, 0, 40, kTag, 0);
    ExFreePoolWithTag(list, kTag);
    const auto findings = nthost::TakeFindings();
    ASSERT_EQ(findings.size(), 1u);
    EXPECT_EQ(findings[0].Rule, "lookaside-list-not-deleted");
}

#endif

} // namespace
