// Sections: files that are mapped into memory. A touch of a page that is not there becomes a paging read on the thread
// that touches it. Only sections of files exist, and their pages are shared: no copies on write.
#pragma once

#include "io.h"
#include "zw.h"

NT_EXTERN_C_BEGIN

#define SECTION_QUERY       0x0001u
#define SECTION_MAP_WRITE   0x0002u
#define SECTION_MAP_READ    0x0004u
#define SECTION_MAP_EXECUTE 0x0008u
#define SECTION_EXTEND_SIZE 0x0010u
#define SECTION_ALL_ACCESS  (STANDARD_RIGHTS_REQUIRED | 0x1fu)

#define PAGE_NOACCESS          0x01u
#define PAGE_READONLY          0x02u
#define PAGE_READWRITE         0x04u
#define PAGE_WRITECOPY         0x08u
#define PAGE_EXECUTE           0x10u
#define PAGE_EXECUTE_READ      0x20u
#define PAGE_EXECUTE_READWRITE 0x40u
#define PAGE_EXECUTE_WRITECOPY 0x80u
#define PAGE_GUARD             0x100u
#define PAGE_NOCACHE           0x200u

#define SEC_IMAGE   0x01000000u
#define SEC_RESERVE 0x04000000u
#define SEC_COMMIT  0x08000000u

#define MEM_RESERVE  0x00002000u
#define MEM_TOP_DOWN 0x00100000u

#define PROCESS_VM_OPERATION 0x0008u

typedef enum _SECTION_INHERIT { ViewShare = 1, ViewUnmap = 2 } SECTION_INHERIT;

// A null or zero MaximumSize means the file's size. STATUS_MAPPED_FILE_SIZE_ZERO for an empty file; a larger size
// extends the file if the protection allows writing, else STATUS_SECTION_TOO_BIG. STATUS_INVALID_FILE_FOR_SECTION for
// directories and for files whose file system gives no section pointers. STATUS_NOT_SUPPORTED without a file.
NT_SERVICE(CreateSection,
           (PHANDLE SectionHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
            PLARGE_INTEGER MaximumSize, ULONG SectionPageProtection, ULONG AllocationAttributes, HANDLE FileHandle));
// *BaseAddress null: anywhere; *ViewSize zero: up to the section's end, and rounded up to pages on return. Base and
// offset are multiples of 64 KiB (STATUS_MAPPED_ALIGNMENT). STATUS_SECTION_PROTECTION, STATUS_INVALID_VIEW_SIZE,
// STATUS_CONFLICTING_ADDRESSES; STATUS_NOT_SUPPORTED for a view that copies on write.
NT_SERVICE(MapViewOfSection, (HANDLE SectionHandle, HANDLE ProcessHandle, PVOID* BaseAddress, ULONG_PTR ZeroBits,
                              SIZE_T CommitSize, PLARGE_INTEGER SectionOffset, PSIZE_T ViewSize,
                              SECTION_INHERIT InheritDisposition, ULONG AllocationType, ULONG Win32Protect));
// Any address inside the view. STATUS_NOT_MAPPED_VIEW.
NT_SERVICE(UnmapViewOfSection, (HANDLE ProcessHandle, PVOID BaseAddress));
// Writes what the range of a view has changed to the file, and gives back the pages that it covered; *RegionSize zero
// means up to the view's end. The outcome of the paging writes comes as the service's status too.
NT_SERVICE(FlushVirtualMemory,
           (HANDLE ProcessHandle, PVOID* BaseAddress, PSIZE_T RegionSize, PIO_STATUS_BLOCK IoStatus));

NT_EXTERN_C_END
