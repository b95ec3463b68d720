// IRP_MJ_DIRECTORY_CONTROL: screening, and the refusal of change notification. Always runs on the caller's thread.

#include "dirctl/dirctl.h"

#include "frame/trace.h"

namespace {

// No change is ever reported, so nobody is let to wait for one.
[[nodiscard]] NTSTATUS GvDoNotifyChangeDirectory(GvOutcome* outcome)
{
    outcome->IrpTakenOver = false;
    GV_TRACE(GvTraceFlow, "exit: 0x%x\n", STATUS_NOT_SUPPORTED);
    return STATUS_NOT_SUPPORTED;
}

[[nodiscard]] NTSTATUS Serve(IrpContext* context, const IO_STACK_LOCATION* stack, GvOutcome* outcome)
{
    if (GvFcbOf(stack->FileObject)->FcbType != GvDirectory)
        return GV_REFUSE_AS("GvDoDirControl", STATUS_INVALID_PARAMETER, "non dir FO: 0x%x\n", stack->FileObject);
    switch (stack->MinorFunction) {
    case IRP_MN_QUERY_DIRECTORY: return GvDoQueryDirectory(context, &outcome->Information);
    case IRP_MN_NOTIFY_CHANGE_DIRECTORY: return GvDoNotifyChangeDirectory(outcome);
    default:
        GV_TRACE_AS("GvDoDirControl", GvTraceUnsupported, "unsupported minor function: 0x%x\n", stack->MinorFunction);
        return STATUS_INVALID_PARAMETER;
    }
}

} // namespace

NTSTATUS GvDoDirControl(IrpContext* context, GvOutcome* outcome)
{
    if (KeGetCurrentIrql() > APC_LEVEL) return STATUS_UNSUCCESSFUL;
    GV_TRACE(GvTraceFlow, "entry, dev: 0x%x, Irp: 0x%x\n", context->DeviceObject, context->Irp);
    if (!context->IsTopLevel || KeGetCurrentIrql() != PASSIVE_LEVEL)
        return GV_REFUSE(STATUS_INVALID_PARAMETER,
                         "ERR: dir-control must be a top-level request,and at IRQL == PASSIVE_LEVEL, cur-irql: %d\n",
                         KeGetCurrentIrql());
    if (context->IsAsync) GV_TRACE(GvTraceNotable, "treating async dir-ctrl as sync\n");
    const NTSTATUS status = Serve(context, IoGetCurrentIrpStackLocation(context->Irp), outcome);
    GV_TRACE(GvTraceFlow, "exit: 0x%x\n", status);
    return status;
}
