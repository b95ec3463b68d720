// Whether locks stand in the way of a transfer, and their enumeration. The checks are on the road of every read and
// write: a file without locks costs a load or two and never takes the state's lock.
#include "fsrtl/lock_state.h"

using namespace nthost::fsrtl;

namespace {

using Rule = bool (HeldLocks::*)(const Range&, const LockOwner&) const;

bool Allows(LockState* state, Rule rule, const Range& range, const LockOwner& owner)
{
    if (range.Empty()) return true;
    const StateGuard guard(*state);
    return (state->Held.*rule)(range, owner);
}

} // namespace

BOOLEAN NTAPI FsRtlFastCheckLockForRead(PFILE_LOCK FileLock, PLARGE_INTEGER FileOffset, PLARGE_INTEGER Length,
                                        ULONG Key, PFILE_OBJECT FileObject, PVOID Process)
{
    LockState* const state = StateIfLocked(FileLock);
    return !state || Allows(state, &HeldLocks::MayRead, Range::From(FileOffset, Length), {FileObject, Process, Key});
}

BOOLEAN NTAPI FsRtlFastCheckLockForWrite(PFILE_LOCK FileLock, PLARGE_INTEGER FileOffset, PLARGE_INTEGER Length,
                                         ULONG Key, PFILE_OBJECT FileObject, PVOID Process)
{
    LockState* const state = StateIfLocked(FileLock);
    return !state || Allows(state, &HeldLocks::MayWrite, Range::From(FileOffset, Length), {FileObject, Process, Key});
}

BOOLEAN NTAPI FsRtlCheckLockForReadAccess(PFILE_LOCK FileLock, PIRP Irp)
{
    LockState* const state = StateIfLocked(FileLock);
    if (!state) return TRUE;
    const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    const auto& read = stack->Parameters.Read;
    return Allows(state, &HeldLocks::MayRead, {static_cast<uint64_t>(read.ByteOffset.QuadPart), read.Length},
                  {stack->FileObject, IoGetRequestorProcess(Irp), read.Key});
}

BOOLEAN NTAPI FsRtlCheckLockForWriteAccess(PFILE_LOCK FileLock, PIRP Irp)
{
    LockState* const state = StateIfLocked(FileLock);
    if (!state) return TRUE;
    const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    const auto& write = stack->Parameters.Write;
    return Allows(state, &HeldLocks::MayWrite, {static_cast<uint64_t>(write.ByteOffset.QuadPart), write.Length},
                  {stack->FileObject, IoGetRequestorProcess(Irp), write.Key});
}

PFILE_LOCK_INFO NTAPI FsRtlGetNextFileLock(PFILE_LOCK FileLock, BOOLEAN Restart)
{
    LockState* const state = StateIfLocked(FileLock);
    if (!state) return nullptr;
    // LastReturnedLock holds the lock's id: unlike an address it stays good when the lock goes.
    FILE_LOCK_INFO& last = FileLock->LastReturnedLockInfo;
    LockPlace after = {RangeOf(last).First, reinterpret_cast<uint64_t>(FileLock->LastReturnedLock)};
    if (Restart) after = {0, 0};

    const StateGuard guard(*state);
    uint64_t id = 0;
    const FILE_LOCK_INFO* const next = state->Held.Next(after, !Restart && last.ExclusiveLock, &id);
    if (!next) return nullptr;
    last = *next;
    FileLock->LastReturnedLock = reinterpret_cast<PVOID>(id);
    return &last;
}
