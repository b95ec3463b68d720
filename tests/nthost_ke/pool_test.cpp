// Pool: what a block is like, what the statistics say, what misuse ends in; failures on demand.
#include <cstring>

#include <nthost/faults.h>
#include <nthost/pool.h>

#include "kernel.h"

namespace {

constexpr ULONG kTag = PoolTag("Test");
const POOL_TYPE kZeroed = static_cast<POOL_TYPE>(NonPagedPool | POOL_ZERO_ALLOCATION);

using Pool = KernelTest;

bool IsFilledWith(const void* block, SIZE_T size, unsigned char byte)
{
    const auto* const bytes = static_cast<const unsigned char*>(block);
    for (SIZE_T i = 0; i < size; ++i)
        if (bytes[i] != byte) return false;
    return true;
}

TEST_F(Pool, AlignmentAndContents)
{
    for (const SIZE_T size : {0, 1, 15, 16, 100, 4095, 4096, 4097, 70000}) {
        SCOPED_TRACE(size);
        void* const plain = ExAllocatePoolWithTag(PagedPool, size, kTag);
        void* const zeroed = ExAllocatePoolWithTag(kZeroed, size, kTag);
        for (void* const block : {plain, zeroed})
            EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % (size >= PAGE_SIZE ? PAGE_SIZE : 16), 0u);
        EXPECT_TRUE(IsFilledWith(zeroed, size, 0));
        if (NTHOST_CHECKS) {
            EXPECT_TRUE(IsFilledWith(plain, size, 0xcd)); // contents that no code can take for zeros
        }
        memset(plain, 1, size);
        ExFreePoolWithTag(plain, kTag);
        ExFreePool(zeroed);
    }
}

TEST_F(Pool, StatisticsByTagAndBlock)
{
    const uint64_t before = nthost::PoolAllocations();
    void* const first = ExAllocatePoolWithTag(PagedPool, 100, kTag);
    void* const second = ExAllocatePoolWithTag(NonPagedPool, 50, kTag);
    void* const other = ExAllocatePoolWithTag(NonPagedPool, 7, PoolTag("Othr"));
    ExFreePoolWithTag(other, PoolTag("Othr"));
    EXPECT_EQ(nthost::PoolAllocations() - before, 3u);
    EXPECT_EQ(nthost::PoolByTag()[kTag].LiveBlocks, 2u);
    EXPECT_EQ(nthost::PoolByTag()[kTag].LiveBytes, 150u);
    EXPECT_EQ(nthost::PoolByTag().count(PoolTag("Othr")), 0u);

    const auto blocks = nthost::LivePoolBlocks(before);
    ASSERT_EQ(blocks.size(), 2u);
    EXPECT_EQ(blocks[0].Address, first);
    EXPECT_EQ(blocks[0].Type, PagedPool);
    EXPECT_EQ(blocks[1].Serial, before + 2);
    EXPECT_FALSE(blocks[1].FromDriver);
    EXPECT_EQ(blocks[1].Stack.empty(), !NTHOST_CHECKS);
    EXPECT_NE(nthost::PoolBlockText(blocks[1]).find("tag Test, 50 bytes, non-paged"), std::string::npos);
    ExFreePoolWithTag(first, kTag);
    ExFreePoolWithTag(second, 0);
}

TEST_F(Pool, ShutdownReportsWhatIsLeft)
{
    void* const left = ExAllocatePoolWithTag(PagedPool, 33, kTag);
    const std::vector<std::string> leaks = ShutDown();
    ASSERT_EQ(leaks.size(), 1u);
    EXPECT_NE(leaks[0].find("tag Test, 33 bytes"), std::string::npos);
    ExFreePool(left);
}

using PoolDeathTest = KernelTest;

TEST_F(PoolDeathTest, MisuseIsFatal)
{
    void* const block = ExAllocatePoolWithTag(PagedPool, 20, kTag);
    EXPECT_DEATH(ExFreePoolWithTag(block, PoolTag("Wrng")), "pool-wrong-tag.*tag Wrng.*tag Test");
    if (NTHOST_CHECKS) {
        EXPECT_DEATH((ExFreePoolWithTag(block, kTag), ExFreePoolWithTag(block, kTag)), "freed twice");
        EXPECT_DEATH(ExFreePoolWithTag(static_cast<char*>(block) + 16, kTag), "never from pool");
    }
    // The compiler must not see that the bytes lie outside.
    volatile char* const bytes = static_cast<volatile char*>(block);
    EXPECT_DEATH((bytes[20] = 1, ExFreePoolWithTag(block, kTag)), "pool-overrun|heap-buffer-overflow");
    EXPECT_DEATH((bytes[-1] = 1, ExFreePoolWithTag(block, kTag)),
                 "pool-underrun|use-after-poison|heap-buffer-overflow");
    ExFreePoolWithTag(block, kTag);
}

NTSTATUS TwoAllocations()
{
    void* const first = ExAllocatePoolWithTag(PagedPool, 1, kTag);
    if (!first) return STATUS_INSUFFICIENT_RESOURCES;
    void* const second = ExAllocatePoolWithTag(PagedPool, 1, kTag);
    if (second) ExFreePool(second);
    ExFreePool(first);
    return second ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

TEST_F(Pool, FaultsHitDriverCodeOnlyAndSweepsEnd)
{
    {
        const nthost::FaultPlan plan("ExAllocatePoolWithTag", 1, true);
        EXPECT_EQ(TwoAllocations(), STATUS_SUCCESS);
        EXPECT_EQ(plan.Calls(), 0u);
        AsDriver([] { EXPECT_EQ(TwoAllocations(), STATUS_INSUFFICIENT_RESOURCES); });
        EXPECT_EQ(plan.Injected(), 1u);
        const auto raising = static_cast<POOL_TYPE>(PagedPool | POOL_RAISE_IF_ALLOCATION_FAILURE);
        AsDriver([&] {
            EXPECT_EQ(Guarded([&] { ExAllocatePoolWithTag(raising, 1, kTag); }), STATUS_INSUFFICIENT_RESOURCES);
        });
    }
    unsigned failures = 0;
    const unsigned sites = nthost::SweepFaults(
        "ExAllocatePoolWithTag", [&](unsigned) { AsDriver([&] { failures += !NT_SUCCESS(TwoAllocations()); }); });
    EXPECT_EQ(sites, 2u);
    EXPECT_EQ(failures, 2u);
}

TEST_F(Pool, NamedRoutinesFailOnDemand)
{
    AsDriver([] {
        ERESOURCE resource;
        HANDLE thread = nullptr;
        const nthost::FaultPlan resources("ExInitializeResourceLite", 1), threads("PsCreateSystemThread", 1);
        EXPECT_EQ(ExInitializeResourceLite(&resource), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(PsCreateSystemThread(
                      &thread, 0, nullptr, nullptr, nullptr, [](PVOID) NTAPI {}, nullptr),
                  STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(thread, nullptr);
        EXPECT_EQ(ExInitializeResourceLite(&resource), STATUS_SUCCESS);
        ExDeleteResourceLite(&resource);
    });
}

} // namespace
