// IRP_MJ_SET_INFORMATION: which classes are served, under which locks. Every class but rename begins with a GetInfo,
// which proves that the plugin's handle is alive and tells the sizes that the object has now.

#include "fileinfo/fileinfo.h"
#include "fileinfo/plugininfo.h"
#include "frame/requests.h"
#include "frame/resource.h"

namespace {

constexpr char kName[] = "GvDoSetInfo";

struct SetClass {
    FILE_INFORMATION_CLASS Class;
    NTSTATUS (*Worker)(const GvSetRequest& set);
};

constexpr SetClass kClasses[] = {
    {FileBasicInformation, GvSetBasicInfo},         {FileDispositionInformation, GvSetDispositionInfo},
    {FilePositionInformation, GvSetPositionInfo},   {FileAllocationInformation, GvSetAllocationInfo},
    {FileEndOfFileInformation, GvSetEndOfFileInfo},
};

[[nodiscard]] NTSTATUS Apply(FILE_INFORMATION_CLASS requested, const GvSetRequest& set)
{
    for (const SetClass& row : kClasses) {
        if (row.Class == requested) return row.Worker(set);
    }
    GV_TRACE_AS(kName, GvTraceUnsupported, "invalid info-class: %d\n", requested);
    return STATUS_INVALID_PARAMETER;
}

[[nodiscard]] NTSTATUS Rename(IrpContext* context, Fcb* fcb)
{
    GV_TRACE_AS(kName, GvTraceFlow, "performing rename\n");
    if (!context->IsTopLevel) {
        GV_TRACE_AS(kName, GvTraceError, "ERR: rename must be a top-level request\n");
        return STATUS_INVALID_PARAMETER;
    }
    const NTSTATUS status = GvSetRenameInfo(context, fcb);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS(kName, "GvSetRenameInfo", status);
    return status;
}

[[nodiscard]] NTSTATUS SetWithRecord(IrpContext* context, const IO_STACK_LOCATION* stack, Fcb* fcb)
{
    GV_ASSERT_HELD_OR_NESTED(context, fcb->Header.Resource);
    GvBlock<PluginFileInfo> record;
    const NTSTATUS status = GvGetInfoFromPlugin(context, GvHandleOf(fcb), &record);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED_AS(kName, "GetInfo", status);
        return status;
    }
    const GvSetRequest set = {
        .Context = context,
        .FileObject = stack->FileObject,
        .Object = fcb,
        .Record = record.Get(),
        .Buffer = context->Irp->AssociatedIrp.SystemBuffer,
    };
    return Apply(stack->Parameters.SetFile.FileInformationClass, set);
}

} // namespace

NTSTATUS GvDoSetInfo(IrpContext* context, GvOutcome*)
{
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) return STATUS_UNSUCCESSFUL;
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(context->Irp);
    Fcb* const fcb = GvFcbOf(stack->FileObject);
    if (fcb->FcbType == GvVolume) {
        GV_TRACE(GvTraceError, "rejecting set-info on fcb-type: %d, err: 0x%x\n", fcb->FcbType,
                 STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    if (context->IsAsync) return GvPendIrpContext(context);

    const FILE_INFORMATION_CLASS requested = stack->Parameters.SetFile.FileInformationClass;
    if (requested == FileLinkInformation || requested == FileValidDataLengthInformation) {
        GV_TRACE(GvTraceUnsupported, "info-class: %d, 0x%x\n", requested, STATUS_NOT_SUPPORTED);
        return STATUS_NOT_SUPPORTED;
    }
    const bool isRename = requested == FileRenameInformation;
    GvHeldResource volumeLock;
    if (context->IsTopLevel && (isRename || requested == FileDispositionInformation)) {
        if (const NTSTATUS status = volumeLock.Exclusive(&context->Vcb->Resource); !NT_SUCCESS(status)) return status;
    }
    if (isRename) return Rename(context, fcb);
    GvHeldResource lock;
    if (context->IsTopLevel) {
        if (const NTSTATUS status = lock.Exclusive(fcb->Header.Resource); !NT_SUCCESS(status)) return status;
    }
    return SetWithRecord(context, stack, fcb);
}

NTSTATUS GvSetPositionInfo(const GvSetRequest& set)
{
    if (set.Object->FcbType != GvFile) {
        GV_TRACE(GvTraceError, "ERR: attempted on a dir, fo: 0x%x\n", set.FileObject);
        return STATUS_INVALID_PARAMETER;
    }
    set.FileObject->CurrentByteOffset = static_cast<PFILE_POSITION_INFORMATION>(set.Buffer)->CurrentByteOffset;
    return STATUS_SUCCESS;
}
