// The kernel core: IRQL, spin locks, critical regions, events, semaphores, waits.
#pragma once

#include "base.h"
#include "status.h"

NT_EXTERN_C_BEGIN

// Signal state and waiters of everything that can be waited for. The waiters' list and the state are changed only
// under the dispatcher lock.
typedef struct _DISPATCHER_HEADER {
    UCHAR Type;
    UCHAR Signalling;
    UCHAR Size;
    UCHAR Reserved1;
    LONG SignalState;
    LIST_ENTRY WaitListHead;
} DISPATCHER_HEADER;

typedef struct _KEVENT {
    DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT, *PRKEVENT;

typedef struct _KSEMAPHORE {
    DISPATCHER_HEADER Header;
    LONG Limit;
} KSEMAPHORE, *PKSEMAPHORE, *PRKSEMAPHORE;

typedef ULONG_PTR KSPIN_LOCK, *PKSPIN_LOCK;

typedef enum _EVENT_TYPE { NotificationEvent, SynchronizationEvent } EVENT_TYPE;

typedef enum _WAIT_TYPE { WaitAll, WaitAny } WAIT_TYPE;

typedef enum _KWAIT_REASON {
    Executive,
    FreePage,
    PageIn,
    PoolAllocation,
    DelayExecution,
    Suspended,
    UserRequest
} KWAIT_REASON;

typedef struct _KWAIT_BLOCK KWAIT_BLOCK, *PKWAIT_BLOCK;

#define THREAD_WAIT_OBJECTS  3
#define MAXIMUM_WAIT_OBJECTS 64
#define IO_NO_INCREMENT      0

NTKERNELAPI KIRQL NTAPI KeGetCurrentIrql(VOID);
NTKERNELAPI VOID NTAPI KeLowerIrql(KIRQL NewIrql);
NTKERNELAPI KIRQL NTAPI KfRaiseIrql(KIRQL NewIrql);
#define KeRaiseIrql(NewIrql, OldIrql) (*(OldIrql) = KfRaiseIrql(NewIrql))

NTKERNELAPI VOID NTAPI KeInitializeSpinLock(PKSPIN_LOCK SpinLock);
// Raises to DISPATCH_LEVEL and gives the level before.
NTKERNELAPI KIRQL NTAPI KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock);
NTKERNELAPI VOID NTAPI KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql);
#define KeAcquireSpinLock(SpinLock, OldIrql) (*(OldIrql) = KeAcquireSpinLockRaiseToDpc(SpinLock))

// Keep kernel APCs off the current thread; nested.
NTKERNELAPI VOID NTAPI KeEnterCriticalRegion(VOID);
NTKERNELAPI VOID NTAPI KeLeaveCriticalRegion(VOID);
// Guarded regions keep all APCs off; nested.
NTKERNELAPI VOID NTAPI KeEnterGuardedRegion(VOID);
NTKERNELAPI VOID NTAPI KeLeaveGuardedRegion(VOID);
// In a critical or guarded region, or with a mutex (KMUTEX).
NTKERNELAPI BOOLEAN NTAPI KeAreApcsDisabled(VOID);
// In a guarded region, or at or above APC_LEVEL.
NTKERNELAPI BOOLEAN NTAPI KeAreAllApcsDisabled(VOID);

NTKERNELAPI VOID NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State);
NTKERNELAPI VOID NTAPI KeClearEvent(PRKEVENT Event);
// All three return the state before the call.
NTKERNELAPI LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
NTKERNELAPI LONG NTAPI KeResetEvent(PRKEVENT Event);
NTKERNELAPI LONG NTAPI KeReadStateEvent(PRKEVENT Event);

NTKERNELAPI VOID NTAPI KeInitializeSemaphore(PRKSEMAPHORE Semaphore, LONG Count, LONG Limit);
// Raises STATUS_SEMAPHORE_LIMIT_EXCEEDED, with the count unchanged, if the release would pass the limit. Returns the
// count before.
NTKERNELAPI LONG NTAPI KeReleaseSemaphore(PRKSEMAPHORE Semaphore, KPRIORITY Increment, LONG Adjustment, BOOLEAN Wait);
NTKERNELAPI LONG NTAPI KeReadStateSemaphore(PRKSEMAPHORE Semaphore);

// An alertable wait in user mode ends with STATUS_USER_APC when a user APC is queued to the thread, which is called
// when the service returns to user mode; any alertable one ends with STATUS_ALERTED. A wait that takes a mutex whose
// owner ended without releasing it gives STATUS_ABANDONED_WAIT_0 plus the index. Timeout: null waits for ever; negative
// is relative, positive absolute, both in 100 ns; zero only tests.
NTKERNELAPI NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                                                 BOOLEAN Alertable, PLARGE_INTEGER Timeout);
// WaitAny reports STATUS_WAIT_0 plus the lowest satisfied index.
NTKERNELAPI NTSTATUS NTAPI KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType,
                                                    KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                                                    BOOLEAN Alertable, PLARGE_INTEGER Timeout,
                                                    PKWAIT_BLOCK WaitBlockArray);

// STATUS_SUCCESS when the time is over, else STATUS_USER_APC or STATUS_ALERTED. An interval of zero gives way.
NTKERNELAPI NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval);

NTKERNELAPI PKTHREAD NTAPI KeGetCurrentThread(VOID);
// 100 ns intervals since 1601-01-01 UTC.
NTKERNELAPI VOID NTAPI KeQuerySystemTime(PLARGE_INTEGER CurrentTime);
// A clock that only goes forward; its ticks a second go to *PerformanceFrequency, which may be null.
NTKERNELAPI LARGE_INTEGER NTAPI KeQueryPerformanceCounter(PLARGE_INTEGER PerformanceFrequency);

NT_EXTERN_C_END

#include "kesync.h"
