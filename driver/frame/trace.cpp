// The trace's mask and its fixed forms. The mask is written once, at load, before any request can arrive.

#include "frame/trace.h"

ULONG GvDebugMask;

void GvTracePrefix(const char* function)
{
    GvTraceMessage("GVND-> 0x%x,0x%x %s(): ", PsGetCurrentProcessId(), PsGetCurrentThreadId(), function);
}

void GvTraceClosing(const char* function, PFILE_OBJECT fileObject, NTSTATUS status, ULONG_PTR information)
{
    GV_TRACE_AS(function, GvTraceDispatch, "%s() done, FO: 0x%x, status: 0x%x, info: 0x%x\n\n", function, fileObject,
                status, information);
}
