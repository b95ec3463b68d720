// Pool by flags, and lookaside lists: freed blocks of one size that are kept for the next allocation. Included by
// nt/ex.h.
#pragma once

#include "ex.h"

NT_EXTERN_C_BEGIN

typedef ULONG64 POOL_FLAGS;
#define POOL_FLAG_USE_QUOTA         0x0000000000000001ull
#define POOL_FLAG_UNINITIALIZED     0x0000000000000002ull
#define POOL_FLAG_SESSION           0x0000000000000004ull
#define POOL_FLAG_CACHE_ALIGNED     0x0000000000000008ull
#define POOL_FLAG_RAISE_ON_FAILURE  0x0000000000000020ull
#define POOL_FLAG_NON_PAGED         0x0000000000000040ull
#define POOL_FLAG_NON_PAGED_EXECUTE 0x0000000000000080ull
#define POOL_FLAG_PAGED             0x0000000000000100ull
#define POOL_FLAG_REQUIRED_START    0x0000000000000001ull
#define POOL_FLAG_REQUIRED_END      0x0000000080000000ull
#define POOL_FLAG_OPTIONAL_START    0x0000000100000000ull
#define POOL_FLAG_OPTIONAL_END      0x8000000000000000ull

// Zeroed unless POOL_FLAG_UNINITIALIZED is given. Null for a tag of 0, flags that are not known, or not exactly one
// kind of pool, and without memory; with POOL_FLAG_RAISE_ON_FAILURE these raise instead: STATUS_INVALID_PARAMETER,
// STATUS_INSUFFICIENT_RESOURCES. Flags from POOL_FLAG_OPTIONAL_START on are ignored. Faults count these calls as
// ExAllocatePoolWithTag.
NTKERNELAPI PVOID NTAPI ExAllocatePool2(POOL_FLAGS Flags, SIZE_T NumberOfBytes, ULONG Tag);
// Without extended parameters, which none here needs, the same as ExFreePoolWithTag.
NTKERNELAPI VOID NTAPI ExFreePool2(PVOID Pool, ULONG Tag, const VOID* ExtendedParameters,
                                   ULONG ExtendedParametersCount);

// A list that any thread may push to and pop from. The depth stands in the low 16 bits.
typedef union DECLSPEC_ALIGN(16) _SLIST_HEADER {
    struct {
        ULONGLONG Alignment;
        ULONGLONG Region;
    };
} SLIST_HEADER, *PSLIST_HEADER;

typedef struct DECLSPEC_ALIGN(16) _SLIST_ENTRY {
    struct _SLIST_ENTRY* Next;
} SLIST_ENTRY, *PSLIST_ENTRY;

typedef PVOID(NTAPI* PALLOCATE_FUNCTION)(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
typedef VOID(NTAPI* PFREE_FUNCTION)(PVOID Buffer);

typedef struct DECLSPEC_ALIGN(64) _GENERAL_LOOKASIDE {
    SLIST_HEADER ListHead;
    USHORT Depth; // how many blocks are kept; none where nthost checks, so that each block has a life of its own
    USHORT MaximumDepth;
    ULONG TotalAllocates;
    ULONG AllocateMisses;
    ULONG TotalFrees;
    ULONG FreeMisses;
    POOL_TYPE Type;
    ULONG Tag;
    ULONG Size;
    PALLOCATE_FUNCTION Allocate;
    PFREE_FUNCTION Free;
    LIST_ENTRY ListEntry;
    ULONG LastTotalAllocates;
    ULONG LastAllocateMisses;
    ULONG Future[2];
} GENERAL_LOOKASIDE, *PGENERAL_LOOKASIDE;

typedef struct _PAGED_LOOKASIDE_LIST {
    GENERAL_LOOKASIDE L;
} PAGED_LOOKASIDE_LIST, *PPAGED_LOOKASIDE_LIST;

typedef struct _NPAGED_LOOKASIDE_LIST {
    GENERAL_LOOKASIDE L;
} NPAGED_LOOKASIDE_LIST, *PNPAGED_LOOKASIDE_LIST;

// Allocate and Free may be null: pool with the list's tag. Flags: 0, or POOL_RAISE_IF_ALLOCATION_FAILURE. Depth is
// reserved. A list is to be deleted before its memory goes; deleting gives the kept blocks back.
NTKERNELAPI VOID NTAPI ExInitializePagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside, PALLOCATE_FUNCTION Allocate,
                                                      PFREE_FUNCTION Free, ULONG Flags, SIZE_T Size, ULONG Tag,
                                                      USHORT Depth);
NTKERNELAPI VOID NTAPI ExDeletePagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside);
NTKERNELAPI VOID NTAPI ExInitializeNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PALLOCATE_FUNCTION Allocate,
                                                       PFREE_FUNCTION Free, ULONG Flags, SIZE_T Size, ULONG Tag,
                                                       USHORT Depth);
NTKERNELAPI VOID NTAPI ExDeleteNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside);

NTKERNELAPI PSLIST_ENTRY NTAPI ExpInterlockedPushEntrySList(PSLIST_HEADER ListHead, PSLIST_ENTRY ListEntry);
NTKERNELAPI PSLIST_ENTRY NTAPI ExpInterlockedPopEntrySList(PSLIST_HEADER ListHead);
#define ExQueryDepthSList(ListHead) __atomic_load_n((const USHORT*)(ListHead), __ATOMIC_RELAXED)

// In place, as drivers have them compiled in: the callbacks are called from the driver itself.
FORCEINLINE PVOID NtLookasideAllocate(PGENERAL_LOOKASIDE Lookaside)
{
    PVOID Entry;
    __atomic_add_fetch(&Lookaside->TotalAllocates, 1, __ATOMIC_RELAXED);
    Entry = ExpInterlockedPopEntrySList(&Lookaside->ListHead);
    if (Entry) return Entry;
    __atomic_add_fetch(&Lookaside->AllocateMisses, 1, __ATOMIC_RELAXED);
    return Lookaside->Allocate(Lookaside->Type, Lookaside->Size, Lookaside->Tag);
}

FORCEINLINE VOID NtLookasideFree(PGENERAL_LOOKASIDE Lookaside, PVOID Entry)
{
    __atomic_add_fetch(&Lookaside->TotalFrees, 1, __ATOMIC_RELAXED);
    if (ExQueryDepthSList(&Lookaside->ListHead) < Lookaside->Depth) {
        ExpInterlockedPushEntrySList(&Lookaside->ListHead, (PSLIST_ENTRY)Entry);
        return;
    }
    __atomic_add_fetch(&Lookaside->FreeMisses, 1, __ATOMIC_RELAXED);
    Lookaside->Free(Entry);
}

FORCEINLINE PVOID ExAllocateFromPagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside)
{
    return NtLookasideAllocate(&Lookaside->L);
}
FORCEINLINE VOID ExFreeToPagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry)
{
    NtLookasideFree(&Lookaside->L, Entry);
}
FORCEINLINE PVOID ExAllocateFromNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside)
{
    return NtLookasideAllocate(&Lookaside->L);
}
FORCEINLINE VOID ExFreeToNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry)
{
    NtLookasideFree(&Lookaside->L, Entry);
}

NT_EXTERN_C_END
