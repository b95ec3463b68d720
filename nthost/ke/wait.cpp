// The waits: for one object or several, for nothing but time, alertable or not. A signal releases as many waiters as it
// satisfies and no more; each is woken once. What is signalled already satisfies a wait before an alert or a queued APC
// is looked at, and those come before a timeout of zero. An absolute timeout is turned into a relative one when the
// wait begins, so setting the clock does not move it.
#include "ke/wait.h"

#include <utility>

#include <nthost/check.h>

#include "check/fatal.h"
#include "ke/lock_order.h"
#include "ke/apc.h"
#include "ke/dispatcher.h"
#include "ke/held.h"
#include "ke/recorder.h"
#include "ke/schedule.h"
#include "ke/word_lock.h"

namespace nthost::ke {

WordLock dispatcherLock;

// On the waiter's stack.
struct WaitRecord {
    _ETHREAD* Thread;
    struct WaitBlock* Blocks;
    ULONG Count;
    WAIT_TYPE Type;
    KPROCESSOR_MODE Mode;
    bool Alertable;
    bool TakesKernelApcs;
    void* Where;        // return address, for the record of mutexes
    bool Ended = false; // its blocks are out of every list; the wake-up has come or is on its way
    NTSTATUS Result = STATUS_SUCCESS;
    WaitRecord* NextToWake = nullptr;
};

// One object of one wait, in the object's list of waiters. On the waiter's stack.
struct WaitBlock {
    LIST_ENTRY Link;
    DISPATCHER_HEADER* Object;
    WaitRecord* Record;
    bool IsMutex; // other objects may be gone when the wait has ended
};

namespace {

// A mutex is there for its owner too.
bool IsSignalled(const DISPATCHER_HEADER* object, const _ETHREAD* thread)
{
    if (object->SignalState > 0) return true;
    return object->Type == kMutexObject && CONTAINING_RECORD(object, KMUTANT, Header)->OwnerThread == thread;
}

// States are read without the lock too.
void SetState(DISPATCHER_HEADER* object, LONG state)
{
    __atomic_store_n(&object->SignalState, state, __ATOMIC_RELEASE);
}

// True if the mutex was left behind by an owner that ended.
bool TakeMutex(DISPATCHER_HEADER* object, _ETHREAD* thread)
{
    auto* const mutex = CONTAINING_RECORD(object, KMUTANT, Header);
    SetState(object, object->SignalState - 1);
    mutex->OwnerThread = thread;
    const bool abandoned = mutex->Abandoned;
    mutex->Abandoned = FALSE;
    return abandoned;
}

bool Consume(DISPATCHER_HEADER* object, _ETHREAD* thread)
{
    switch (object->Type) {
    case SynchronizationEvent:
    case kTimerObject + SynchronizationTimer: SetState(object, 0); return false;
    case kSemaphoreObject: SetState(object, object->SignalState - 1); return false;
    case kMutexObject: return TakeMutex(object, thread);
    default: return false;
    }
}

bool AllSignalled(const WaitRecord& wait)
{
    for (ULONG i = 0; i < wait.Count; ++i)
        if (!IsSignalled(wait.Blocks[i].Object, wait.Thread)) return false;
    return true;
}

// Takes what the wait asks for if it is there now.
bool TrySatisfy(WaitRecord& wait)
{
    if (wait.Type == WaitAll) {
        if (!AllSignalled(wait)) return false;
        bool abandoned = false;
        for (ULONG i = 0; i < wait.Count; ++i) abandoned |= Consume(wait.Blocks[i].Object, wait.Thread);
        wait.Result = abandoned ? STATUS_ABANDONED_WAIT_0 : STATUS_WAIT_0;
        return true;
    }
    for (ULONG i = 0; i < wait.Count; ++i) {
        if (!IsSignalled(wait.Blocks[i].Object, wait.Thread)) continue;
        const bool abandoned = Consume(wait.Blocks[i].Object, wait.Thread);
        wait.Result = (abandoned ? STATUS_ABANDONED_WAIT_0 : STATUS_WAIT_0) + static_cast<NTSTATUS>(i);
        return true;
    }
    return false;
}

void Enqueue(WaitRecord& wait)
{
    for (ULONG i = 0; i < wait.Count; ++i) InsertTailList(&wait.Blocks[i].Object->WaitListHead, &wait.Blocks[i].Link);
    wait.Thread->Wait = &wait;
}

void Dequeue(WaitRecord& wait)
{
    for (ULONG i = 0; i < wait.Count; ++i) RemoveEntryList(&wait.Blocks[i].Link);
    wait.Thread->Wait = nullptr;
}

// True, with the status, if an alertable wait must not begin.
bool Alerted(WaitRecord& wait)
{
    if (!wait.Alertable) return false;
    _ETHREAD* const thread = wait.Thread;
    const bool hasApcs = wait.Mode != KernelMode && !IsListEmpty(&thread->Apcs[UserMode]);
    if (std::exchange(thread->Alerted[ModeIndex(wait.Mode)], false))
        wait.Result = STATUS_ALERTED;
    else if (hasApcs)
        wait.Result = STATUS_USER_APC;
    else if (std::exchange(thread->Alerted[KernelMode], false))
        wait.Result = STATUS_ALERTED;
    else
        return false;
    return true;
}

int64_t DeadlineOf(const LARGE_INTEGER* timeout)
{
    if (!timeout) return NoDeadline;
    constexpr int64_t longest = INT64_MAX / 2 / 100;
    if (timeout->QuadPart < -longest) return NoDeadline;
    const int64_t ticks = timeout->QuadPart <= 0 ? -timeout->QuadPart : timeout->QuadPart - SystemTimeNow();
    if (ticks > longest) return NoDeadline;
    return MonotonicNow() + (ticks > 0 ? ticks * 100 : 0);
}

bool OnlyTests(const LARGE_INTEGER* timeout) { return timeout && timeout->QuadPart == 0; }

void CheckMayBlock(const _ETHREAD* thread)
{
    if (thread->Irql > APC_LEVEL)
        ReportFinding("wait-above-apc-level", "a wait that may block, at IRQL " + std::to_string(thread->Irql));
}

void NoteMutexOrder(const WaitRecord& wait)
{
    for (ULONG i = 0; i < wait.Count; ++i)
        if (wait.Blocks[i].IsMutex && !FindHeld(wait.Thread, wait.Blocks[i].Object))
            NoteLockOrder(wait.Thread, wait.Blocks[i].Object);
}

// The thread's own record of what it took; whoever signalled could not write there.
void NoteMutexes(const WaitRecord& wait)
{
    const auto index = static_cast<ULONG>(wait.Result & ~STATUS_ABANDONED_WAIT_0);
    for (ULONG i = 0; i < wait.Count; ++i)
        if (wait.Blocks[i].IsMutex && (wait.Type == WaitAll || i == index))
            NoteHeld(wait.Thread, wait.Blocks[i].Object, HeldLock::Kind::Mutex, HoldMode::Exclusive, wait.Where);
}

// Parking and being woken takes two system calls and the way through the host's scheduler, some ten microseconds. So a
// thread whose last wait was over sooner looks for a moment whether this one is, unless it has the only processor.
constexpr uint64_t kSpinCycles = 40'000, kWorthSpinning = 3 * kSpinCycles;

bool SpinForWake(const std::atomic<uint32_t>& word)
{
    const uint64_t start = __builtin_ia32_rdtsc();
    do {
        if (word.load(std::memory_order_acquire) == 1) return true;
        __builtin_ia32_pause();
    } while (__builtin_ia32_rdtsc() - start < kSpinCycles);
    return false;
}

// Tells from how long this wait takes whether the thread's next one spins.
class WatchedWait {
public:
    explicit WatchedWait(_ETHREAD* thread) : thread_(thread), start_(__builtin_ia32_rdtsc()) {}
    ~WatchedWait()
    {
        static const bool severalProcessors = HostProcessors() > 1;
        thread_->Spins = severalProcessors && !scheduled.load(std::memory_order_relaxed) &&
                         __builtin_ia32_rdtsc() - start_ < kWorthSpinning;
    }
    WatchedWait(const WatchedWait&) = delete;
    WatchedWait& operator=(const WatchedWait&) = delete;

private:
    _ETHREAD* thread_;
    uint64_t start_;
};

bool TookObjects(NTSTATUS result) { return (result & ~STATUS_ABANDONED_WAIT_0) < MAXIMUM_WAIT_OBJECTS; }

NTSTATUS Block(WaitRecord& wait, int64_t deadline)
{
    NoteWaitFor("an object", wait.Count ? wait.Blocks[0].Object : nullptr);
    const RecordedWait recorded("an object", wait.Count ? wait.Blocks[0].Object : nullptr);
    if (AwaitWake(wait.Thread, deadline)) return wait.Result;
    {
        std::lock_guard lock(dispatcherLock);
        if (!wait.Ended) {
            Dequeue(wait);
            return STATUS_TIMEOUT;
        }
    }
    // Ended just as the time ran out: the waker still reads this record, on this stack.
    AwaitWake(wait.Thread);
    return wait.Result;
}

NTSTATUS WaitOnce(WaitRecord& wait, bool onlyTests, int64_t deadline)
{
    {
        std::lock_guard lock(dispatcherLock);
        if (wait.TakesKernelApcs && !IsListEmpty(&wait.Thread->Apcs[KernelMode])) return STATUS_KERNEL_APC;
        if (TrySatisfy(wait) || Alerted(wait)) return wait.Result;
        if (onlyTests) return STATUS_TIMEOUT;
        ArmWake(wait.Thread);
        wait.Ended = false;
        Enqueue(wait);
    }
    return Block(wait, deadline);
}

NTSTATUS WaitUnnoted(WaitRecord& wait, PVOID* objects, const LARGE_INTEGER* timeout)
{
    SwitchPoint("a wait");
    const bool onlyTests = OnlyTests(timeout);
    if (NTHOST_CHECKS && !onlyTests) CheckMayBlock(wait.Thread);
    for (ULONG i = 0; i < wait.Count; ++i) {
        auto* const object = static_cast<DISPATCHER_HEADER*>(objects[i]);
        wait.Blocks[i] = {{}, object, &wait, object->Type == kMutexObject};
    }
    if (NTHOST_CHECKS && !onlyTests) NoteMutexOrder(wait);
    wait.TakesKernelApcs = wait.Thread->Irql < APC_LEVEL && !AreApcsDisabled(wait.Thread);
    const int64_t deadline = onlyTests ? 0 : DeadlineOf(timeout);
    NTSTATUS status;
    while ((status = WaitOnce(wait, onlyTests, deadline)) == STATUS_KERNEL_APC) DeliverKernelApcs(wait.Thread);
    if (TookObjects(status)) NoteMutexes(wait);
    // The objects may be gone by now, the thread is here.
    if (status == STATUS_USER_APC) wait.Thread->UserApcPending = true;
    return status;
}

// A thread of a driver's own that comes for a permit is done with the work of the one before, and who gets one has
// work. What is looked at after the wait is addresses: the objects may be gone.
NTSTATUS WaitForWork(WaitRecord& wait, PVOID* objects, const LARGE_INTEGER* timeout)
{
    bool isQueue[MAXIMUM_WAIT_OBJECTS];
    for (ULONG i = 0; i < wait.Count; ++i) {
        isQueue[i] = static_cast<DISPATCHER_HEADER*>(objects[i])->Type == kSemaphoreObject;
        if (isQueue[i]) NoteDone(wait.Thread, objects[i]);
    }
    const WAIT_TYPE type = wait.Type;
    const NTSTATUS status = WaitUnnoted(wait, objects, timeout);
    for (ULONG i = 0; i < wait.Count; ++i) {
        const bool taken =
            type == WaitAll ? status == STATUS_WAIT_0 : status == STATUS_WAIT_0 + static_cast<NTSTATUS>(i);
        if (isQueue[i] && taken) NoteAtWork(wait.Thread, objects[i]);
    }
    return status;
}

NTSTATUS Wait(WaitRecord& wait, PVOID* objects, const LARGE_INTEGER* timeout)
{
    const bool noted = NTHOST_CHECKS && wait.Thread->TakesWork;
    return (noted ? WaitForWork : WaitUnnoted)(wait, objects, timeout);
}

} // namespace

// Of a driver's own threads that wait for work, which any of them can do, the last that came: it may not sleep yet, and
// the caches still hold what it works with.
WaitRecord* LastWorker(DISPATCHER_HEADER* object)
{
    if (object->Type != kSemaphoreObject || IsListEmpty(&object->WaitListHead)) return nullptr;
    WaitRecord* const wait = CONTAINING_RECORD(object->WaitListHead.Blink, WaitBlock, Link)->Record;
    return wait->Thread->TakesWork && wait->Type == WaitAny ? wait : nullptr;
}

// A waiter that leaves may have had several blocks in this very list, so the walk begins anew after each. Waits for all
// that lack another object are passed over. First come, first served, but for workers.
WakeChain ReleaseWaiters(DISPATCHER_HEADER* object)
{
    WakeChain first = nullptr;
    WakeChain* last = &first;
    if (WaitRecord* const worker = LastWorker(object); worker && TrySatisfy(*worker)) {
        first = EndWait(worker, worker->Result);
        last = &worker->NextToWake;
    }
    LIST_ENTRY* entry = object->WaitListHead.Flink;
    while (entry != &object->WaitListHead && object->SignalState > 0) {
        WaitRecord& wait = *CONTAINING_RECORD(entry, WaitBlock, Link)->Record;
        entry = entry->Flink;
        if (!TrySatisfy(wait)) continue;
        *last = EndWait(&wait, wait.Result);
        last = &wait.NextToWake;
        entry = object->WaitListHead.Flink;
    }
    return first;
}

WakeChain EndWait(WaitRecord* wait, NTSTATUS status)
{
    Dequeue(*wait);
    wait->Ended = true;
    wait->Result = status;
    wait->NextToWake = nullptr;
    return wait;
}

void WakeAll(WakeChain chain)
{
    while (chain) {
        WaitRecord* const next = chain->NextToWake;
        Wake(chain->Thread);
        chain = next;
    }
}

bool WaitsForUserApcs(const WaitRecord* wait) { return wait && wait->Alertable && wait->Mode == UserMode; }

bool WaitsForKernelApcs(const WaitRecord* wait) { return wait && wait->TakesKernelApcs; }

// A kernel-mode alert ends a user-mode wait too.
bool WaitsForAlerts(const WaitRecord* wait, KPROCESSOR_MODE mode)
{
    return wait && wait->Alertable && mode <= wait->Mode;
}

// WakeWord: 0 not woken, 1 woken, 2 not woken and parked, so that waking a thread that has not parked costs no system
// call.
bool AwaitWake(_ETHREAD* thread, int64_t deadline)
{
    std::atomic<uint32_t>& word = thread->WakeWord;
    const WatchedWait watched(thread);
    if (thread->Spins && SpinForWake(word)) return true;
    uint32_t expected = 0;
    if (!word.compare_exchange_strong(expected, 2, std::memory_order_acquire) && expected == 1) return true;
    while (word.load(std::memory_order_acquire) != 1)
        if (!ParkOnAddress(&word, 2, deadline)) return word.load(std::memory_order_acquire) == 1;
    return true;
}

void Wake(_ETHREAD* thread)
{
    std::atomic<uint32_t>* const word = &thread->WakeWord;
    if (word->exchange(1, std::memory_order_acq_rel) == 2) UnparkAddress(word, 1);
}

} // namespace nthost::ke

