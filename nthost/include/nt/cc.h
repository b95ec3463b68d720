// What a file system tells the cache and memory managers about a file's sections. A file whose section pointers are
// null has neither views nor cached pages, and every request about it is trivially granted. The caller's reference on
// the file keeps the pointers; every routine here may end an idle section, which sends a close.
#pragma once

#include "io.h"

NT_EXTERN_C_BEGIN

typedef enum _MMFLUSH_TYPE { MmFlushForDelete, MmFlushForWrite } MMFLUSH_TYPE;

typedef struct _CACHE_UNINITIALIZE_EVENT {
    struct _CACHE_UNINITIALIZE_EVENT* Next;
    KEVENT Event;
} CACHE_UNINITIALIZE_EVENT, *PCACHE_UNINITIALIZE_EVENT;

// A null offset means the whole file, a zero length everything from the offset on. Writes what views have changed, as
// paging writes. Outcome in IoStatus: the first failure, whose pages stay changed, and the bytes written.
NTKERNELAPI VOID NTAPI CcFlushCache(PSECTION_OBJECT_POINTERS SectionObjectPointer, PLARGE_INTEGER FileOffset,
                                    ULONG Length, PIO_STATUS_BLOCK IoStatus);
// The range's pages go, changed ones too, and views read them again. FALSE if some are locked, which stay.
NTKERNELAPI BOOLEAN NTAPI CcPurgeCacheSection(PSECTION_OBJECT_POINTERS SectionObjectPointer, PLARGE_INTEGER FileOffset,
                                              ULONG Length, ULONG Flags);
// TRUE if the file has no cache map afterwards that this file object holds.
NTKERNELAPI BOOLEAN NTAPI CcUninitializeCacheMap(PFILE_OBJECT FileObject, PLARGE_INTEGER TruncateSize,
                                                 PCACHE_UNINITIALIZE_EVENT UninitializeEvent);
// TRUE if no image that is mapped or could be stands in the way of the purpose; an idle one is let go. For deletion, no
// data section may be in use either.
NTKERNELAPI BOOLEAN NTAPI MmFlushImageSection(PSECTION_OBJECT_POINTERS SectionObjectPointer, MMFLUSH_TYPE FlushType);
// FALSE if that size would cut whole pages of a data section that is in use (a null size: any), or if an image is.
NTKERNELAPI BOOLEAN NTAPI MmCanFileBeTruncated(PSECTION_OBJECT_POINTERS SectionObjectPointer,
                                               PLARGE_INTEGER NewFileSize);

NT_EXTERN_C_END
