// IRP_MJ_FLUSH_BUFFERS: what the memory manager holds goes out, then the plugin saves what it holds. Through a file,
// that file; through the volume or its root directory, every file of the volume and one FlushVol; through any other
// directory, nothing.

#include "frame/plugincall.h"
#include "frame/requests.h"
#include "frame/resource.h"
#include "objects/coherence.h"
#include "objects/fcb.h"

namespace {

enum class CallPlugin : bool { No, Yes };

[[nodiscard]] NTSTATUS GvFlushFcb(IrpContext* context, Fcb* fcb, CallPlugin callPlugin)
{
    GvHeldResource lock;
    if (const NTSTATUS status = lock.Exclusive(fcb->Header.Resource); !NT_SUCCESS(status)) return status;
    GvUtlFlushAndPurgeMm(fcb, nullptr, 0, MmFlush::Yes);
    if (callPlugin == CallPlugin::No) return STATUS_SUCCESS;
    const NTSTATUS status = GV_CALL_PLUGIN(context, fcb, FlushFile, GvHandleOf(fcb));
    if (!NT_SUCCESS(status)) GV_TRACE(GvTraceError, "GV_CALL_PLUGIN() FlushFile() err: 0x%x\n", status);
    return status;
}

// Along a list of referenced objects, not along the tree: a purge can end in closes that change the tree, and a close
// nested in it must not be the last reference. One file's failure does not reach the caller.
[[nodiscard]] NTSTATUS GvFlushVolume(IrpContext* context)
{
    GvHeldResource lock;
    if (const NTSTATUS status = lock.Exclusive(&context->Vcb->Resource); !NT_SUCCESS(status)) return status;
    Fcb* list = nullptr;
    GvFcbGetReferencedFcbList(context->Vcb->FcbTables, GvFile, &list);
    while (Fcb* const fcb = GvFcbPopReferencedFcb(&list)) {
        const NTSTATUS flushed = GvFlushFcb(context, fcb, CallPlugin::No);
        if (!NT_SUCCESS(flushed)) GV_TRACE(GvTraceError, "GvFlushFcb(): fcb: 0x%x, err: 0x%x\n", fcb, flushed);
        const NTSTATUS released = GvFcbReleaseFcb(context, fcb);
        if (!NT_SUCCESS(released)) GV_TRACE_FAILED("GvFcbReleaseFcb", released);
    }
    const NTSTATUS status = GV_CALL_PLUGIN(context, nullptr, FlushVol);
    if (!NT_SUCCESS(status)) GV_TRACE(GvTraceError, "GV_CALL_PLUGIN() FlushVol() err: 0x%x\n", status);
    return status;
}

constexpr char kName[] = "GvDoFlushBuffers";

[[nodiscard]] NTSTATUS FlushFile(IrpContext* context, Fcb* fcb)
{
    GV_TRACE_AS(kName, GvTraceFlow, "doing file flush\n");
    const NTSTATUS status = GvFlushFcb(context, fcb, CallPlugin::Yes);
    if (!NT_SUCCESS(status)) GV_TRACE_AS(kName, GvTraceError, "GvFlushFcb() failed: 0x%x\n", status);
    return status;
}

[[nodiscard]] NTSTATUS FlushVolume(IrpContext* context, const Fcb* fcb)
{
    if (fcb->FcbType == GvVolume) {
        GV_TRACE_AS(kName, GvTraceFlow, "doing volume flush\n");
    } else {
        GV_TRACE_AS(kName, GvTraceFlow, "doing root-dir flush\n");
    }
    const NTSTATUS status = GvFlushVolume(context);
    if (!NT_SUCCESS(status)) GV_TRACE_AS(kName, GvTraceError, "GvFlushVolume() failed: 0x%x\n", status);
    return status;
}

} // namespace

NTSTATUS GvDoFlushBuffers(IrpContext* context, GvOutcome*)
{
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) return STATUS_UNSUCCESSFUL;
    if (!context->IsTopLevel) {
        GV_TRACE(GvTraceError, "flush-buf top-level: %d, err: 0x%x\n", context->IsTopLevel, STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    Fcb* const fcb = GvFcbOf(IoGetCurrentIrpStackLocation(context->Irp)->FileObject);
    if (fcb->FcbType == GvDirectory && !fcb->IsRootDir) {
        GV_TRACE(GvTraceFlow, "ignoring flush for dir\n");
        return STATUS_SUCCESS;
    }
    if (context->IsAsync) return GvPendIrpContext(context);
    switch (fcb->FcbType) {
    case GvFile: return FlushFile(context, fcb);
    case GvVolume:
    case GvDirectory: return FlushVolume(context, fcb);
    default:
        GV_TRACE(GvTraceError, "unsupported fcb type: 0x%x for flush, err: 0x%x\n", fcb->FcbType,
                 STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
}
