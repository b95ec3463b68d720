// The executive: pool, resources, work items on system worker threads.
#pragma once

#include "base.h"
#include "ke.h"
#include "status.h"

NT_EXTERN_C_BEGIN

typedef enum _POOL_TYPE {
    NonPagedPool = 0,
    PagedPool = 1,
    NonPagedPoolNx = 512,
    PoolTypeWithFlags = 0x7fffffff // names no pool: makes the or-ed flags below values of the type
} POOL_TYPE;

// Or-ed into the pool type.
#define POOL_QUOTA_FAIL_INSTEAD_OF_RAISE 8
#define POOL_RAISE_IF_ALLOCATION_FAILURE 16
#define POOL_ZERO_ALLOCATION             0x400

// Null when there is no memory. Blocks are 16-byte aligned, page-aligned from a page on.
NTKERNELAPI PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
// Tag 0 frees a block of any tag; another tag must match the block's.
NTKERNELAPI VOID NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag);
#define ExFreePool(P) ExFreePoolWithTag((P), 0)

typedef ULONG_PTR ERESOURCE_THREAD, *PERESOURCE_THREAD;

typedef struct _OWNER_ENTRY {
    ERESOURCE_THREAD OwnerThread;
    union {
        struct {
            ULONG IoPriorityBoosted : 1;
            ULONG OwnerReferenced : 1;
            ULONG OwnerCount : 30;
        };
        ULONG TableSize;
    };
} OWNER_ENTRY, *POWNER_ENTRY;

// Shared and exclusive, recursive. The public size is part of the contract: drivers embed it.
typedef struct _ERESOURCE {
    LIST_ENTRY SystemResourcesList;
    POWNER_ENTRY OwnerTable;
    SHORT ActiveCount;
    USHORT Flag;
    PVOID SharedWaiters;
    PVOID ExclusiveWaiters;
    OWNER_ENTRY OwnerEntry;
    ULONG ActiveEntries;
    ULONG ContentionCount;
    ULONG NumberOfSharedWaiters;
    ULONG NumberOfExclusiveWaiters;
    PVOID Reserved2;
    union {
        PVOID Address;
        ULONG_PTR CreatorBackTraceIndex;
    };
    KSPIN_LOCK SpinLock;
} ERESOURCE, *PERESOURCE;

NTKERNELAPI NTSTATUS NTAPI ExInitializeResourceLite(PERESOURCE Resource);
NTKERNELAPI NTSTATUS NTAPI ExDeleteResourceLite(PERESOURCE Resource);
// FALSE only when Wait is FALSE and the resource is not free. Call at or below APC_LEVEL, with kernel APCs disabled
// unless the thread is a system thread. An exclusive owner may take it shared; a waiting exclusive request holds back
// new shared ones, but not a thread that already owns it shared.
NTKERNELAPI BOOLEAN NTAPI ExAcquireResourceExclusiveLite(PERESOURCE Resource, BOOLEAN Wait);
NTKERNELAPI BOOLEAN NTAPI ExAcquireResourceSharedLite(PERESOURCE Resource, BOOLEAN Wait);
// As shared, but never held back by waiting exclusive requests.
NTKERNELAPI BOOLEAN NTAPI ExAcquireSharedStarveExclusive(PERESOURCE Resource, BOOLEAN Wait);
NTKERNELAPI VOID FASTCALL ExReleaseResourceLite(PERESOURCE Resource);
NTKERNELAPI VOID NTAPI ExReleaseResourceForThreadLite(PERESOURCE Resource, ERESOURCE_THREAD ResourceThreadId);
NTKERNELAPI VOID NTAPI ExConvertExclusiveToSharedLite(PERESOURCE Resource);
NTKERNELAPI BOOLEAN NTAPI ExIsResourceAcquiredExclusiveLite(PERESOURCE Resource);
// How many times the current thread holds it, shared or exclusive; 0 if not at all.
NTKERNELAPI ULONG NTAPI ExIsResourceAcquiredSharedLite(PERESOURCE Resource);
NTKERNELAPI ULONG NTAPI ExGetExclusiveWaiterCount(PERESOURCE Resource);
NTKERNELAPI ULONG NTAPI ExGetSharedWaiterCount(PERESOURCE Resource);
#define ExGetCurrentResourceThread() ((ERESOURCE_THREAD)KeGetCurrentThread())

typedef VOID(NTAPI* PWORKER_THREAD_ROUTINE)(PVOID Parameter);

typedef struct _WORK_QUEUE_ITEM {
    LIST_ENTRY List;
    PWORKER_THREAD_ROUTINE WorkerRoutine;
    PVOID Parameter;
} WORK_QUEUE_ITEM, *PWORK_QUEUE_ITEM;

typedef enum _WORK_QUEUE_TYPE {
    CriticalWorkQueue,
    DelayedWorkQueue,
    HyperCriticalWorkQueue,
    MaximumWorkQueue
} WORK_QUEUE_TYPE;

#define ExInitializeWorkItem(Item, Routine, Context) \
    ((Item)->WorkerRoutine = (Routine), (Item)->Parameter = (Context), (Item)->List.Flink = NULL)
NTKERNELAPI VOID NTAPI ExQueueWorkItem(PWORK_QUEUE_ITEM WorkItem, WORK_QUEUE_TYPE QueueType);

NT_EXTERN_C_END

#include "lookaside.h"
