// IRP_MJ_SET_VOLUME_INFORMATION: the label, which goes straight to the plugin. Through a handle of the volume itself,
// under Vcb.Resource, exclusive.

#include "volinfo/volinfo.h"

#include "plugin/call.h"
#include "frame/resource.h"

namespace {

constexpr char kName[] = "GvDoSetVolInfo";

// The characters stay in the request's buffer.
[[nodiscard]] NTSTATUS LabelOf(PIRP irp, UNICODE_STRING* label)
{
    constexpr ULONG kOffset = FIELD_OFFSET(FILE_FS_LABEL_INFORMATION, VolumeLabel);
    const ULONG bufferLength = IoGetCurrentIrpStackLocation(irp)->Parameters.SetVolume.Length;
    if (bufferLength < kOffset) return STATUS_INVALID_PARAMETER;
    auto* const info = static_cast<PFILE_FS_LABEL_INFORMATION>(irp->AssociatedIrp.SystemBuffer);
    if (info->VolumeLabelLength > MAXUSHORT) {
        GV_TRACE_AS(kName, GvTraceUnsupported, "VolumeLabelLength: 0x%x is too long, 0x%x\n", info->VolumeLabelLength,
                    STATUS_INVALID_VOLUME_LABEL);
        return STATUS_INVALID_VOLUME_LABEL;
    }
    if (info->VolumeLabelLength > bufferLength - kOffset) return STATUS_INVALID_PARAMETER; // claims more than there is
    const auto length = static_cast<USHORT>(info->VolumeLabelLength);
    *label = {length, length, info->VolumeLabel};
    return STATUS_SUCCESS;
}

[[nodiscard]] NTSTATUS SetLabel(IrpContext* context, const Fcb* fcb, PCUNICODE_STRING label)
{
    GvHeldResource lock;
    GV_TRY(lock.Exclusive(&context->Vcb->Resource));
    const NTSTATUS status = GV_CALL_PLUGIN(context, fcb, SetVolLabel, label);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS(kName, "SetVolLabel", status);
    return status;
}

} // namespace

NTSTATUS GvDoSetVolInfo(IrpContext* context, GvOutcome*)
{
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) return STATUS_UNSUCCESSFUL;
    if (!context->IsTopLevel) return GV_REFUSE(STATUS_UNSUCCESSFUL, "ERR: set vol info not top-level request\n");
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(context->Irp);
    const Fcb* const fcb = GvFcbOf(stack->FileObject);
    if (fcb->FcbType != GvVolume)
        return GV_REFUSE(STATUS_ACCESS_DENIED, "rejecting set-info on fcb-type: %d, err: 0x%x\n", fcb->FcbType,
                         STATUS_ACCESS_DENIED);
    if (context->IsAsync) return GvPendIrpContext(context);

    const FS_INFORMATION_CLASS requested = stack->Parameters.SetVolume.FsInformationClass;
    if (requested != FileFsLabelInformation) {
        GV_TRACE(GvTraceUnsupported, "info-class: %d, 0x%x\n", requested, STATUS_NOT_SUPPORTED);
        return STATUS_NOT_SUPPORTED;
    }
    UNICODE_STRING label;
    GV_TRY(LabelOf(context->Irp, &label));
    return SetLabel(context, fcb, &label);
}
