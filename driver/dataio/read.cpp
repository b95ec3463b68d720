// IRP_MJ_READ: one plugin call, straight into the caller's memory, whoever asks. A paging read differs in two ways:
// byte-range locks do not apply to it, and it does not move the file position. End of file is the plugin's decision.

#include "dataio/dataio.h"

#include "plugin/call.h"
#include "frame/atomic.h"
#include "frame/buffer.h"
#include "frame/resource.h"
#include "objects/util.h"

namespace {

struct ReadRequest {
    PIRP Irp;
    PFILE_OBJECT FileObject;
    Fcb* File;
    LONGLONG Offset;
    bool IsPaging;
    bool IsSynchronous;
    bool IsMdl;
};

ReadRequest ReadParameters(PIRP irp)
{
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(irp);
    return {
        .Irp = irp,
        .FileObject = stack->FileObject,
        .File = GvFcbOf(stack->FileObject),
        .Offset = stack->Parameters.Read.ByteOffset.QuadPart,
        .IsPaging = (irp->Flags & IRP_PAGING_IO) != 0,
        .IsSynchronous = (GvLoad(stack->FileObject->Flags) & FO_SYNCHRONOUS_IO) != 0,
        .IsMdl = (stack->MinorFunction & IRP_MN_MDL) != 0,
    };
}

void TraceParameters(const ReadRequest& read)
{
    GV_TRACE_AS("GvDoRead", GvTraceFlow,
                "mn: 0x%x, fo: 0x%x, fo-flags: 0x%x, synch: 0x%x, irp-flags: 0x%x, paging: 0x%x, mdl: 0x%x, "
                "user-buffer: 0x%x\n",
                IoGetCurrentIrpStackLocation(read.Irp)->MinorFunction, read.FileObject, GvLoad(read.FileObject->Flags),
                static_cast<ULONG>(read.IsSynchronous), read.Irp->Flags, static_cast<ULONG>(read.IsPaging),
                static_cast<ULONG>(read.IsMdl), read.Irp->UserBuffer);
}

[[nodiscard]] NTSTATUS GetBuffer(PIRP irp, ULONG length, void** buffer)
{
    const NTSTATUS status = GvUtlMapProbedBuffer(irp, length, IoWriteAccess, buffer);
    if (status == STATUS_ACCESS_VIOLATION) {
        GV_TRACE_AS("GvDoRead", GvTraceError, "EXCEPTION: 0x%x, bad user-buffer\n", status);
    } else if (!NT_SUCCESS(status)) {
        GV_TRACE_AS("GvDoRead", GvTraceError, "GvUtlMapBufferForIo(): failed\n");
    }
    return status;
}

[[nodiscard]] NTSTATUS ReadLocked(IrpContext* context, const ReadRequest& read, ULONG* length)
{
    GV_ASSERT_HELD_OR_NESTED(context, read.File->Header.Resource);
    if (GvLoad(read.File->Deleted)) return STATUS_END_OF_FILE;
    if (!read.IsPaging && !FsRtlCheckLockForReadAccess(&read.File->FileLock, read.Irp))
        return GV_REFUSE_AS("GvDoRead", STATUS_FILE_LOCK_CONFLICT, "FsRtlCheckLockForReadAccess(): failed\n");
    void* buffer = nullptr;
    GV_TRY(GetBuffer(read.Irp, *length, &buffer));
    const ULONG asked = *length;
    NTSTATUS status = GV_CALL_PLUGIN(context, read.File, Read, GvHandleOf(read.File), read.Offset, length, buffer);
    if (NT_SUCCESS(status)) status = GvCheckPluginCount("Read", *length, asked);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED_AS("GvDoRead", "Read", status);
        return status;
    }
    if (read.IsSynchronous && !read.IsPaging) {
        // Unsigned: the offset is the caller's, and the sum may leave the signed range.
        read.FileObject->CurrentByteOffset.QuadPart =
            static_cast<LONGLONG>(static_cast<ULONGLONG>(read.Offset) + *length);
    }
    return status;
}

} // namespace

NTSTATUS GvDoRead(IrpContext* context, GvOutcome* outcome)
{
    if (KeGetCurrentIrql() > APC_LEVEL) return STATUS_UNSUCCESSFUL;
    if (context->IsAsync || KeGetCurrentIrql() != PASSIVE_LEVEL) return GvPendIrpContext(context);

    const ReadRequest read = ReadParameters(context->Irp);
    TraceParameters(read);
    if (read.File->FcbType != GvFile)
        return GV_REFUSE(STATUS_OBJECT_TYPE_MISMATCH, "ERROR: FO: 0x%x is not a 'file'\n", read.FileObject);
    if (read.IsMdl) return GV_REFUSE(STATUS_INVALID_PARAMETER, "ERROR: IRP_MN_MDL not supported\n");
    GvHeldResource lock;
    if (context->IsTopLevel) {
        const PERESOURCE resource = read.File->Header.Resource;
        GV_TRY(read.IsPaging ? lock.SharedForPaging(resource) : lock.Shared(resource));
    }
    ULONG length = IoGetCurrentIrpStackLocation(context->Irp)->Parameters.Read.Length;
    const NTSTATUS status = ReadLocked(context, read, &length);
    if (NT_SUCCESS(status)) outcome->Information = length;
    return status;
}
