// Coherence with mapped views.

#include "objects/coherence.h"

#include "frame/resource.h"
#include "frame/trace.h"

void GvUtlFlushAndPurgeMm(Fcb* fcb, PLARGE_INTEGER offset, ULONG length, MmFlush flush)
{
    GV_ASSERT_HELD_EXCLUSIVE(fcb->Header.Resource);
    if (flush == MmFlush::Yes) {
        IO_STATUS_BLOCK flushed = {};
        CcFlushCache(&fcb->SectionObjectPointers, offset, length, &flushed);
        if (!NT_SUCCESS(flushed.Status)) {
            GV_TRACE_FAILED("CcFlushCache", flushed.Status);
            return; // a purge would throw away what has just failed to go out
        }
    }
    if (!CcPurgeCacheSection(&fcb->SectionObjectPointers, offset, length, FALSE)) {
        GV_TRACE(GvTraceError, "CcPurgeCacheSection(): purge failed\n");
    }
}
