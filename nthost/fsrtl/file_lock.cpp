// Making and ending a FILE_LOCK, and asking for a lock. The caller keeps the FILE_LOCK alive across each call; its
// state appears with the first lock that is asked for. Once a request is completed or queued, it is no longer looked
// at.
#include "fsrtl/lock_state.h"

#include <nthost/faults.h>

using namespace nthost;
using namespace nthost::fsrtl;

namespace {

// One lock that is asked for, with what happens when it can't be had.
struct LockRequest {
    FILE_LOCK_INFO Wanted;
    PIRP Irp; // null: never waits
    PVOID Context;
    bool FailImmediately;
};

LockState* FindOrMakeState(PFILE_LOCK fileLock)
{
    if (LockState* const state = StateOf(fileLock)) return state;
    const auto fresh = std::make_shared<LockState>(fileLock->CompleteLockIrpRoutine);
    fresh->Self = fresh;
    const PVOID other = InterlockedCompareExchangePointer(&fileLock->LockInformation, fresh.get(), nullptr);
    if (!other) return fresh.get();
    fresh->Self.reset();
    return static_cast<LockState*>(other);
}

// STATUS_PENDING with an Irp: queued. STATUS_PENDING without: it would have to wait.
NTSTATUS GrantOrQueue(PFILE_LOCK fileLock, const LockRequest& request, uint64_t* grantedId)
{
    if (RangeOf(request.Wanted).Overflows()) return STATUS_INVALID_LOCK_RANGE;
    if (FaultInjected("FsRtlPrivateLock")) return STATUS_INSUFFICIENT_RESOURCES;

    // A queued request may be cancelled, and the last file object closed, before the guard is off.
    const std::shared_ptr<LockState> state = FindOrMakeState(fileLock)->shared_from_this();
    const StateGuard guard(*state);
    if (state->Held.MayLock(request.Wanted)) {
        *grantedId = state->Held.Add(request.Wanted);
        PublishWhetherLocked(fileLock, *state);
        return STATUS_SUCCESS;
    }
    if (request.FailImmediately) return STATUS_LOCK_NOT_GRANTED;
    return request.Irp ? Enqueue(*state, request.Wanted, request.Irp, request.Context) : STATUS_PENDING;
}

// Completes a request that was not queued; the status that counts. FileLock may go with the completion, unless the
// routine turned a granted lock down: then its owner is still there.
NTSTATUS Finish(PFILE_LOCK fileLock, const LockRequest& request, NTSTATUS status, uint64_t grantedId)
{
    const PCOMPLETE_LOCK_IRP_ROUTINE routine = fileLock->CompleteLockIrpRoutine;
    const NTSTATUS final = CompleteLockIrp(routine, request.Context, request.Irp, status);
    if (NT_SUCCESS(status) && !NT_SUCCESS(final)) TakeBack(fileLock, request.Wanted, grantedId);
    return final;
}

} // namespace

VOID NTAPI FsRtlInitializeFileLock(PFILE_LOCK FileLock, PCOMPLETE_LOCK_IRP_ROUTINE CompleteLockIrpRoutine,
                                   PUNLOCK_ROUTINE UnlockRoutine)
{
    RtlZeroMemory(FileLock, sizeof *FileLock);
    FileLock->CompleteLockIrpRoutine = CompleteLockIrpRoutine;
    FileLock->UnlockRoutine = UnlockRoutine;
}

VOID NTAPI FsRtlUninitializeFileLock(PFILE_LOCK FileLock)
{
    auto* const found = static_cast<LockState*>(InterlockedExchangePointer(&FileLock->LockInformation, nullptr));
    if (!found) return;
    // The waiters that are being cancelled keep the state until they are through.
    const std::shared_ptr<LockState> state = std::move(found->Self);
    std::list<Waiter> refused;
    {
        const StateGuard guard(*state);
        state->Held.Clear();
        PublishWhetherLocked(FileLock, *state);
        TakeWaiters(
            *state, [](const Waiter&) { return true; }, &refused);
    }
    RefuseAll(refused);
}

BOOLEAN NTAPI FsRtlPrivateLock(PFILE_LOCK FileLock, PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset,
                               PLARGE_INTEGER Length, PEPROCESS Process, ULONG Key, BOOLEAN FailImmediately,
                               BOOLEAN ExclusiveLock, PIO_STATUS_BLOCK IoStatus, PIRP Irp, PVOID Context,
                               BOOLEAN AlreadySynchronized)
{
    UNREFERENCED_PARAMETER(AlreadySynchronized);
    const Range range = Range::From(FileOffset, Length);
    const LockRequest request = {MakeLockInfo(range, {FileObject, Process, Key}, ExclusiveLock != FALSE), Irp, Context,
                                 FailImmediately != FALSE};
    uint64_t grantedId = 0;
    NTSTATUS status = GrantOrQueue(FileLock, request, &grantedId);
    if (!Irp && status == STATUS_PENDING) return FALSE;
    if (!Irp && status == STATUS_INSUFFICIENT_RESOURCES) ExRaiseStatus(status);

    if (Irp && status != STATUS_PENDING) status = Finish(FileLock, request, status, grantedId);
    IoStatus->Status = status;
    IoStatus->Information = 0;
    return TRUE;
}
