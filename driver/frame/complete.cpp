// The end of a request: the closing trace comes first, since the request is gone afterwards.

#include "frame/complete.h"

#include "frame/trace.h"

NTSTATUS GvCompleteRequest(const char* function, PIRP irp, NTSTATUS status, ULONG_PTR information)
{
    GvTraceClosing(function, IoGetCurrentIrpStackLocation(irp)->FileObject, status, information);
    irp->IoStatus.Information = information;
    irp->IoStatus.Status = status;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}
