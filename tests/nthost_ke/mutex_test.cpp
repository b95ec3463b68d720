// Mutexes of all kinds: exclusion, ownership, what they do to APCs and IRQL, and what the checks say about misuse.
#include <atomic>

#include "kernel.h"

namespace {

using Mutex = KernelTest;

using Rules = std::vector<std::string>;

// Takes the findings; there are none without checks.
void ExpectRules(const Rules& rules)
{
    Rules found;
    for (const nthost::Finding& finding : nthost::TakeFindings()) found.push_back(finding.Rule);
    EXPECT_EQ(found, NTHOST_CHECKS ? rules : Rules());
}

TEST_F(Mutex, IsRecursiveAndKeepsApcsAway)
{
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    EXPECT_EQ(KeReadStateMutex(&mutex), 1);
    EXPECT_EQ(WaitFor(&mutex), STATUS_SUCCESS);
    EXPECT_EQ(WaitFor(&mutex), STATUS_SUCCESS);
    EXPECT_EQ(KeReadStateMutex(&mutex), -1);
    EXPECT_TRUE(KeAreApcsDisabled());
    EXPECT_FALSE(KeAreAllApcsDisabled());
    OnOtherThread([&] {
        LARGE_INTEGER now{};
        EXPECT_EQ(WaitFor(&mutex, &now), STATUS_TIMEOUT);
        EXPECT_FALSE(KeAreApcsDisabled());
    });
    EXPECT_EQ(KeReleaseMutex(&mutex, FALSE), -1);
    EXPECT_EQ(KeReleaseMutex(&mutex, FALSE), 0);
    EXPECT_EQ(KeReadStateMutex(&mutex), 1);
    EXPECT_FALSE(KeAreApcsDisabled());
}

// A wait for all takes the mutex in the same step, a wait for any only if it is the one.
TEST_F(Mutex, InWaitsForSeveral)
{
    KMUTEX mutex;
    KEVENT event;
    KeInitializeMutex(&mutex, 0);
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    PVOID objects[] = {&event, &mutex};
    LARGE_INTEGER now{};
    const auto wait = [&](WAIT_TYPE type) {
        return KeWaitForMultipleObjects(2, objects, type, Executive, KernelMode, FALSE, &now, nullptr);
    };
    EXPECT_EQ(wait(WaitAll), STATUS_TIMEOUT);
    EXPECT_EQ(KeReadStateMutex(&mutex), 1);
    EXPECT_EQ(wait(WaitAny), STATUS_WAIT_0 + 1);
    KeSetEvent(&event, 0, FALSE);
    EXPECT_EQ(wait(WaitAny), STATUS_WAIT_0);
    EXPECT_EQ(wait(WaitAll), STATUS_WAIT_0);
    EXPECT_EQ(KeReleaseMutex(&mutex, FALSE), -1);
    EXPECT_EQ(KeReleaseMutex(&mutex, FALSE), 0);
}

TEST_F(Mutex, HandedToOneWaiterAtATime)
{
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    int counter = 0;
    const auto count = [&] {
        for (int i = 0; i < 2000; ++i) {
            WaitFor(&mutex);
            ++counter;
            KeReleaseMutex(&mutex, FALSE);
        }
    };
    std::thread other = nthost::StartThread(nthost::HostProcess(), count);
    count();
    other.join();
    EXPECT_EQ(counter, 4000);
}

// Whoever waits for a mutex whose owner is gone gets it, with the news; the next does not hear of it.
TEST_F(Mutex, AbandonedByAThreadThatEnds)
{
    const nthost::QuietFindings quiet;
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    OnOtherThread([&] {
        WaitFor(&mutex);
        WaitFor(&mutex);
    });
    ExpectRules({"lock-held-at-return"});
    EXPECT_EQ(Guarded([&] { KeReleaseMutex(&mutex, FALSE); }), STATUS_ABANDONED);
    ExpectRules({"mutex-not-owner"});
    EXPECT_EQ(WaitFor(&mutex), STATUS_ABANDONED_WAIT_0);
    EXPECT_EQ(WaitFor(&mutex), STATUS_SUCCESS);
    OnOtherThread([&] { EXPECT_EQ(Guarded([&] { KeReleaseMutex(&mutex, FALSE); }), STATUS_MUTANT_NOT_OWNED); });
    ExpectRules({"mutex-not-owner"});
    EXPECT_EQ(KeReleaseMutex(&mutex, FALSE), -1);
    EXPECT_EQ(KeReleaseMutex(&mutex, FALSE), 0);
}

// One body for both kinds of simple mutex.
template <typename M>
struct Simple;

template <>
struct Simple<FAST_MUTEX> {
    static void Initialize(FAST_MUTEX* mutex) { ExInitializeFastMutex(mutex); }
    static void Acquire(FAST_MUTEX* mutex) { ExAcquireFastMutex(mutex); }
    static bool Try(FAST_MUTEX* mutex) { return ExTryToAcquireFastMutex(mutex); }
    static void Release(FAST_MUTEX* mutex) { ExReleaseFastMutex(mutex); }
};

template <>
struct Simple<KGUARDED_MUTEX> {
    static void Initialize(KGUARDED_MUTEX* mutex) { KeInitializeGuardedMutex(mutex); }
    static void Acquire(KGUARDED_MUTEX* mutex) { KeAcquireGuardedMutex(mutex); }
    static bool Try(KGUARDED_MUTEX* mutex) { return KeTryToAcquireGuardedMutex(mutex); }
    static void Release(KGUARDED_MUTEX* mutex) { KeReleaseGuardedMutex(mutex); }
};

template <typename M>
void ExcludesWithApcsOff()
{
    using S = Simple<M>;
    M mutex;
    S::Initialize(&mutex);
    EXPECT_TRUE(S::Try(&mutex));
    EXPECT_TRUE(KeAreAllApcsDisabled());
    EXPECT_EQ(mutex.Owner, KeGetCurrentThread());
    EXPECT_FALSE(S::Try(&mutex));
    OnOtherThread([&] {
        EXPECT_FALSE(S::Try(&mutex));
        EXPECT_FALSE(KeAreAllApcsDisabled());
    });
    S::Release(&mutex);
    EXPECT_FALSE(KeAreAllApcsDisabled());
    EXPECT_EQ(mutex.Count, 1);

    int counter = 0;
    const auto count = [&] {
        for (int i = 0; i < 2000; ++i) {
            S::Acquire(&mutex);
            ++counter;
            S::Release(&mutex);
        }
    };
    std::thread other = nthost::StartThread(nthost::HostProcess(), count);
    count();
    other.join();
    EXPECT_EQ(counter, 4000);
    EXPECT_EQ(mutex.Count, 1);
}

TEST_F(Mutex, FastAndGuardedOnesExcludeWithApcsOff)
{
    ExcludesWithApcsOff<FAST_MUTEX>();
    ExcludesWithApcsOff<KGUARDED_MUTEX>();

    FAST_MUTEX fast;
    ExInitializeFastMutex(&fast);
    KIRQL before;
    KeRaiseIrql(APC_LEVEL, &before);
    ExAcquireFastMutex(&fast);
    ExReleaseFastMutex(&fast);
    EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL); // not lower than its owner came
    KeLowerIrql(before);
}

