// The checks: each rule is broken once, and each time exactly that is found.
#include <cstdio>

#include "kernel.h"

#if NTHOST_CHECKS

namespace {

class Check : public KernelTest {
protected:
    void SetUp() override
    {
        KernelTest::SetUp();
        for (ERESOURCE& resource : resources_) ASSERT_EQ(ExInitializeResourceLite(&resource), STATUS_SUCCESS);
        for (KSPIN_LOCK& lock : locks_) KeInitializeSpinLock(&lock);
    }

    void TearDown() override
    {
        for (ERESOURCE& resource : resources_) ExDeleteResourceLite(&resource);
        KernelTest::TearDown();
    }

    using AcquireRoutine = decltype(&ExAcquireResourceSharedLite);

    // Takes both, in this order, and gives them back.
    static void Nest(AcquireRoutine outer, PERESOURCE first, AcquireRoutine inner, PERESOURCE second,
                     BOOLEAN wait = TRUE)
    {
        const CriticalRegion region;
        EXPECT_TRUE(outer(first, TRUE));
        EXPECT_TRUE(inner(second, wait));
        ExReleaseResourceLite(second);
        ExReleaseResourceLite(first);
    }
    static void Nest(PERESOURCE first, PERESOURCE second, BOOLEAN wait = TRUE)
    {
        Nest(ExAcquireResourceExclusiveLite, first, ExAcquireResourceSharedLite, second, wait);
    }

