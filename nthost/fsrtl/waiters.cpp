// Lock requests that wait: queueing, cancellation, granting. Nothing waits for a waiter: a request is held back by held
// locks only, and an unlock looks at all waiters, the oldest first. The state's spin lock is never held across a
// completion, since completing may drop a file object and so come back here.
#include "fsrtl/lock_state.h"

#include <iterator>
#include <utility>

#include "ke/callout.h"

namespace nthost::fsrtl {

namespace {

Waiter& WaiterOf(PIRP irp) { return *reinterpret_cast<Waiter*>(irp->IoStatus.Information); }

NTSTATUS CompleteWaiter(const Waiter& waiter, NTSTATUS status)
{
    return CompleteLockIrp(waiter.State->CompleteLockIrpRoutine, waiter.Context, waiter.Irp, status);
}

// Called with the cancel spin lock held and the cancel routine already taken off the request, so nobody else unlinks
// it.
VOID NTAPI CancelWaitingLock(PDEVICE_OBJECT, PIRP irp)
{
    IoReleaseCancelSpinLock(irp->CancelIrql);
    Waiter& waiter = WaiterOf(irp);
    std::list<Waiter> cancelled;
    {
        const StateGuard guard(*waiter.State);
        cancelled.splice(cancelled.end(), waiter.State->Waiters, waiter.Place);
    }
    (void)CompleteWaiter(waiter, STATUS_CANCELLED);
}

// Drops a lock whose holder never got to know of it, and grants what that makes room for.
void GiveUp(PFILE_LOCK fileLock, const FILE_LOCK_INFO& lock, uint64_t id, std::list<Waiter>* granted)
{
    LockState& state = *StateOf(fileLock);
    const StateGuard guard(state);
    state.Held.Remove(lock, id);
    GrantWaiters(state, granted);
    PublishWhetherLocked(fileLock, state);
}

// A lock that the completion routine turns down lets others in, which join the end of the list.
void CompleteGranted(PFILE_LOCK fileLock, std::list<Waiter> granted)
{
    for (; !granted.empty(); granted.pop_front()) {
        const Waiter& waiter = granted.front();
        if (NT_SUCCESS(CompleteWaiter(waiter, STATUS_SUCCESS))) continue;
        GiveUp(fileLock, waiter.Wanted, waiter.GrantedId, &granted);
    }
}

// The store of the flag by the canceller and this load are ordered against the exchanges of the cancel routine on both
// sides: one of the two sees the other.
bool IsCancelled(PIRP irp) { return __atomic_load_n(&irp->Cancel, __ATOMIC_SEQ_CST) != FALSE; }

} // namespace

NTSTATUS CompleteLockIrp(PCOMPLETE_LOCK_IRP_ROUTINE routine, PVOID context, PIRP irp, NTSTATUS status)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = 0;
    if (routine) return CallDriver(MustRestore::Everything, "CompleteLockIrpRoutine", routine, context, irp);
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS Enqueue(LockState& state, const FILE_LOCK_INFO& wanted, PIRP irp, PVOID context)
{
    state.Waiters.push_back({wanted, irp, context, state.shared_from_this(), {}});
    const auto place = std::prev(state.Waiters.end());
    place->Place = place;
    irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(&*place);

    (void)IoSetCancelRoutine(irp, CancelWaitingLock);
    if (IsCancelled(irp) && ClaimFromCancellation(irp)) {
        state.Waiters.erase(place);
        return STATUS_CANCELLED;
    }
    // Safe after arming: whoever completes the request needs the state's lock first, and it is held here. A request
    // that a worker brings was marked when it was handed over, and its issuer may be looking at the mark right now.
    if (!(IoGetCurrentIrpStackLocation(irp)->Control & SL_PENDING_RETURNED)) IoMarkIrpPending(irp);
    return STATUS_PENDING;
}

void GrantWaiters(LockState& state, std::list<Waiter>* granted)
{
    const auto grant = [&](Waiter& waiter) {
        if (!state.Held.MayLock(waiter.Wanted) || !ClaimFromCancellation(waiter.Irp)) return;
        waiter.GrantedId = state.Held.Add(waiter.Wanted);
        granted->splice(granted->end(), state.Waiters, waiter.Place);
    };
    for (auto next = state.Waiters.begin(); next != state.Waiters.end();) grant(*next++);
}

void RefuseAll(std::list<Waiter>& waiters)
{
    for (const Waiter& waiter : waiters) (void)CompleteWaiter(waiter, STATUS_RANGE_NOT_LOCKED);
}

void CarryOut(PFILE_LOCK fileLock, PVOID context, Consequences consequences)
{
    for (FILE_LOCK_INFO& lock : consequences.Released) {
        if (!fileLock->UnlockRoutine) break;
        CallDriver(MustRestore::Everything, "UnlockRoutine", fileLock->UnlockRoutine, context, &lock);
    }
    RefuseAll(consequences.Refused);
    CompleteGranted(fileLock, std::move(consequences.Granted));
}

void TakeBack(PFILE_LOCK fileLock, const FILE_LOCK_INFO& lock, uint64_t id)
{
    std::list<Waiter> granted;
    GiveUp(fileLock, lock, id, &granted);
    CompleteGranted(fileLock, std::move(granted));
}

} // namespace nthost::fsrtl
