// Resources: who gets them, who waits, in what order they are handed on.
#include <atomic>
#include <vector>

#include "kernel.h"

namespace {

using Acquire = BOOLEAN(NTAPI*)(PERESOURCE, BOOLEAN);

class Resource : public KernelTest {
protected:
    void SetUp() override
    {
        KernelTest::SetUp();
        KeEnterCriticalRegion();
        ASSERT_EQ(ExInitializeResourceLite(&resource_), STATUS_SUCCESS);
    }

    void TearDown() override
    {
        EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource_), 0u);
        ExDeleteResourceLite(&resource_);
        KeLeaveCriticalRegion();
        KernelTest::TearDown();
    }

    // What another thread gets without waiting; it gives it back.
    bool OtherGets(Acquire acquire)
    {
        bool got = false;
        OnOtherThread([&] {
            const CriticalRegion region;
            got = acquire(&resource_, FALSE);
            if (got) ExReleaseResourceLite(&resource_);
        });
        return got;
    }

    // A thread that waits for the resource; on return it is in the queue.
    std::thread Waiter(Acquire acquire, std::function<void()> owned)
    {
        const ULONG before = Waiters();
        std::thread thread = nthost::StartThread(nthost::HostProcess(), [=, this] {
            const CriticalRegion region;
            EXPECT_TRUE(acquire(&resource_, TRUE));
            owned();
            ExReleaseResourceLite(&resource_);
        });
        YieldUntil([&] { return Waiters() > before; });
        return thread;
    }

    ULONG Waiters() { return ExGetExclusiveWaiterCount(&resource_) + ExGetSharedWaiterCount(&resource_); }

    void Release(int times)
    {
        while (times--) ExReleaseResourceLite(&resource_);
    }

    ERESOURCE resource_;
};

constexpr Acquire kExclusive = ExAcquireResourceExclusiveLite;
constexpr Acquire kShared = ExAcquireResourceSharedLite;
constexpr Acquire kStarve = ExAcquireSharedStarveExclusive;

struct OwnerRow {
    const char* Why;
    std::vector<Acquire> Owned;     // by this thread, in order
    bool MoreShared, MoreExclusive; // what this thread may take on top
    bool OtherShared, OtherExclusive;
};

TEST_F(Resource, OwnersAndOthers)
{
    const OwnerRow rows[] = {
        {"free", {}, true, true, true, true},
        {"shared", {kShared}, true, false, true, false},
        {"shared, twice", {kShared, kStarve}, true, false, true, false},
        {"exclusive", {kExclusive}, true, true, false, false},
        {"exclusive and shared on top stays exclusive", {kExclusive, kShared}, true, true, false, false},
    };
    for (const OwnerRow& row : rows) {
        SCOPED_TRACE(row.Why);
        for (const Acquire acquire : row.Owned) EXPECT_TRUE(acquire(&resource_, TRUE));
        EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource_), row.Owned.size());
        EXPECT_EQ(ExIsResourceAcquiredExclusiveLite(&resource_), !row.Owned.empty() && row.Owned[0] == kExclusive);
        for (const auto& [acquire, expected] : {std::pair{kShared, row.MoreShared}, {kExclusive, row.MoreExclusive}}) {
            const bool got = acquire(&resource_, FALSE);
            EXPECT_EQ(got, expected);
            if (got) Release(1);
        }
        EXPECT_EQ(OtherGets(kShared), row.OtherShared);
        EXPECT_EQ(OtherGets(kStarve), row.OtherShared);
        EXPECT_EQ(OtherGets(kExclusive), row.OtherExclusive);
        Release(static_cast<int>(row.Owned.size()));
    }
}

TEST_F(Resource, WaitingExclusiveHoldsBackNewSharedOnly)
{
    ASSERT_TRUE(kShared(&resource_, TRUE));
    std::atomic<bool> owned{false};
    std::thread writer = Waiter(kExclusive, [&] { owned = true; });
    EXPECT_EQ(ExGetExclusiveWaiterCount(&resource_), 1u);
    EXPECT_FALSE(OtherGets(kShared));
    EXPECT_TRUE(OtherGets(kStarve));
    EXPECT_TRUE(kShared(&resource_, TRUE)); // an owner would deadlock with the waiter otherwise
    EXPECT_FALSE(owned);
    Release(2);
    writer.join();
    EXPECT_TRUE(owned);
    EXPECT_EQ(Waiters(), 0u);
}