    ERESOURCE resources_[4];
    KSPIN_LOCK locks_[2];
};

// Runs the body with findings kept quiet and expects one of the rule.
std::string TheFinding(const char* rule, const std::function<void()>& body)
{
    const nthost::QuietFindings quiet;
    body();
    const auto findings = nthost::TakeFindings();
    EXPECT_EQ(findings.size(), 1u) << rule;
    if (findings.empty()) return "";
    EXPECT_EQ(findings[0].Rule, rule) << findings[0].Detail;
    EXPECT_FALSE(findings[0].Stack.empty());
    return findings[0].Detail;
}

// As driver code on a system thread, where nothing else is wrong.
void ExpectFinding(const char* rule, std::function<void()> body)
{
    SCOPED_TRACE(rule);
    TheFinding(rule, [&] { AsDriver(body); });
}

TEST_F(Check, LevelsAndRegions)
{
    ExpectFinding("wait-above-apc-level", [] {
        KEVENT event;
        KeInitializeEvent(&event, NotificationEvent, TRUE);
        const KIRQL before = KfRaiseIrql(DISPATCH_LEVEL);
        LARGE_INTEGER test{};
        WaitFor(&event, &test); // a test is allowed
        WaitFor(&event);
        KeLowerIrql(before);
    });
    ExpectFinding("critical-region-underflow", [] { KeLeaveCriticalRegion(); });
    ExpectFinding("irql-not-raised", [] {
        KfRaiseIrql(DISPATCH_LEVEL);
        KfRaiseIrql(PASSIVE_LEVEL);
    });
    ExpectFinding("irql-not-lowered", [] {
        KeLowerIrql(APC_LEVEL);
        KeLowerIrql(PASSIVE_LEVEL);
    });
    ExpectFinding("paged-pool-above-apc-level", [] {
        const KIRQL before = KfRaiseIrql(DISPATCH_LEVEL);
        ExFreePool(ExAllocatePoolWithTag(NonPagedPool, 8, PoolTag("Test")));
        void* const block = ExAllocatePoolWithTag(PagedPool, 8, PoolTag("Test"));
        KeLowerIrql(before);
        ExFreePool(block);
    });
    ExpectFinding("pool-above-dispatch-level", [] {
        const KIRQL before = KfRaiseIrql(HIGH_LEVEL);
        void* const block = ExAllocatePoolWithTag(NonPagedPool, 8, PoolTag("Test"));
        KeLowerIrql(before);
        ExFreePool(block);
    });
}

TEST_F(Check, Resources)
{
    PERESOURCE const resource = resources_;
    ExpectFinding("resource-above-apc-level", [=] {
        const KIRQL before = KfRaiseIrql(DISPATCH_LEVEL);
        ExAcquireResourceSharedLite(resource, TRUE);
        ExReleaseResourceLite(resource);
        KeLowerIrql(before);
    });
    ExpectFinding("resource-not-owner", [=] { ExReleaseResourceLite(resource); });
    ExpectFinding("resource-not-owner", [=] { ExConvertExclusiveToSharedLite(resource); });
    ExpectFinding("resource-deleted-owned", [] {
        ERESOURCE deleted;
        (void)ExInitializeResourceLite(&deleted);
        ExAcquireResourceSharedLite(&deleted, TRUE);
        ExDeleteResourceLite(&deleted);
    });
    ExpectFinding("resource-not-deleted", [] {
        auto* const left =
            static_cast<PERESOURCE>(ExAllocatePoolWithTag(NonPagedPool, sizeof(ERESOURCE), PoolTag("Test")));
        (void)ExInitializeResourceLite(left);
        ExFreePool(left);
    });
    TheFinding("resource-outside-critical-region", [=] {
        ExAcquireResourceSharedLite(resource, TRUE);
        ExReleaseResourceLite(resource);
        const KIRQL before = KfRaiseIrql(APC_LEVEL); // as good as a region
        ExAcquireResourceSharedLite(resource, TRUE);
        ExReleaseResourceLite(resource);
        KeLowerIrql(before);
    });
    ExpectFinding("lock-held-at-return", [=] {
        ExAcquireResourceSharedLite(resource, TRUE);
        PsTerminateSystemThread(STATUS_SUCCESS);
    });
    // The thread is gone; what it held has to be taken back for the fixture's delete.
    (void)ExInitializeResourceLite(resource);
}

struct LeftBehind {
    const char* Rule;
    PWORKER_THREAD_ROUTINE Routine;
};

TEST_F(Check, WhatAWorkItemLeavesBehind)
{
    const LeftBehind rows[] = {
        {"irql-changed", [](PVOID) NTAPI { KfRaiseIrql(APC_LEVEL); }},
        {"critical-region-left-open", [](PVOID) NTAPI { KeEnterCriticalRegion(); }},
        {"top-level-irp-left", [](PVOID) NTAPI { IoSetTopLevelIrp(reinterpret_cast<PIRP>(FSRTL_FSP_TOP_LEVEL_IRP)); }},
    };
    for (const LeftBehind& row : rows)
        TheFinding(row.Rule, [&] {
            WORK_QUEUE_ITEM item;
            KSEMAPHORE ended;
            KeInitializeSemaphore(&ended, 0, 1);
            ExInitializeWorkItem(&item, row.Routine, nullptr);
            ExQueueWorkItem(&item, HyperCriticalWorkQueue);
            // One worker serves that queue: the second item runs after the first was looked at.
            WORK_QUEUE_ITEM last;
            ExInitializeWorkItem(
                &last,
                [](PVOID semaphore) NTAPI { KeReleaseSemaphore(static_cast<PKSEMAPHORE>(semaphore), 0, 1, FALSE); },
                &ended);
            ExQueueWorkItem(&last, HyperCriticalWorkQueue);
            WaitFor(&ended);
        });
}

TEST_F(Check, SpinLockReleasedByAnother)
{
    KIRQL before;
    KeAcquireSpinLock(&locks_[0], &before);
    TheFinding("spinlock-not-owner", [&] { OnOtherThread([&] { KeReleaseSpinLock(&locks_[0], PASSIVE_LEVEL); }); });
    KeReleaseSpinLock(&locks_[0], before);
}

TEST_F(Check, OppositeOrderOfTwoLocksIsFoundOnce)
{
    ERESOURCE *const a = &resources_[0], *const b = &resources_[1], *const c = &resources_[2];
    Nest(a, b);
    Nest(b, c);
    const std::string detail = TheFinding("lock-order-cycle", [&] {
        Nest(c, a);
        Nest(c, a);
    });
    for (const PERESOURCE resource : {a, b, c}) { // the whole cycle is named
        char address[32];
        snprintf(address, sizeof(address), "%p", static_cast<void*>(resource));
        EXPECT_NE(detail.find(address), std::string::npos) << detail;
    }
}

TEST_F(Check, OrdersThatAreNoCycle)
{
    ERESOURCE *const a = &resources_[0], *const b = &resources_[1];
    Nest(a, b, FALSE); // an attempt does not wait, so it cannot deadlock
    Nest(b, a);
    ExDeleteResourceLite(a);
    ASSERT_EQ(ExInitializeResourceLite(a), STATUS_SUCCESS);
    Nest(a, b); // a new lock at an old address

    const CriticalRegion region; // recursion is no order
    ExAcquireResourceExclusiveLite(a, TRUE);
    ExAcquireResourceExclusiveLite(b, TRUE);
    ExAcquireResourceExclusiveLite(a, TRUE);
    ExReleaseResourceLite(a);
    ExReleaseResourceLite(b);
    ExReleaseResourceLite(a);
}

// A sharer holds up who wants it alone, and behind him the next sharer, unless that one passes by who waits.
TEST_F(Check, OrdersTellSharersFromOwners)
{
    constexpr AcquireRoutine alone = ExAcquireResourceExclusiveLite, shared = ExAcquireResourceSharedLite,
                             passingBy = ExAcquireSharedStarveExclusive;
    ERESOURCE *const a = &resources_[0], *const b = &resources_[1], *const c = &resources_[2];
    Nest(shared, a, alone, b);
    Nest(alone, b, passingBy, a);
    EXPECT_TRUE(nthost::TakeFindings().empty());
    const std::string detail = TheFinding("lock-order-cycle", [&] { Nest(alone, b, shared, a); });
    EXPECT_NE(detail.find("wait for who shares"), std::string::npos) << detail;

    Nest(shared, c, shared, b);
    Nest(shared, b, passingBy, c);
    EXPECT_TRUE(nthost::TakeFindings().empty());
    TheFinding("lock-order-cycle", [&] { Nest(shared, b, shared, c); });

    ERESOURCE* const d = &resources_[3];
    Nest(alone, d, passingBy, c);
    TheFinding("lock-order-cycle", [&] { Nest(alone, c, passingBy, d); });
}

TEST_F(Check, ClassesConnectDifferentLocks)
{
    nthost::NameLock(&resources_[0], "Outer");
    nthost::NameLock(&resources_[1], "Inner");
    nthost::NameLock(&resources_[2], "Inner");
    nthost::NameLock(&resources_[3], "Outer");
    Nest(&resources_[0], &resources_[1]);
    Nest(&resources_[1], &resources_[2]); // two of a class, in one order only
    Nest(ExAcquireResourceSharedLite, &resources_[1], ExAcquireResourceExclusiveLite, &resources_[2]);
    const std::string detail = TheFinding("lock-order-cycle", [&] { Nest(&resources_[2], &resources_[3]); });
    EXPECT_NE(detail.find("class Inner"), std::string::npos) << detail;
    EXPECT_NE(detail.find("class Outer"), std::string::npos) << detail;
    TheFinding("lock-order-cycle", [&] { Nest(&resources_[2], &resources_[1]); });
}

TEST_F(Check, LocksInFreedPoolAreForgotten)
{
    auto* const lock =
        static_cast<PKSPIN_LOCK>(ExAllocatePoolWithTag(NonPagedPool, sizeof(KSPIN_LOCK), PoolTag("Test")));
    const auto nest = [](PKSPIN_LOCK first, PKSPIN_LOCK second) {
        const KIRQL before = KeAcquireSpinLockRaiseToDpc(first);
        KeReleaseSpinLock(second, KeAcquireSpinLockRaiseToDpc(second));
        KeReleaseSpinLock(first, before);
    };
    KeInitializeSpinLock(lock);
    nest(&locks_[0], lock);
    nest(lock, &locks_[1]);
    ExFreePool(lock);
    nest(&locks_[1], &locks_[0]);
}

using CheckDeathTest = Check;

// The queue's only worker is held up, so the first time is not over when the second comes.
void QueueOneTwice()
{
    static KEVENT never;
    static WORK_QUEUE_ITEM holder, item;
    KeInitializeEvent(&never, NotificationEvent, FALSE);
    ExInitializeWorkItem(
        &holder, [](PVOID) NTAPI { WaitFor(&never); }, nullptr);
    ExInitializeWorkItem(
        &item, [](PVOID) NTAPI {}, nullptr);
    ExQueueWorkItem(&holder, HyperCriticalWorkQueue);
    ExQueueWorkItem(&item, HyperCriticalWorkQueue);
    ExQueueWorkItem(&item, HyperCriticalWorkQueue);
}

TEST_F(CheckDeathTest, AWorkItemQueuedTwiceIsFatal) { EXPECT_DEATH(QueueOneTwice(), "work-item-queued-twice"); }

TEST_F(CheckDeathTest, CertainDeadlocksAreFatal)
{
    EXPECT_DEATH((KeAcquireSpinLockRaiseToDpc(&locks_[0]), KeAcquireSpinLockRaiseToDpc(&locks_[0])),
                 "spinlock-recursion.*holds spin lock");
    const CriticalRegion region;
    EXPECT_DEATH(
        {
            ExAcquireResourceSharedLite(&resources_[0], TRUE);
            ExAcquireResourceExclusiveLite(&resources_[0], TRUE);
        },
        "resource-upgrade-deadlock");
    EXPECT_DEATH(
        {
            ExDeleteResourceLite(&resources_[0]);
            ExAcquireResourceExclusiveLite(&resources_[0], TRUE);
        },
        "resource-used-after-delete");
}

} // namespace

#endif
