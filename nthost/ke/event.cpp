// Events and semaphores: what sets their state. Their waits are wait.cpp's.
#include "ke/lock_order.h"
#include "ke/dispatcher.h"
#include "ke/schedule_point.h"
#include "ke/thread.h"
#include "ke/wait.h"

namespace nthost::ke {

namespace {

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

} // namespace

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
LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY, BOOLEAN)
{
    const LONG before = Signal(&Event->Header, 1);
    SwitchPoint("an event that was set");
    return before;
}

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
    const LONG before = ReleaseSemaphore(Semaphore, Adjustment);
    SwitchPoint("a semaphore's release");
    return before;
}

LONG NTAPI KeReadStateSemaphore(PRKSEMAPHORE Semaphore)
{
    return __atomic_load_n(&Semaphore->Header.SignalState, __ATOMIC_ACQUIRE);
}
