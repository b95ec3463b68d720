// Dispatcher objects: events, semaphores, threads and processes, and the waits for them. One dispatcher lock guards
// every signal state and every list of waiters, so that a wait for all of several objects takes them in one step.
// A signal releases as many waiters as it satisfies and no more; each is woken once. There are no user APCs here: an
// alertable wait is accepted and never ends early. An absolute timeout is turned into a relative one when the wait
// begins, so setting the clock does not move it.
#include "ke/wait.h"

#include <ctime>
#include <mutex>

#include <nthost/check.h>

#include "check/fatal.h"
#include "check/lock_order.h"
#include "ke/word_lock.h"

namespace nthost::ke {

namespace {

WordLock dispatcherLock;

struct WaitRecord;

// One object of one wait, in the object's list of waiters. On the waiter's stack.
struct WaitBlock {
    LIST_ENTRY Link;
    DISPATCHER_HEADER* Object;
    WaitRecord* Record;
    ULONG Index;
};

struct WaitRecord {
    _ETHREAD* Thread;
    WaitBlock* Blocks;
    ULONG Count;
    WAIT_TYPE Type;
    bool Satisfied; // its blocks are out of every list; the wake-up has come or is on its way
    NTSTATUS Result;
    WaitRecord* NextToWake;
};

using WakeChain = WaitRecord*;

void Consume(DISPATCHER_HEADER* object)
{
    if (object->Type == SynchronizationEvent) object->SignalState = 0;
    if (object->Type == kSemaphoreObject) --object->SignalState;
}

bool AllSignalled(const WaitRecord& wait)
{
    for (ULONG i = 0; i < wait.Count; ++i)
        if (wait.Blocks[i].Object->SignalState <= 0) return false;
    return true;
}

// Takes what the wait asks for if it is there now.
bool TrySatisfy(WaitRecord& wait)
{
    if (wait.Type == WaitAll) {
        if (!AllSignalled(wait)) return false;
        for (ULONG i = 0; i < wait.Count; ++i) Consume(wait.Blocks[i].Object);
        wait.Result = STATUS_WAIT_0;
        return true;
    }
    for (ULONG i = 0; i < wait.Count; ++i) {
        if (wait.Blocks[i].Object->SignalState <= 0) continue;
        Consume(wait.Blocks[i].Object);
        wait.Result = STATUS_WAIT_0 + static_cast<NTSTATUS>(i);
        return true;
    }
    return false;
}

void Enqueue(WaitRecord& wait)
{
    for (ULONG i = 0; i < wait.Count; ++i) InsertTailList(&wait.Blocks[i].Object->WaitListHead, &wait.Blocks[i].Link);
}

void Dequeue(WaitRecord& wait)
{
    for (ULONG i = 0; i < wait.Count; ++i) RemoveEntryList(&wait.Blocks[i].Link);
}

// Hands the object's new state to waiters, first come first served. Waits for all that lack another object are passed
// over. A waiter that leaves may have had several blocks in this very list, so the walk begins anew after each.
WakeChain ReleaseWaiters(DISPATCHER_HEADER* object)
{
    WakeChain first = nullptr;
    WakeChain* last = &first;
    LIST_ENTRY* entry = object->WaitListHead.Flink;
    while (entry != &object->WaitListHead && object->SignalState > 0) {
        WaitRecord& wait = *CONTAINING_RECORD(entry, WaitBlock, Link)->Record;
        entry = entry->Flink;
        if (!TrySatisfy(wait)) continue;
        Dequeue(wait);
        wait.Satisfied = true;
        wait.NextToWake = nullptr;
        *last = &wait;
        last = &wait.NextToWake;
        entry = object->WaitListHead.Flink;
    }
    return first;
}

// Without the lock: the woken may free the objects, and their own records, at once.
void WakeAll(WakeChain chain)
{
    while (chain) {
        WaitRecord* const next = chain->NextToWake;
        Wake(chain->Thread);
        chain = next;
    }
}

// Sets the state and releases whom it satisfies; returns the state before.
LONG Signal(DISPATCHER_HEADER* object, LONG state)
{
    std::unique_lock lock(dispatcherLock);
    const LONG before = object->SignalState;
    __atomic_store_n(&object->SignalState, state, __ATOMIC_RELEASE);
    if (IsListEmpty(&object->WaitListHead)) return before;
    const WakeChain chain = ReleaseWaiters(object);
    lock.unlock();
    WakeAll(chain);
    return before;
}

LONG Reset(DISPATCHER_HEADER* object)
{
    std::lock_guard lock(dispatcherLock);
    return __atomic_exchange_n(&object->SignalState, 0, __ATOMIC_RELEASE);
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

NTSTATUS Block(WaitRecord& wait, int64_t deadline)
{
    if (AwaitWake(wait.Thread, deadline)) return wait.Result;
    {
        std::lock_guard lock(dispatcherLock);
        if (!wait.Satisfied) {
            Dequeue(wait);
            return STATUS_TIMEOUT;
        }
    }
    // Satisfied just as the time ran out: the waker still reads this record, on this stack.
    AwaitWake(wait.Thread);
    return wait.Result;
}

NTSTATUS WaitUnnoted(WaitBlock* blocks, PVOID* objects, ULONG count, WAIT_TYPE type, const LARGE_INTEGER* timeout)
{
    WaitRecord wait{CurrentThread(), blocks, count, type, false, STATUS_SUCCESS, nullptr};
    if (NTHOST_CHECKS && !OnlyTests(timeout)) CheckMayBlock(wait.Thread);
    for (ULONG i = 0; i < count; ++i) {
        blocks[i].Object = static_cast<DISPATCHER_HEADER*>(objects[i]);
        blocks[i].Record = &wait;
        blocks[i].Index = i;
    }
    {
        std::lock_guard lock(dispatcherLock);
        if (TrySatisfy(wait)) return wait.Result;
        if (OnlyTests(timeout)) return STATUS_TIMEOUT;
        ArmWake(wait.Thread);
        Enqueue(wait);
    }
    return Block(wait, DeadlineOf(timeout));
}

// A thread of a driver's own that comes for a permit is done with the work of the one before, and who gets one has
// work. What is looked at after the wait is addresses: the objects may be gone.
NTSTATUS WaitForWork(WaitBlock* blocks, PVOID* objects, ULONG count, WAIT_TYPE type, const LARGE_INTEGER* timeout)
{
    _ETHREAD* const thread = CurrentThread();
    bool isQueue[MAXIMUM_WAIT_OBJECTS];
    for (ULONG i = 0; i < count; ++i) {
        isQueue[i] = static_cast<DISPATCHER_HEADER*>(objects[i])->Type == kSemaphoreObject;
        if (isQueue[i]) NoteDone(thread, objects[i]);
    }
    const NTSTATUS status = WaitUnnoted(blocks, objects, count, type, timeout);
    for (ULONG i = 0; i < count; ++i) {
        const bool taken =
            type == WaitAll ? status == STATUS_WAIT_0 : status == STATUS_WAIT_0 + static_cast<NTSTATUS>(i);
        if (isQueue[i] && taken) NoteAtWork(thread, objects[i]);
    }
    return status;
}

NTSTATUS Wait(WaitBlock* blocks, PVOID* objects, ULONG count, WAIT_TYPE type, const LARGE_INTEGER* timeout)
{
    const bool noted = NTHOST_CHECKS && CurrentThread()->TakesWork;
    return (noted ? WaitForWork : WaitUnnoted)(blocks, objects, count, type, timeout);
}

} // namespace

// WakeWord: 0 not woken, 1 woken, 2 not woken and parked, so that waking a thread that has not parked costs no system
// call.
bool AwaitWake(_ETHREAD* thread, int64_t deadline)
{
    std::atomic<uint32_t>& word = thread->WakeWord;
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

void InitializeHeader(DISPATCHER_HEADER* header, UCHAR type, LONG state)
{
    *header = {};
    header->Type = type;
    header->SignalState = state;
    InitializeListHead(&header->WaitListHead);
}

void SignalHeader(DISPATCHER_HEADER* header) { Signal(header, 1); }

LONG ReleaseSemaphore(PRKSEMAPHORE semaphore, LONG adjustment)
{
    DISPATCHER_HEADER* const header = &semaphore->Header;
    LONG before;
    WakeChain chain = nullptr;
    bool passesLimit;
    {
        std::lock_guard lock(dispatcherLock);
        before = header->SignalState;
        passesLimit = adjustment <= 0 || adjustment > semaphore->Limit - before;
        if (!passesLimit) {
            __atomic_store_n(&header->SignalState, before + adjustment, __ATOMIC_RELEASE);
            chain = ReleaseWaiters(header);
        }
    }
    // Raised with nothing held: no destructor runs on the way to the guard.
    if (passesLimit) ExRaiseStatus(STATUS_SEMAPHORE_LIMIT_EXCEEDED);
    WakeAll(chain);
    return before;
}

} // namespace nthost::ke

using namespace nthost;
using namespace nthost::ke;

VOID NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State)
{
    InitializeHeader(&Event->Header, static_cast<UCHAR>(Type), State ? 1 : 0);
    Event->Header.Size = sizeof(KEVENT) / sizeof(ULONG);
}

VOID NTAPI KeClearEvent(PRKEVENT Event) { Reset(&Event->Header); }

LONG NTAPI KeResetEvent(PRKEVENT Event) { return Reset(&Event->Header); }

// Wait TRUE announces that a wait follows at once; nothing is gained from it here.
LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY, BOOLEAN) { return Signal(&Event->Header, 1); }

