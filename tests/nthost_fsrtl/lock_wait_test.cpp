// Requests that wait for a range: when they are granted, in which order, and how else they end. The race tests meet at
// a barrier; every request counts its completions, so one too many or none fails the test.
#include "lock_fixture.h"

#include <barrier>
#include <functional>
#include <memory>

namespace {

using namespace locktest;

constexpr Who A{0, 0, 0};
constexpr Who B{1, 1, 0};
constexpr Who C{2, 2, 0};
constexpr bool Shared = false, Exclusive = true;

class LockWait : public LockTest {
protected:
    void ExpectOrder(std::initializer_list<LockRequest*> expected)
    {
        EXPECT_EQ(log_, std::vector<LockRequest*>(expected));
        log_.clear();
    }
    // Issues a request that has to wait, and has it line up in the log when it ends.
    void Wait(LockRequest& request, const Who& who, Bytes bytes, bool exclusive, PVOID context = nullptr)
    {
        request.Log = &log_;
        ASSERT_EQ(request.Lock(&Lock_, who, bytes, exclusive, context), STATUS_PENDING);
        EXPECT_TRUE(request.MarkedPending());
        EXPECT_EQ(request.Completions, 0);
    }

    std::vector<LockRequest*> log_;
};

TEST_F(LockWait, UnlockServesWaitersInOrderOfArrival)
{
    ASSERT_TRUE(TryLock(A, {0, 10}, Exclusive));
    LockRequest reader1, writer, reader2;
    Wait(reader1, B, {0, 10}, Shared);
    Wait(writer, C, {0, 10}, Exclusive);
    Wait(reader2, C, {5, 1}, Shared);
    ASSERT_EQ(Unlock(A, {0, 10}), STATUS_SUCCESS);
    // The readers go together; the writer, which came between them, needs the range alone.
    ExpectOrder({&reader1, &reader2});
    ASSERT_EQ(Unlock(B, {0, 10}), STATUS_SUCCESS);
    ExpectOrder({});
    ASSERT_EQ(Unlock(C, {5, 1}), STATUS_SUCCESS);
    ExpectOrder({&writer});
    EXPECT_EQ(writer.Status, STATUS_SUCCESS);
    EXPECT_FALSE(MayRead(A, {0, 1}));
}

TEST_F(LockWait, UnlockOfAllWakesOthersAndEndsTheOwnersWaits)
{
    ASSERT_TRUE(TryLock(A, {0, 1}, Exclusive));
    ASSERT_TRUE(TryLock(A, {5, 1}, Exclusive));
    ASSERT_TRUE(TryLock(C, {9, 1}, Exclusive));
    LockRequest own, ownOtherKey, other, stillHeld;
    Wait(own, A, {9, 1}, Exclusive);
    Wait(other, B, {0, 6}, Exclusive);
    Wait(ownOtherKey, {0, 0, 7}, {0, 1}, Exclusive);
    Wait(stillHeld, B, {9, 1}, Shared);
    ASSERT_EQ(FsRtlFastUnlockAllByKey(&Lock_, File(A), Process(A), 7, nullptr), STATUS_SUCCESS);
    ExpectOrder({&ownOtherKey});
    ASSERT_EQ(FsRtlFastUnlockAll(&Lock_, File(A), Process(A), nullptr), STATUS_SUCCESS);
    ExpectOrder({&own, &other});
    EXPECT_EQ(own.Status, STATUS_RANGE_NOT_LOCKED);
    EXPECT_EQ(ownOtherKey.Status, STATUS_RANGE_NOT_LOCKED);
    EXPECT_EQ(other.Status, STATUS_SUCCESS);
    ASSERT_EQ(Unlock(C, {9, 1}), STATUS_SUCCESS);
    ExpectOrder({&stillHeld});
}

TEST_F(LockWait, ARequestCancelledBeforeItWouldWaitFailsAtOnce)
{
    ASSERT_TRUE(TryLock(A, {0, 10}, Exclusive));
    LockRequest request;
    EXPECT_FALSE(request.Cancel());
    EXPECT_EQ(request.Lock(&Lock_, B, {0, 1}, Shared), STATUS_CANCELLED);
    EXPECT_FALSE(request.MarkedPending());
}

TEST_F(LockWait, EndOfTheFileLockRefusesWhatWaits)
{
    ASSERT_TRUE(TryLock(A, {0, 10}, Exclusive));
    LockRequest first, second;
    Wait(first, B, {0, 10}, Exclusive);
    Wait(second, A, {0, 10}, Exclusive);
    FsRtlUninitializeFileLock(&Lock_);
    ExpectOrder({&first, &second});
    EXPECT_EQ(first.Status, STATUS_RANGE_NOT_LOCKED);
    EXPECT_FALSE(FsRtlAreThereCurrentFileLocks(&Lock_));
}

TEST_F(LockWait, ACancellationUnderWayKeepsTheRequestFromEveryoneElse)
{
    const std::function<void()> enders[] = {
        [&] {
            Unlock(A, {0, 10});
        },
        [&] { FsRtlFastUnlockAll(&Lock_, File(B), Process(B), nullptr); },
        [&] { FsRtlUninitializeFileLock(&Lock_); },
    };
    for (const auto& end : enders) {
        LockRequest request;
        FsRtlFastUnlockAll(&Lock_, File(A), Process(A), nullptr);
        ASSERT_TRUE(TryLock(A, {0, 10}, Exclusive));
        Wait(request, B, {0, 10}, Exclusive);
        PDRIVER_CANCEL const routine = request.BeginCancel();
        ASSERT_NE(routine, nullptr);
        end();
        EXPECT_EQ(request.Completions, 0);
        request.EndCancel(routine);
        ASSERT_EQ(request.Completions, 1);
        EXPECT_EQ(request.Status, STATUS_CANCELLED);
        EXPECT_EQ(Unlock(B, {0, 10}), STATUS_RANGE_NOT_LOCKED);
    }
}

// --- callbacks

struct Callbacks {
    unsigned Completed = 0;
    NTSTATUS Answer = STATUS_SUCCESS;
    std::vector<LONGLONG> Released; // first bytes
};

NTSTATUS NTAPI CompleteRoutine(PVOID context, PIRP irp)
{
    auto* const callbacks = static_cast<Callbacks*>(context);
    ++callbacks->Completed;
    const NTSTATUS answer = NT_SUCCESS(irp->IoStatus.Status) ? callbacks->Answer : irp->IoStatus.Status;
    irp->IoStatus.Status = answer;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return answer;
}

VOID NTAPI UnlockRoutine(PVOID context, PFILE_LOCK_INFO lock)
{
    static_cast<Callbacks*>(context)->Released.push_back(lock->StartingByte.QuadPart);
}

class LockCallbacks : public LockWait {
protected:
    void SetUp() override
    {
        LockWait::SetUp();
        FsRtlInitializeFileLock(&Lock_, CompleteRoutine, UnlockRoutine);
    }
};

TEST_F(LockCallbacks, TheRoutineCompletesAndUnlocksAreReportedOnce)
{
    Callbacks callbacks;
    LockRequest granted, waiting, unlock;
    ASSERT_EQ(granted.Lock(&Lock_, A, {3, 1}, Exclusive, &callbacks), STATUS_SUCCESS);
    ASSERT_TRUE(TryLock(A, {4, 1}, Exclusive));
    Wait(waiting, B, {3, 2}, Exclusive, &callbacks);
    ASSERT_EQ(FsRtlFastUnlockAll(&Lock_, File(A), Process(A), &callbacks), STATUS_SUCCESS);
    EXPECT_EQ(callbacks.Released, (std::vector<LONGLONG>{3, 4}));
    EXPECT_EQ(waiting.Status, STATUS_SUCCESS);
    EXPECT_EQ(unlock.Issue(&Lock_, File(A), IRP_MN_UNLOCK_SINGLE, {3, 1}, 0, 0, &callbacks), STATUS_RANGE_NOT_LOCKED);
    EXPECT_EQ(callbacks.Completed, 3u);
}

TEST_F(LockCallbacks, AGrantThatIsTurnedDownIsTakenBackForTheNext)
{
    Callbacks refuses, accepts;
    refuses.Answer = STATUS_ACCESS_DENIED;
    LockRequest first, second, third, fourth;
    EXPECT_EQ(first.Lock(&Lock_, A, {0, 1}, Exclusive, &refuses), STATUS_ACCESS_DENIED);
    EXPECT_FALSE(FsRtlAreThereCurrentFileLocks(&Lock_));

    ASSERT_EQ(second.Lock(&Lock_, A, {0, 1}, Exclusive, &accepts), STATUS_SUCCESS);
    Wait(third, B, {0, 1}, Exclusive, &refuses);
    Wait(fourth, C, {0, 1}, Exclusive, &accepts);
    ASSERT_EQ(FsRtlFastUnlockAll(&Lock_, File(A), Process(A), &accepts), STATUS_SUCCESS);
    ExpectOrder({&third, &fourth});
    EXPECT_EQ(third.Status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(fourth.Status, STATUS_SUCCESS);
    EXPECT_EQ(HeldCount(), 1u);
    EXPECT_TRUE(refuses.Released.empty());
}

// --- races

constexpr int Rounds = 300;

// Runs both at once, again and again; prepare and check run alone before and after.
template <typename Prepare, typename First, typename Second, typename Check>
void Race(Prepare prepare, First first, Second second, Check check)
{
    std::barrier gate(2);
    std::thread other = nthost::StartThread(nthost::HostProcess(), [&] {
        for (int i = 0; i < Rounds; ++i) {
            gate.arrive_and_wait();
            second();
            gate.arrive_and_wait();
        }
    });
    for (int i = 0; i < Rounds; ++i) {
        prepare();
        gate.arrive_and_wait();
        first();
        gate.arrive_and_wait();
        check();
    }
    other.join();
}

TEST_F(LockWait, CancellationAgainstGrantEndsTheRequestOnce)
{
    std::unique_ptr<LockRequest> request;
    bool cancelled = false;
    Race(
        [&] {
            ASSERT_TRUE(TryLock(A, {0, 10}, Exclusive));
            request = std::make_unique<LockRequest>();
            ASSERT_EQ(request->Lock(&Lock_, B, {5, 1}, Exclusive), STATUS_PENDING);
        },
        [&] {
            EXPECT_EQ(Unlock(A, {0, 10}), STATUS_SUCCESS);
        },
        [&] { cancelled = request->Cancel(); },
        [&] {
            ASSERT_EQ(request->Completions, 1);
            EXPECT_EQ(request->Status, cancelled ? STATUS_CANCELLED : STATUS_SUCCESS);
            EXPECT_EQ(Unlock(B, {5, 1}), cancelled ? STATUS_RANGE_NOT_LOCKED : STATUS_SUCCESS);
        });
}

TEST_F(LockWait, CancellationAgainstQueueingNeverLosesTheRequest)
{
    std::unique_ptr<LockRequest> request;
    NTSTATUS returned = STATUS_SUCCESS;
    ASSERT_TRUE(TryLock(A, {0, 10}, Exclusive));
    Race([&] { request = std::make_unique<LockRequest>(); },
         [&] {
             returned = request->Lock(&Lock_, B, {5, 1}, Exclusive);
         },
         [&] { request->Cancel(); },
         [&] {
             ASSERT_EQ(request->Completions, 1);
             EXPECT_EQ(request->Status, STATUS_CANCELLED);
             EXPECT_EQ(returned == STATUS_PENDING, request->MarkedPending());
         });
}

TEST_F(LockWait, CancellationAgainstTheEndOfTheFileLock)
{
    std::unique_ptr<LockRequest> request;
    Race(
        [&] {
            FsRtlInitializeFileLock(&Lock_, nullptr, nullptr);
            ASSERT_TRUE(TryLock(A, {0, 10}, Exclusive));
            request = std::make_unique<LockRequest>();
            ASSERT_EQ(request->Lock(&Lock_, B, {5, 1}, Exclusive), STATUS_PENDING);
        },
        [&] { FsRtlUninitializeFileLock(&Lock_); }, [&] { request->Cancel(); },
        [&] { ASSERT_EQ(request->Completions, 1); });
}

// The bytes are guarded by nothing but the lock: the thread sanitizer sees a grant that came too early.
TEST_F(LockWait, ExclusiveLocksExclude)
{
    int counter = 0;
    const auto work = [&](const Who& who) {
        for (int i = 0; i < Rounds; ++i) {
            LockRequest request;
            if (request.Lock(&Lock_, who, {0, 1}, Exclusive) == STATUS_PENDING) request.Completions.wait(0);
            ++counter;
            EXPECT_TRUE(MayWrite(who, {0, 1}));
            EXPECT_EQ(Unlock(who, {0, 1}), STATUS_SUCCESS);
        }
    };
    std::thread b = nthost::StartThread(nthost::HostProcess(), [&] { work(B); });
    std::thread c = nthost::StartThread(nthost::HostProcess(), [&] { work(C); });
    work(A);
    b.join();
    c.join();
    EXPECT_EQ(counter, 3 * Rounds);
}

} // namespace
