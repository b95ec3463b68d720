// The cache and memory managers' answers about a file's section. No service of this kernel makes a section yet, so a
// file system must leave the pointers null; one that does not would get wrong answers here, and is stopped.

#include <ntifs.h>

#include "check/fatal.h"

namespace {

void RequireNoSection(const SECTION_OBJECT_POINTERS* pointers, const char* routine)
{
    if (pointers && (pointers->DataSectionObject || pointers->SharedCacheMap || pointers->ImageSectionObject)) {
        nthost::Fatal("%s: section pointers at %p name a section, and none was ever made", routine,
                      static_cast<const void*>(pointers));
    }
}

} // namespace

VOID NTAPI CcFlushCache(PSECTION_OBJECT_POINTERS pointers, PLARGE_INTEGER, ULONG, PIO_STATUS_BLOCK status)
{
    RequireNoSection(pointers, "CcFlushCache");
    if (!status) return;
    status->Status = STATUS_SUCCESS;
    status->Information = 0;
}

BOOLEAN NTAPI CcPurgeCacheSection(PSECTION_OBJECT_POINTERS pointers, PLARGE_INTEGER, ULONG, ULONG)
{
    RequireNoSection(pointers, "CcPurgeCacheSection");
    return TRUE;
}

BOOLEAN NTAPI CcUninitializeCacheMap(PFILE_OBJECT fileObject, PLARGE_INTEGER, PCACHE_UNINITIALIZE_EVENT)
{
    RequireNoSection(fileObject->SectionObjectPointer, "CcUninitializeCacheMap");
    return TRUE;
}

BOOLEAN NTAPI MmFlushImageSection(PSECTION_OBJECT_POINTERS pointers, MMFLUSH_TYPE)
{
    RequireNoSection(pointers, "MmFlushImageSection");
    return TRUE;
}

BOOLEAN NTAPI MmCanFileBeTruncated(PSECTION_OBJECT_POINTERS pointers, PLARGE_INTEGER)
{
    RequireNoSection(pointers, "MmCanFileBeTruncated");
    return TRUE;
}