// After an exclusive owner the shared waiters, all of them; after shared owners an exclusive waiter.
TEST_F(Resource, HandedOnInTurns)
{
    std::atomic<int> readers{0}, readersSeenByWriter{-1};
    KEVENT leave;
    KeInitializeEvent(&leave, NotificationEvent, FALSE);
    ASSERT_TRUE(kExclusive(&resource_, TRUE));
    std::thread writer = Waiter(kExclusive, [&] { readersSeenByWriter = readers.load(); });
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.push_back(Waiter(kShared, [&] {
            ++readers;
            WaitFor(&leave);
        }));
    EXPECT_EQ(ExGetSharedWaiterCount(&resource_), 3u);
    Release(1);
    YieldUntil([&] { return readers == 3; });
    EXPECT_EQ(readersSeenByWriter, -1);
    KeSetEvent(&leave, 0, FALSE);
    for (std::thread& thread : threads) thread.join();
    writer.join();
    EXPECT_EQ(readersSeenByWriter, 3);
}

TEST_F(Resource, ConversionLetsSharedWaitersIn)
{
    ASSERT_TRUE(kExclusive(&resource_, TRUE));
    ASSERT_TRUE(kExclusive(&resource_, TRUE));
    std::thread reader = Waiter(kShared, [] {});
    ExConvertExclusiveToSharedLite(&resource_);
    reader.join();
    EXPECT_FALSE(ExIsResourceAcquiredExclusiveLite(&resource_));
    EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource_), 2u);
    EXPECT_TRUE(OtherGets(kShared));
    EXPECT_FALSE(OtherGets(kExclusive));
    Release(2);
}

TEST_F(Resource, ReleasedForAnotherThread)
{
    for (const Acquire acquire : {kShared, kExclusive}) {
        ASSERT_TRUE(acquire(&resource_, TRUE));
        ASSERT_TRUE(acquire(&resource_, TRUE));
        const ERESOURCE_THREAD owner = ExGetCurrentResourceThread();
        OnOtherThread([&] { ExReleaseResourceForThreadLite(&resource_, owner); });
        EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource_), 1u);
        OnOtherThread([&] { ExReleaseResourceForThreadLite(&resource_, owner); });
        EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource_), 0u);
        EXPECT_TRUE(OtherGets(kExclusive));
    }
}

TEST_F(Resource, ReleasedForAThreadThatHasEnded)
{
    if (NTHOST_CHECKS) {
        const nthost::QuietFindings quiet;
        ERESOURCE_THREAD owner = 0;
        OnOtherThread([&] {
            owner = ExGetCurrentResourceThread();
            const CriticalRegion region;
            EXPECT_TRUE(kShared(&resource_, TRUE));
        });
        ExReleaseResourceForThreadLite(&resource_, owner);
        EXPECT_TRUE(OtherGets(kExclusive));
        const auto findings = nthost::TakeFindings();
        ASSERT_EQ(findings.size(), 1u);
        EXPECT_EQ(findings[0].Rule, "lock-held-at-return"); // at the thread's end
    }
}

TEST_F(Resource, ManyThreads)
{
    int guarded = 0;
    std::atomic<int> readersInside{0};
    const auto work = [&](unsigned seed) {
        const CriticalRegion region;
        for (unsigned i = 0; i < 1500; ++i) {
            const unsigned kind = (seed = seed * 1103515245 + 12345) >> 16 & 7;
            if (kind < 2) {
                kExclusive(&resource_, TRUE);
                EXPECT_EQ(readersInside, 0);
                ++guarded;
                if (kind) {
                    ExConvertExclusiveToSharedLite(&resource_);
                    EXPECT_TRUE(kShared(&resource_, TRUE));
                    ExReleaseResourceLite(&resource_);
                }
            } else if ((kind & 1 ? kStarve : kShared)(&resource_, kind & 2)) {
                ++readersInside;
                EXPECT_GE(guarded, 0);
                EXPECT_TRUE(kShared(&resource_, TRUE));
                ExReleaseResourceLite(&resource_);
                --readersInside;
            } else {
                continue;
            }
            ExReleaseResourceLite(&resource_);
        }
    };
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 4; ++i) threads.push_back(nthost::StartThread(nthost::HostProcess(), [&, i] { work(i); }));
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(Waiters(), 0u);
    EXPECT_TRUE(kExclusive(&resource_, FALSE));
    Release(1);
}

} // namespace
