// What a file system tells the cache and memory managers about a file's section. A file whose section pointers are null
// has neither views nor cached pages, and every request about it is trivially granted.
#pragma once

#include "io.h"

NT_EXTERN_C_BEGIN

typedef enum _MMFLUSH_TYPE { MmFlushForDelete, MmFlushForWrite } MMFLUSH_TYPE;

typedef struct _CACHE_UNINITIALIZE_EVENT* PCACHE_UNINITIALIZE_EVENT;

// A null offset means the whole file. Outcome in IoStatus.
NTKERNELAPI VOID NTAPI CcFlushCache(PSECTION_OBJECT_POINTERS SectionObjectPointer, PLARGE_INTEGER FileOffset,
                                    ULONG Length, PIO_STATUS_BLOCK IoStatus);
// FALSE if some page could not be dropped.
NTKERNELAPI BOOLEAN NTAPI CcPurgeCacheSection(PSECTION_OBJECT_POINTERS SectionObjectPointer, PLARGE_INTEGER FileOffset,
                                              ULONG Length, ULONG Flags);
// TRUE if the file has no cache map afterwards that this file object holds.
NTKERNELAPI BOOLEAN NTAPI CcUninitializeCacheMap(PFILE_OBJECT FileObject, PLARGE_INTEGER TruncateSize,
                                                 PCACHE_UNINITIALIZE_EVENT UninitializeEvent);
// TRUE if no mapped image stands in the way of the purpose.
NTKERNELAPI BOOLEAN NTAPI MmFlushImageSection(PSECTION_OBJECT_POINTERS SectionObjectPointer, MMFLUSH_TYPE FlushType);
// FALSE if a view that a user has mapped would be cut by that size; a null size means the whole file.
NTKERNELAPI BOOLEAN NTAPI MmCanFileBeTruncated(PSECTION_OBJECT_POINTERS SectionObjectPointer, PLARGE_INTEGER NewFileSize);

NT_EXTERN_C_END
