// Mutexes of three kinds, timers, deferred procedure calls. Drivers embed all of them, in memory that is not paged; the
// layouts are the public ones. Included by nt/ke.h.
#pragma once

#include "ke.h"

NT_EXTERN_C_BEGIN

// --- KMUTEX: a dispatcher object, recursive, taken by a wait

typedef struct _KMUTANT {
    DISPATCHER_HEADER Header; // SignalState: 1 free, else 1 minus how often its owner has it
    LIST_ENTRY MutantListEntry;
    PKTHREAD OwnerThread;
    BOOLEAN Abandoned;
    UCHAR ApcDisable;
} KMUTANT, *PKMUTANT, *PRKMUTANT, KMUTEX, *PKMUTEX, *PRKMUTEX;

NTKERNELAPI VOID NTAPI KeInitializeMutex(PRKMUTEX Mutex, ULONG Level);
// The state before: 0 for the last release. Raises STATUS_MUTANT_NOT_OWNED, or STATUS_ABANDONED where the owner has
// ended, and releases nothing, if the caller is not its owner.
NTKERNELAPI LONG NTAPI KeReleaseMutex(PRKMUTEX Mutex, BOOLEAN Wait);
NTKERNELAPI LONG NTAPI KeReadStateMutex(PRKMUTEX Mutex);

// --- fast mutexes: not recursive, held at APC_LEVEL; the Unsafe forms leave the IRQL alone and are for callers that
// keep APCs off themselves

typedef struct _FAST_MUTEX {
    volatile LONG Count; // 1 free, else 0 less one for each that waits
    PKTHREAD Owner;
    ULONG Contention;
    KEVENT Event;
    ULONG OldIrql;
} FAST_MUTEX, *PFAST_MUTEX;

FORCEINLINE VOID ExInitializeFastMutex(PFAST_MUTEX FastMutex)
{
    FastMutex->Count = 1;
    FastMutex->Owner = NULL;
    FastMutex->Contention = 0;
    KeInitializeEvent(&FastMutex->Event, SynchronizationEvent, FALSE);
}
NTKERNELAPI VOID FASTCALL ExAcquireFastMutex(PFAST_MUTEX FastMutex);
NTKERNELAPI VOID FASTCALL ExReleaseFastMutex(PFAST_MUTEX FastMutex);
NTKERNELAPI BOOLEAN FASTCALL ExTryToAcquireFastMutex(PFAST_MUTEX FastMutex);
NTKERNELAPI VOID FASTCALL ExAcquireFastMutexUnsafe(PFAST_MUTEX FastMutex);
NTKERNELAPI VOID FASTCALL ExReleaseFastMutexUnsafe(PFAST_MUTEX FastMutex);

// --- guarded mutexes: not recursive, held in a guarded region

typedef struct _KGATE {
    DISPATCHER_HEADER Header;
} KGATE, *PKGATE;

typedef struct _KGUARDED_MUTEX {
    volatile LONG Count;
    PKTHREAD Owner;
    ULONG Contention;
    KGATE Gate;
    union {
        struct {
            SHORT KernelApcDisable;
            SHORT SpecialApcDisable;
        };
        ULONG CombinedApcDisable;
    };
} KGUARDED_MUTEX, *PKGUARDED_MUTEX;

NTKERNELAPI VOID FASTCALL KeInitializeGuardedMutex(PKGUARDED_MUTEX Mutex);
NTKERNELAPI VOID FASTCALL KeAcquireGuardedMutex(PKGUARDED_MUTEX Mutex);
NTKERNELAPI VOID FASTCALL KeReleaseGuardedMutex(PKGUARDED_MUTEX Mutex);
NTKERNELAPI BOOLEAN FASTCALL KeTryToAcquireGuardedMutex(PKGUARDED_MUTEX Mutex);
NTKERNELAPI VOID FASTCALL KeAcquireGuardedMutexUnsafe(PKGUARDED_MUTEX Mutex);
NTKERNELAPI VOID FASTCALL KeReleaseGuardedMutexUnsafe(PKGUARDED_MUTEX Mutex);

// --- deferred procedure calls: one at a time, on a thread of the system's, at DISPATCH_LEVEL

struct _KDPC;
typedef VOID(NTAPI* PKDEFERRED_ROUTINE)(struct _KDPC* Dpc, PVOID DeferredContext, PVOID SystemArgument1,
                                        PVOID SystemArgument2);

typedef struct _KDPC {
    UCHAR Type;
    UCHAR Importance;
    volatile USHORT Number;
    LIST_ENTRY DpcListEntry;
    PKDEFERRED_ROUTINE DeferredRoutine;
    PVOID DeferredContext;
    PVOID SystemArgument1;
    PVOID SystemArgument2;
    volatile PVOID DpcData; // not null while it is queued
} KDPC, *PKDPC, *PRKDPC;

NTKERNELAPI VOID NTAPI KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext);
// FALSE, with nothing changed, if it is queued already. Out of the queue before its routine is called.
NTKERNELAPI BOOLEAN NTAPI KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2);
NTKERNELAPI BOOLEAN NTAPI KeRemoveQueueDpc(PRKDPC Dpc);
// Returns when none is queued or running. At PASSIVE_LEVEL.
NTKERNELAPI VOID NTAPI KeFlushQueuedDpcs(VOID);

// --- timers: signalled when their time has come; a synchronization timer releases one wait and is not signalled again

typedef enum _TIMER_TYPE { NotificationTimer, SynchronizationTimer } TIMER_TYPE;

typedef struct _KTIMER {
    DISPATCHER_HEADER Header;
    ULONGLONG DueTime; // of the system's own clock, in 100 ns
    LIST_ENTRY TimerListEntry;
    struct _KDPC* Dpc;
    ULONG Processor;
    ULONG Period; // in milliseconds; 0 for once
} KTIMER, *PKTIMER, *PRKTIMER;

NTKERNELAPI VOID NTAPI KeInitializeTimer(PKTIMER Timer);
NTKERNELAPI VOID NTAPI KeInitializeTimerEx(PKTIMER Timer, TIMER_TYPE Type);
// DueTime as a wait's timeout. A timer that is set already starts anew, and TRUE tells so. A time that has passed
// signals it before the call returns. With a Dpc that is queued each time the timer comes.
NTKERNELAPI BOOLEAN NTAPI KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc);
NTKERNELAPI BOOLEAN NTAPI KeSetTimerEx(PKTIMER Timer, LARGE_INTEGER DueTime, LONG Period, PKDPC Dpc);
// TRUE if it was set. A DPC of it that is queued stays so.
NTKERNELAPI BOOLEAN NTAPI KeCancelTimer(PKTIMER Timer);
NTKERNELAPI BOOLEAN NTAPI KeReadStateTimer(PKTIMER Timer);

NT_EXTERN_C_END