#if NTHOST_CHECKS

TEST_F(Mutex, MisuseIsFound)
{
    const nthost::QuietFindings quiet;
    FAST_MUTEX fast;
    KGUARDED_MUTEX guarded;
    ExInitializeFastMutex(&fast);
    KeInitializeGuardedMutex(&guarded);

    ExReleaseFastMutex(&fast);
    KeReleaseGuardedMutex(&guarded);
    ExpectRules({"mutex-not-owner", "mutex-not-owner"});

    ExAcquireFastMutexUnsafe(&fast); // the thread could be suspended with it
    ExReleaseFastMutexUnsafe(&fast);
    ExpectRules({"mutex-with-apcs-enabled"});
    {
        const CriticalRegion region;
        ExAcquireFastMutexUnsafe(&fast);
        ExReleaseFastMutexUnsafe(&fast);
    }

    KIRQL before;
    KeRaiseIrql(DISPATCH_LEVEL, &before);
    ExAcquireFastMutex(&fast);
    ExReleaseFastMutex(&fast);
    KeLowerIrql(before);
    ExpectRules({"mutex-above-apc-level"});

    KeLeaveGuardedRegion();
    ExpectRules({"guarded-region-underflow"});

    AsDriver([&] { KeEnterGuardedRegion(); });
    ExpectRules({"guarded-region-left-open"});

    KeAcquireGuardedMutex(&guarded);
    EXPECT_DEATH(KeAcquireGuardedMutex(&guarded), "mutex-recursion");
    KeReleaseGuardedMutex(&guarded);
}

TEST_F(Mutex, OrderIsWatchedAcrossKinds)
{
    const nthost::QuietFindings quiet;
    KMUTEX mutex;
    FAST_MUTEX fast;
    KeInitializeMutex(&mutex, 0);
    ExInitializeFastMutex(&fast);
    WaitFor(&mutex);
    ExAcquireFastMutex(&fast);
    ExReleaseFastMutex(&fast);
    KeReleaseMutex(&mutex, FALSE);
    ExpectRules({});
    ExAcquireFastMutex(&fast);
    WaitFor(&mutex);
    KeReleaseMutex(&mutex, FALSE);
    ExReleaseFastMutex(&fast);
    ExpectRules({"lock-order-cycle"});
}

#endif

} // namespace
