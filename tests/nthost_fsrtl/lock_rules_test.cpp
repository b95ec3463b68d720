// Who may lock, read and write what while somebody holds a lock; which lock an unlock takes; requests by packet.
#include "lock_fixture.h"

#include <algorithm>

namespace {

using namespace locktest;

enum class Op { Shared, Exclusive, Read, Write };
using enum Op;

constexpr Who A{0, 0, 0};
constexpr Who OtherKey{0, 0, 7};
constexpr Who OtherProcess{0, 1, 0};
constexpr Who OtherFile{1, 0, 0};
constexpr uint64_t Max = UINT64_MAX;

class LockRules : public LockTest {
protected:
    bool Ask(Op op, const Who& who, Bytes bytes)
    {
        switch (op) {
        case Read: return MayRead(who, bytes);
        case Write: return MayWrite(who, bytes);
        default: return TryLock(who, bytes, op == Exclusive);
        }
    }
};

// Rows read: A holds this lock on these bytes; this one asks for this on these bytes; is it allowed.
struct ConflictRow {
    Op Held;
    Bytes HeldBytes;
    Who Asker;
    Op Wanted;
    Bytes WantedBytes;
    bool Allowed;
};

// What the model cannot reach or says in a way of its own: the last number there is, and ranges of no bytes.
constexpr ConflictRow ConflictRows[] = {
    {Exclusive, {10, 10}, OtherFile, Exclusive, {0, Max}, false},
    {Exclusive, {0, Max}, OtherFile, Write, {Max - 1, 1}, false},
    {Exclusive, {0, Max}, OtherFile, Write, {Max, 1}, true},
    {Exclusive, {Max, 1}, OtherFile, Read, {Max, 1}, false},
    // A transfer that runs past the last number ends there.
    {Exclusive, {5, 10}, OtherFile, Write, {Max, 100}, true},
    {Exclusive, {Max, 1}, OtherFile, Write, {Max - 5, 100}, false},
    // A range of no bytes is a point: it needs both neighbours to be hit, and points don't hit each other.
    {Exclusive, {10, 10}, OtherFile, Exclusive, {10, 0}, true},
    {Exclusive, {10, 10}, OtherFile, Exclusive, {11, 0}, false},
    {Exclusive, {10, 10}, OtherFile, Exclusive, {19, 0}, false},
    {Exclusive, {10, 10}, OtherFile, Exclusive, {20, 0}, true},
    {Exclusive, {10, 0}, OtherFile, Exclusive, {10, 0}, true},
    {Exclusive, {10, 0}, OtherFile, Exclusive, {0, 10}, true},
    {Exclusive, {10, 0}, OtherFile, Exclusive, {9, 2}, false},
    {Exclusive, {0, 0}, OtherFile, Exclusive, {0, Max}, true},
    // Moving no bytes disturbs nobody.
    {Exclusive, {10, 10}, OtherFile, Read, {15, 0}, true},
    {Exclusive, {10, 10}, OtherFile, Write, {15, 0}, true},
};

TEST_F(LockRules, ConflictsFollowRangeKindAndOwner)
{
    for (const ConflictRow& row : ConflictRows) {
        SCOPED_TRACE(testing::Message() << "row " << &row - ConflictRows);
        ASSERT_TRUE(TryLock(A, row.HeldBytes, row.Held == Exclusive));
        EXPECT_EQ(Ask(row.Wanted, row.Asker, row.WantedBytes), row.Allowed);
        for (const Who& who : {A, OtherProcess, OtherFile})
            FsRtlFastUnlockAll(&Lock_, File(who), Process(who), nullptr);
        ASSERT_FALSE(FsRtlAreThereCurrentFileLocks(&Lock_));
    }
}

TEST_F(LockRules, ALongLockIsFoundBehindManyShortOnes)
{
    ASSERT_TRUE(TryLock(A, {0, 1000}, false));
    for (uint64_t i = 0; i < 100; ++i) ASSERT_TRUE(TryLock(OtherFile, {i, 1}, false));
    EXPECT_FALSE(TryLock(OtherFile, {900, 1}, true));
    ASSERT_EQ(Unlock(A, {0, 1000}), STATUS_SUCCESS);
    EXPECT_TRUE(TryLock(OtherFile, {900, 1}, true));
}

TEST_F(LockRules, UnlockAllIsForOneFileObjectAndProcessAndMaybeOneKey)
{
    EXPECT_EQ(FsRtlFastUnlockAll(&Lock_, File(A), Process(A), nullptr), STATUS_RANGE_NOT_LOCKED);
    uint64_t at = 0;
    for (const Who& who : {A, OtherKey, OtherProcess, OtherFile})
        for (const bool exclusive : {false, true}) ASSERT_TRUE(TryLock(who, {at++, 1}, exclusive));
    ASSERT_EQ(FsRtlFastUnlockAllByKey(&Lock_, File(A), Process(A), OtherKey.Key, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(HeldCount(), 6u);
    EXPECT_EQ(Unlock(A, {0, 1}), STATUS_SUCCESS);
    ASSERT_EQ(FsRtlFastUnlockAll(&Lock_, File(A), Process(A), nullptr), STATUS_SUCCESS);
    EXPECT_EQ(HeldCount(), 4u);
}

TEST_F(LockRules, EnumerationSurvivesTheLossOfItsPlace)
{
    for (uint64_t i = 0; i < 3; ++i) ASSERT_TRUE(TryLock(A, {i, 1}, true));
    for (uint64_t i = 0; i < 2; ++i) ASSERT_TRUE(TryLock(OtherFile, {7, 2}, false));
    std::vector<uint64_t> seen;
    for (auto* lock = FsRtlGetNextFileLock(&Lock_, FALSE); lock; lock = FsRtlGetNextFileLock(&Lock_, FALSE)) {
        const auto first = static_cast<uint64_t>(lock->StartingByte.QuadPart);
        seen.push_back(first);
        EXPECT_EQ(lock->EndingByte.QuadPart, lock->StartingByte.QuadPart + lock->Length.QuadPart - 1);
        ASSERT_EQ(Unlock(lock->ExclusiveLock ? A : OtherFile, {first, lock->ExclusiveLock ? 1u : 2u}), STATUS_SUCCESS);
    }
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, (std::vector<uint64_t>{0, 1, 2, 7, 7}));
}

TEST_F(LockRules, AFastLockThatWouldWaitIsLeftToTheSlowRoad)
{
    ASSERT_TRUE(TryLock(A, {0, 1}, true));
    LARGE_INTEGER offset = Large(0), length = Large(1);
    IO_STATUS_BLOCK status{};
    EXPECT_FALSE(
        FsRtlFastLock(&Lock_, File(OtherFile), &offset, &length, Process(A), 0, FALSE, FALSE, &status, nullptr, FALSE));
}

// Rows read: this lock-control request by packet, while another file object holds bytes 0 to 9 exclusively and this one
// bytes 20 to 29; what it gives.
struct PacketRow {
    UCHAR Minor;
    Bytes Range;
    UCHAR Flags;
    NTSTATUS Status;
};

constexpr PacketRow PacketRows[] = {
    {IRP_MN_LOCK, {10, 5}, 0, STATUS_SUCCESS},
    {IRP_MN_LOCK, {5, 1}, SL_FAIL_IMMEDIATELY, STATUS_LOCK_NOT_GRANTED},
    {IRP_MN_LOCK, {20, 10}, SL_FAIL_IMMEDIATELY, STATUS_SUCCESS},
    {IRP_MN_LOCK, {20, 10}, SL_FAIL_IMMEDIATELY | SL_EXCLUSIVE_LOCK, STATUS_LOCK_NOT_GRANTED},
    {IRP_MN_LOCK, {Max, 1}, 0, STATUS_SUCCESS},
    {IRP_MN_LOCK, {Max, 2}, 0, STATUS_INVALID_LOCK_RANGE},
    {IRP_MN_LOCK, {30, Max}, 0, STATUS_INVALID_LOCK_RANGE},
    {IRP_MN_UNLOCK_SINGLE, {20, 10}, 0, STATUS_SUCCESS},
    {IRP_MN_UNLOCK_SINGLE, {0, 10}, 0, STATUS_RANGE_NOT_LOCKED},
    {IRP_MN_UNLOCK_ALL, {0, 0}, 0, STATUS_SUCCESS},
    {IRP_MN_UNLOCK_ALL_BY_KEY, {0, 0}, 0, STATUS_SUCCESS},
    {9, {0, 0}, 0, STATUS_INVALID_DEVICE_REQUEST},
};

TEST_F(LockRules, PacketsAreCompletedWithWhatTheCallReturns)
{
    for (const PacketRow& row : PacketRows) {
        SCOPED_TRACE(testing::Message() << "row " << &row - PacketRows);
        LockRequest theirs, own, request;
        ASSERT_EQ(theirs.Issue(&Lock_, File(OtherFile), IRP_MN_LOCK, {0, 10}, SL_EXCLUSIVE_LOCK), STATUS_SUCCESS);
        ASSERT_EQ(own.Issue(&Lock_, File(A), IRP_MN_LOCK, {20, 10}, SL_EXCLUSIVE_LOCK), STATUS_SUCCESS);
        EXPECT_EQ(request.Issue(&Lock_, File(A), row.Minor, row.Range, row.Flags), row.Status);
        EXPECT_EQ(request.Completions, 1);
        EXPECT_EQ(request.Status, row.Status);
        EXPECT_FALSE(request.MarkedPending());
        EXPECT_EQ(own.Requestor(), nthost::HostProcess()); // of the thread that whoever makes a packet puts into it
        for (const Who& who : {A, OtherFile}) FsRtlFastUnlockAll(&Lock_, File(who), own.Requestor(), nullptr);
        ASSERT_FALSE(FsRtlAreThereCurrentFileLocks(&Lock_));
    }
}

TEST_F(LockRules, TransfersByPacketUseTheirOwnKeyFileAndProcess)
{
    LockRequest owner;
    ASSERT_EQ(owner.Issue(&Lock_, File(A), IRP_MN_LOCK, {0, 10}, SL_EXCLUSIVE_LOCK, 7), STATUS_SUCCESS);
    PIRP const irp = IoAllocateIrp(1, FALSE);
    IoSetNextIrpStackLocation(irp);
    EXPECT_EQ(IoGetRequestorProcess(irp), nullptr);
    irp->Tail.Overlay.Thread = PsGetCurrentThread();
    PIO_STACK_LOCATION const stack = IoGetCurrentIrpStackLocation(irp);
    stack->FileObject = File(A);
    stack->Parameters.Read.Length = 4;
    stack->Parameters.Read.ByteOffset = Large(8);
    for (const ULONG key : {7u, 0u}) {
        stack->Parameters.Read.Key = key;
        EXPECT_EQ(FsRtlCheckLockForReadAccess(&Lock_, irp) != FALSE, key == 7);
        EXPECT_EQ(FsRtlCheckLockForWriteAccess(&Lock_, irp) != FALSE, key == 7);
    }
    IoFreeIrp(irp);
}

} // namespace
