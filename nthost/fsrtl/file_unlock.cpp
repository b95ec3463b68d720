// Giving locks up, and the lock-control request as a whole. Whatever an unlock makes room for is granted under the same
// hold of the state's lock, so that a newcomer can't slip in before a request that has waited.
#include "fsrtl/lock_state.h"

using namespace nthost::fsrtl;

namespace {

// Locks and waiting requests of a file object and process; of one key, if Key is given.
struct Holder {
    PFILE_OBJECT FileObject;
    PVOID Process;
    const ULONG* Key;

    bool Owns(const FILE_LOCK_INFO& lock) const
    {
        return lock.FileObject == FileObject && lock.ProcessId == Process && (!Key || lock.Key == *Key);
    }
};

NTSTATUS UnlockHolder(PFILE_LOCK fileLock, const Holder& holder, PVOID context)
{
    LockState* const state = StateOf(fileLock);
    if (!state) return STATUS_RANGE_NOT_LOCKED;
    Consequences consequences;
    {
        const StateGuard guard(*state);
        state->Held.RemoveAll([&](const FILE_LOCK_INFO& lock) { return holder.Owns(lock); }, &consequences.Released);
        // First, so that what its holder is giving up is not granted to it once more.
        TakeWaiters(
            *state, [&](const Waiter& waiter) { return holder.Owns(waiter.Wanted); }, &consequences.Refused);
        GrantWaiters(*state, &consequences.Granted);
        PublishWhetherLocked(fileLock, *state);
    }
    CarryOut(fileLock, context, std::move(consequences));
    return STATUS_SUCCESS;
}

NTSTATUS LockByIrp(PFILE_LOCK fileLock, PIRP irp, PVOID context)
{
    const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    LARGE_INTEGER offset = stack->Parameters.LockControl.ByteOffset;
    LARGE_INTEGER length = *stack->Parameters.LockControl.Length;
    IO_STATUS_BLOCK result{};
    (void)FsRtlPrivateLock(fileLock, stack->FileObject, &offset, &length, IoGetRequestorProcess(irp),
                           stack->Parameters.LockControl.Key, (stack->Flags & SL_FAIL_IMMEDIATELY) != 0,
                           (stack->Flags & SL_EXCLUSIVE_LOCK) != 0, &result, irp, context, FALSE);
    return result.Status;
}

NTSTATUS UnlockByIrp(PFILE_LOCK fileLock, PIRP irp, PVOID context)
{
    const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    const PEPROCESS process = IoGetRequestorProcess(irp);
    const auto& parameters = stack->Parameters.LockControl;
    switch (stack->MinorFunction) {
    case IRP_MN_UNLOCK_ALL: return FsRtlFastUnlockAll(fileLock, stack->FileObject, process, context);
    case IRP_MN_UNLOCK_ALL_BY_KEY:
        return FsRtlFastUnlockAllByKey(fileLock, stack->FileObject, process, parameters.Key, context);
    default: break;
    }
    LARGE_INTEGER offset = parameters.ByteOffset;
    return FsRtlFastUnlockSingle(fileLock, stack->FileObject, &offset, parameters.Length, process, parameters.Key,
                                 context, FALSE);
}

} // namespace

NTSTATUS NTAPI FsRtlFastUnlockSingle(PFILE_LOCK FileLock, PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset,
                                     PLARGE_INTEGER Length, PEPROCESS Process, ULONG Key, PVOID Context,
                                     BOOLEAN AlreadySynchronized)
{
    UNREFERENCED_PARAMETER(AlreadySynchronized);
    LockState* const state = StateIfLocked(FileLock);
    if (!state) return STATUS_RANGE_NOT_LOCKED;
    const Range range = Range::From(FileOffset, Length);
    Consequences consequences;
    {
        const StateGuard guard(*state);
        FILE_LOCK_INFO removed;
        if (!state->Held.RemoveExact(range, {FileObject, Process, Key}, &removed)) return STATUS_RANGE_NOT_LOCKED;
        consequences.Released.push_back(removed);
        GrantWaiters(*state, &consequences.Granted);
        PublishWhetherLocked(FileLock, *state);
    }
    CarryOut(FileLock, Context, std::move(consequences));
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI FsRtlFastUnlockAll(PFILE_LOCK FileLock, PFILE_OBJECT FileObject, PEPROCESS Process, PVOID Context)
{
    return UnlockHolder(FileLock, {FileObject, Process, nullptr}, Context);
}

NTSTATUS NTAPI FsRtlFastUnlockAllByKey(PFILE_LOCK FileLock, PFILE_OBJECT FileObject, PEPROCESS Process, ULONG Key,
                                       PVOID Context)
{
    return UnlockHolder(FileLock, {FileObject, Process, &Key}, Context);
}

NTSTATUS NTAPI FsRtlProcessFileLock(PFILE_LOCK FileLock, PIRP Irp, PVOID Context)
{
    switch (IoGetCurrentIrpStackLocation(Irp)->MinorFunction) {
    case IRP_MN_LOCK: return LockByIrp(FileLock, Irp, Context);
    case IRP_MN_UNLOCK_SINGLE:
    case IRP_MN_UNLOCK_ALL:
    case IRP_MN_UNLOCK_ALL_BY_KEY: {
        const PCOMPLETE_LOCK_IRP_ROUTINE routine = FileLock->CompleteLockIrpRoutine;
        return CompleteLockIrp(routine, Context, Irp, UnlockByIrp(FileLock, Irp, Context));
    }
    default: return CompleteLockIrp(nullptr, Context, Irp, STATUS_INVALID_DEVICE_REQUEST);
    }
}