LONG NTAPI KeReadStateEvent(PRKEVENT Event) { return __atomic_load_n(&Event->Header.SignalState, __ATOMIC_ACQUIRE); }

VOID NTAPI KeInitializeSemaphore(PRKSEMAPHORE Semaphore, LONG Count, LONG Limit)
{
    if (NTHOST_CHECKS) ForgetLocksIn(Semaphore, sizeof(KSEMAPHORE));
    InitializeHeader(&Semaphore->Header, kSemaphoreObject, Count);
    Semaphore->Header.Size = sizeof(KSEMAPHORE) / sizeof(ULONG);
    Semaphore->Limit = Limit;
}

LONG NTAPI KeReleaseSemaphore(PRKSEMAPHORE Semaphore, KPRIORITY, LONG Adjustment, BOOLEAN)
{
    if (_ETHREAD* const thread = NTHOST_CHECKS ? CurrentThreadOrNull() : nullptr) thread->ReleasedSemaphore = Semaphore;
    return ReleaseSemaphore(Semaphore, Adjustment);
}

LONG NTAPI KeReadStateSemaphore(PRKSEMAPHORE Semaphore)
{
    return __atomic_load_n(&Semaphore->Header.SignalState, __ATOMIC_ACQUIRE);
}

NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON, KPROCESSOR_MODE, BOOLEAN, PLARGE_INTEGER Timeout)
{
    WaitBlock block;
    return Wait(&block, &Object, 1, WaitAny, Timeout);
}

NTSTATUS NTAPI KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType, KWAIT_REASON, KPROCESSOR_MODE,
                                        BOOLEAN, PLARGE_INTEGER Timeout, PKWAIT_BLOCK WaitBlockArray)
{
    if (Count == 0 || Count > (WaitBlockArray ? MAXIMUM_WAIT_OBJECTS : THREAD_WAIT_OBJECTS))
        Fatal("KeWaitForMultipleObjects: %u objects %s wait blocks", Count, WaitBlockArray ? "with" : "without");
    WaitBlock blocks[MAXIMUM_WAIT_OBJECTS];
    return Wait(blocks, Object, Count, WaitType, Timeout);
}
