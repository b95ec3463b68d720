// What hangs off FILE_LOCK.LockInformation: the held locks and the requests that wait, under one spin lock. A waiting
// request is owned by whoever takes its cancel routine back; if cancellation was faster, the request stays queued until
// the cancel routine itself unlinks it. So a waiter keeps the state alive: cancellation may outlive the FILE_LOCK.
// Callbacks and completions run without the spin lock.
#pragma once

#include <list>
#include <memory>
#include <vector>

#include "fsrtl/held_locks.h"

namespace nthost::fsrtl {

struct LockState;

struct Waiter {
    FILE_LOCK_INFO Wanted;
    PIRP Irp;
    PVOID Context;
    std::shared_ptr<LockState> State;
    std::list<Waiter>::iterator Place; // its own, in whichever list it stands
    uint64_t GrantedId = 0;
};

struct LockState : std::enable_shared_from_this<LockState> {
    explicit LockState(PCOMPLETE_LOCK_IRP_ROUTINE routine) : CompleteLockIrpRoutine(routine)
    {
        KeInitializeSpinLock(&Lock);
    }

    const PCOMPLETE_LOCK_IRP_ROUTINE CompleteLockIrpRoutine;
    std::shared_ptr<LockState> Self; // the FILE_LOCK's share
    KSPIN_LOCK Lock;
    // Under Lock:
    HeldLocks Held;
    std::list<Waiter> Waiters; // in order of arrival
};

class StateGuard {
public:
    explicit StateGuard(LockState& state) : lock_(&state.Lock), irql_(KeAcquireSpinLockRaiseToDpc(lock_)) {}
    ~StateGuard() { KeReleaseSpinLock(lock_, irql_); }
    StateGuard(const StateGuard&) = delete;
    StateGuard& operator=(const StateGuard&) = delete;

private:
    PKSPIN_LOCK lock_;
    KIRQL irql_;
};

inline LockState* StateOf(PFILE_LOCK fileLock)
{
    return static_cast<LockState*>(__atomic_load_n(&fileLock->LockInformation, __ATOMIC_ACQUIRE));
}

// Null when no lock is held. A file that was never locked costs one load.
inline LockState* StateIfLocked(PFILE_LOCK fileLock)
{
    LockState* const state = StateOf(fileLock);
    return state && FsRtlAreThereCurrentFileLocks(fileLock) ? state : nullptr;
}

// Under the state's lock, after Held has changed.
inline void PublishWhetherLocked(PFILE_LOCK fileLock, const LockState& state)
{
    const BOOLEAN any = !state.Held.Empty();
    __atomic_store_n(&fileLock->FastIoIsQuestionable, any, __ATOMIC_RELEASE);
}

// What a change of the held locks leads to: gathered under the state's lock, carried out without it.
struct Consequences {
    std::vector<FILE_LOCK_INFO> Released;
    std::list<Waiter> Refused; // to be completed with STATUS_RANGE_NOT_LOCKED
    std::list<Waiter> Granted; // their locks are held already
};

// --- waiters.cpp

// Under the state's lock. Queues the request, or returns STATUS_CANCELLED if it was cancelled before it got there.
[[nodiscard]] NTSTATUS Enqueue(LockState& state, const FILE_LOCK_INFO& wanted, PIRP irp, PVOID context);
// Under the state's lock: moves the waiters whose range has come free into `granted`, in order of arrival.
void GrantWaiters(LockState& state, std::list<Waiter>* granted);
// Under the state's lock: moves the matching waiters that are not being cancelled into `taken`.
template <typename Match>
void TakeWaiters(LockState& state, Match match, std::list<Waiter>* taken);
// Calls the unlock routine, completes the requests, and takes back what a completion routine turned down.
void CarryOut(PFILE_LOCK fileLock, PVOID context, Consequences consequences);
void RefuseAll(std::list<Waiter>& waiters);
// Gives the lock up again without the unlock routine: its holder never had it.
void TakeBack(PFILE_LOCK fileLock, const FILE_LOCK_INFO& lock, uint64_t id);
// Hands the request to the completion routine, or completes it; the status that counts. The request is gone afterwards.
NTSTATUS CompleteLockIrp(PCOMPLETE_LOCK_IRP_ROUTINE routine, PVOID context, PIRP irp, NTSTATUS status);

// The request's cancel routine is taken back: it is ours to complete.
inline bool ClaimFromCancellation(PIRP irp) { return IoSetCancelRoutine(irp, nullptr) != nullptr; }

template <typename Match>
void TakeWaiters(LockState& state, Match match, std::list<Waiter>* taken)
{
    for (auto next = state.Waiters.begin(); next != state.Waiters.end();) {
        const auto it = next++;
        if (match(*it) && ClaimFromCancellation(it->Irp)) taken->splice(taken->end(), state.Waiters, it);
    }
}

} // namespace nthost::fsrtl
