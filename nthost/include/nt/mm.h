// The memory manager: probes of caller addresses, memory descriptor lists, system routines by name.
#pragma once

#include "base.h"
#include "guard.h"

NT_EXTERN_C_BEGIN

#define PAGE_SIZE       0x1000u
#define PAGE_SHIFT      12
#define PAGE_ALIGN(Va)  ((PVOID)((ULONG_PTR)(Va) & ~(ULONG_PTR)(PAGE_SIZE - 1)))
#define BYTE_OFFSET(Va) ((ULONG)((ULONG_PTR)(Va) & (PAGE_SIZE - 1)))
#define ADDRESS_AND_SIZE_TO_SPAN_PAGES(Va, Size) \
    ((ULONG)(((ULONG_PTR)BYTE_OFFSET(Va) + (SIZE_T)(Size) + (PAGE_SIZE - 1)) >> PAGE_SHIFT))

// User addresses lie below this one. It is the end of a Linux process, a little above NT's own limit, since a stack may
// reach up to there.
#define MM_USER_PROBE_ADDRESS 0x7ffffffff000ull

#define MDL_MAPPED_TO_SYSTEM_VA     0x0001
#define MDL_PAGES_LOCKED            0x0002
#define MDL_SOURCE_IS_NONPAGED_POOL 0x0004
#define MDL_ALLOCATED_FIXED_SIZE    0x0008
#define MDL_PARTIAL                 0x0010
#define MDL_IO_PAGE_READ            0x0040
#define MDL_WRITE_OPERATION         0x0080

typedef struct _MDL {
    struct _MDL* Next;
    CSHORT Size;
    CSHORT MdlFlags;
    PEPROCESS Process;
    PVOID MappedSystemVa;
    PVOID StartVa;
    ULONG ByteCount;
    ULONG ByteOffset;
} MDL, *PMDL;

#define MmGetMdlVirtualAddress(Mdl) ((PVOID)((PUCHAR)(Mdl)->StartVa + (Mdl)->ByteOffset))
#define MmGetMdlByteCount(Mdl)      ((Mdl)->ByteCount)
#define MmGetMdlByteOffset(Mdl)     ((Mdl)->ByteOffset)

typedef enum _LOCK_OPERATION { IoReadAccess, IoWriteAccess, IoModifyAccess } LOCK_OPERATION;

typedef enum _MEMORY_CACHING_TYPE { MmNonCached = 0, MmCached = 1, MmWriteCombined = 2 } MEMORY_CACHING_TYPE;

typedef enum _MM_PAGE_PRIORITY { LowPagePriority, NormalPagePriority = 16, HighPagePriority = 32 } MM_PAGE_PRIORITY;

// Raise STATUS_ACCESS_VIOLATION or STATUS_DATATYPE_MISALIGNMENT. Length 0 checks nothing. ProbeForRead looks at the
// range only; ProbeForWrite touches each page.
NTKERNELAPI VOID NTAPI ProbeForRead(const volatile VOID* Address, SIZE_T Length, ULONG Alignment);
NTKERNELAPI VOID NTAPI ProbeForWrite(volatile VOID* Address, SIZE_T Length, ULONG Alignment);

// Locks the pages, or raises STATUS_ACCESS_VIOLATION with the MDL unchanged.
NTKERNELAPI VOID NTAPI MmProbeAndLockPages(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode,
                                           LOCK_OPERATION Operation);
// Also takes back a system mapping that was made of the pages.
NTKERNELAPI VOID NTAPI MmUnlockPages(PMDL MemoryDescriptorList);
NTKERNELAPI VOID NTAPI MmBuildMdlForNonPagedPool(PMDL MemoryDescriptorList);
// A system address of the locked pages, valid until they are unlocked. With BugCheckOnFailure FALSE null says there is
// no room.
NTKERNELAPI PVOID NTAPI MmMapLockedPagesSpecifyCache(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode,
                                                     MEMORY_CACHING_TYPE CacheType, PVOID RequestedAddress,
                                                     ULONG BugCheckOnFailure, ULONG Priority);
NTKERNELAPI VOID NTAPI MmUnmapLockedPages(PVOID BaseAddress, PMDL MemoryDescriptorList);

// The address of a kernel routine by its name, or null.
NTKERNELAPI PVOID NTAPI MmGetSystemRoutineAddress(PUNICODE_STRING SystemRoutineName);

NT_EXTERN_C_END
