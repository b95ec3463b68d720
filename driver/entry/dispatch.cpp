// The dispatch skeleton. Kernel APCs stay off for as long as a resource may be held; the top-level slot is given back
// before the request can be completed.

#include "entry/dispatch.h"

#include "entry/control.h"
#include "frame/complete.h"
#include "frame/context.h"
#include "frame/toplevel.h"
#include "frame/trace.h"

void GvTraceOpening(const char* function, PDEVICE_OBJECT device, PIRP irp)
{
    GV_TRACE_AS(function, GvTraceDispatch, "dev: 0x%x, fo: 0x%x\n", device,
                IoGetCurrentIrpStackLocation(irp)->FileObject);
}

namespace {

// Allocates the context and runs the inner routine, as the outermost file-system entry of this thread if it is one.
NTSTATUS RunInner(const GvDispatchRow& row, PDEVICE_OBJECT device, PIRP irp, IrpContext** context, GvOutcome* outcome)
{
    const bool isTopLevel = GvUtlIsTopLevelIrp(irp);
    NTSTATUS status = GvAllocIrpContext(device, irp, isTopLevel, context);
    if (NT_SUCCESS(status)) {
        (*context)->Row = &row;
        status = row.Inner(*context, outcome);
    } else {
        GV_TRACE_AS(row.Name, GvTraceError, "GvAllocIrpContext(): 0x%x\n", status);
    }
    if (isTopLevel) GvUtlClearTopLevelIrp();
    return status;
}

} // namespace

NTSTATUS GvDispatch(const GvDispatchRow& row, PDEVICE_OBJECT device, PIRP irp)
{
    bool handled;
    if (const NTSTATUS status = GvCtrlHandleIrp(device, irp, &handled); handled) return status;
    row.TraceOpening(row.Name, device, irp);

    IrpContext* context = nullptr;
    GvOutcome outcome = {};
    KeEnterCriticalRegion();
    const NTSTATUS status = RunInner(row, device, irp, &context, &outcome);
    if (row.MayPend && status == STATUS_PENDING && !outcome.IrpTakenOver) {
        KeLeaveCriticalRegion();
        return status;
    }
    if (context) GvFreeIrpContext(context);
    KeLeaveCriticalRegion();
    if (outcome.IrpTakenOver) return status;
    return GvCompleteRequest(row.Name, irp, status, row.YieldsInformation ? outcome.Information : 0);
}