using namespace nthost;
using namespace nthost::ke;

NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON, KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                     PLARGE_INTEGER Timeout)
{
    WaitBlock block;
    WaitRecord wait{.Thread = CurrentThread(),
                    .Blocks = &block,
                    .Count = 1,
                    .Type = WaitAny,
                    .Mode = WaitMode,
                    .Alertable = Alertable != FALSE,
                    .TakesKernelApcs = false,
                    .Where = __builtin_return_address(0)};
    return Wait(wait, &Object, Timeout);
}

NTSTATUS NTAPI KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType, KWAIT_REASON,
                                        KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Timeout,
                                        PKWAIT_BLOCK WaitBlockArray)
{
    if (Count == 0 || Count > (WaitBlockArray ? MAXIMUM_WAIT_OBJECTS : THREAD_WAIT_OBJECTS))
        Fatal("KeWaitForMultipleObjects: %u objects %s wait blocks", Count, WaitBlockArray ? "with" : "without");
    WaitBlock blocks[MAXIMUM_WAIT_OBJECTS];
    WaitRecord wait{.Thread = CurrentThread(),
                    .Blocks = blocks,
                    .Count = Count,
                    .Type = WaitType,
                    .Mode = WaitMode,
                    .Alertable = Alertable != FALSE,
                    .TakesKernelApcs = false,
                    .Where = __builtin_return_address(0)};
    return Wait(wait, Object, Timeout);
}

// A wait for nothing, which only time, an alert or an APC ends.
NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval)
{
    WaitRecord wait{.Thread = CurrentThread(),
                    .Blocks = nullptr,
                    .Count = 0,
                    .Type = WaitAny,
                    .Mode = WaitMode,
                    .Alertable = Alertable != FALSE,
                    .TakesKernelApcs = false,
                    .Where = nullptr};
    const NTSTATUS status = Wait(wait, nullptr, Interval);
    if (OnlyTests(Interval)) GiveWay();
    return status == STATUS_TIMEOUT ? STATUS_SUCCESS : status;
}
