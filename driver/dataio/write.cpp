// IRP_MJ_WRITE: every write has reached the plugin before it completes. A paging write goes in one call, straight from
// its pages, and moves no size, no position and no flag. Any other write first brings the file's section in line, then
// copies the caller's data piece by piece into a buffer of the driver's own, so that the plugin never sees a caller's
// address. Under the object's lock, exclusive; a request nested in work that may hold it goes without.

#include "frame/guard.h"
#include "frame/plugincall.h"
#include "frame/requests.h"
#include "frame/resource.h"
#include "objects/coherence.h"
#include "objects/fcb.h"
#include "objects/util.h"

namespace {

constexpr char kName[] = "GvDoWrite"; // whose steps most routines below are
constexpr ULONG kChunkSize = 0x10000;

struct WriteRequest {
    PIRP Irp;
    PFILE_OBJECT FileObject;
    Fcb* File;
    LONGLONG Offset;
    ULONG Length; // asked for, then taken
    bool IsPaging;
    bool IsSynchronous;
    bool IsMdl;
};

WriteRequest WriteParameters(PIRP irp)
{
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(irp);
    return {
        .Irp = irp,
        .FileObject = stack->FileObject,
        .File = GvFcbOf(stack->FileObject),
        .Offset = stack->Parameters.Write.ByteOffset.QuadPart,
        .Length = stack->Parameters.Write.Length,
        .IsPaging = (irp->Flags & IRP_PAGING_IO) != 0,
        .IsSynchronous = (stack->FileObject->Flags & FO_SYNCHRONOUS_IO) != 0,
        .IsMdl = (stack->MinorFunction & IRP_MN_MDL) != 0,
    };
}

void TraceParameters(const WriteRequest& write)
{
    GV_TRACE_AS(kName, GvTraceFlow,
                "mn: 0x%x, fo: 0x%x, fo-flags: 0x%x, irp-flags: 0x%x, mdl: 0x%x, user-buffer: 0x%x\n",
                IoGetCurrentIrpStackLocation(write.Irp)->MinorFunction, write.FileObject, write.FileObject->Flags,
                write.Irp->Flags, static_cast<ULONG>(write.IsMdl), write.Irp->UserBuffer);
}

// The offset is the caller's, and the sum may leave the signed range.
LONGLONG EndOf(const WriteRequest& write)
{
    return static_cast<LONGLONG>(static_cast<ULONGLONG>(write.Offset) + write.Length);
}

[[nodiscard]] NTSTATUS BadUserBuffer()
{
    GV_TRACE_AS(kName, GvTraceError, "EXCEPTION: 0x%x, bad user-buffer\n", STATUS_ACCESS_VIOLATION);
    return STATUS_ACCESS_VIOLATION;
}

[[nodiscard]] NTSTATUS GetBuffer(const WriteRequest& write, const UCHAR** buffer)
{
    void* mapped = nullptr;
    const NTSTATUS status = GvUtlMapProbedBuffer(write.Irp, write.Length, IoReadAccess, &mapped);
    if (status == STATUS_ACCESS_VIOLATION) return BadUserBuffer();
    if (!NT_SUCCESS(status)) GV_TRACE_AS(kName, GvTraceError, "GvUtlMapBufferForIo() failed: 0x%x\n", status);
    *buffer = static_cast<const UCHAR*>(mapped);
    return status;
}

// A piece of a caller's data on its way to the plugin.
struct Chunk {
    UCHAR* Buffer;
    ULONG Size;
    bool* Faulted; // the caller's memory raised: said once, as what it is
};

// Ends early when the plugin takes less than it is offered. The caller's memory is touched outside of any plugin call.
[[nodiscard]] NTSTATUS GvPerformChunkedTopLevelWrite(IrpContext* context, WriteRequest* write, const UCHAR* buffer,
                                                     const Chunk& chunk)
{
    NTSTATUS status = STATUS_SUCCESS;
    ULONG written = 0;
    while (written < write->Length) {
        const ULONG left = write->Length - written;
        const ULONG size = left < chunk.Size ? left : chunk.Size;
        const UCHAR* const source = buffer + written;
        *chunk.Faulted = !GvGuarded([&chunk, source, size] { RtlCopyMemory(chunk.Buffer, source, size); });
        if (*chunk.Faulted) return BadUserBuffer();
        const auto offset = static_cast<LONGLONG>(static_cast<ULONGLONG>(write->Offset) + written);
        ULONG taken = size;
        const void* const data = chunk.Buffer;
        status = GV_CALL_PLUGIN(context, write->File, Write, GvLoad(write->File->PluginFd), offset, &taken, data);
        if (!NT_SUCCESS(status)) {
            GV_TRACE(GvTraceError, "Plugin Write(): 0x%x\n", status);
            return status;
        }
        written += taken;
        if (taken < size) break;
    }
    write->Length = written;
    return status;
}

[[nodiscard]] NTSTATUS WriteFromCaller(IrpContext* context, WriteRequest* write, LONGLONG oldSize)
{
    const UCHAR* buffer = nullptr;
    NTSTATUS status = GetBuffer(*write, &buffer);
    if (!NT_SUCCESS(status)) return status;
    const ULONG size = write->Length < kChunkSize ? write->Length : kChunkSize;
    const GvBlock<UCHAR> chunk(static_cast<UCHAR*>(GvAllocate(PagedPool, size ? size : 1)));
    if (!chunk) {
        GV_TRACE_AS(kName, GvTraceError, "ERR allocating chunk buf: out-of-mem\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    bool faulted = false;
    status = GvPerformChunkedTopLevelWrite(context, write, buffer,
                                           {.Buffer = chunk.Get(), .Size = size, .Faulted = &faulted});
    if (!NT_SUCCESS(status)) {
        if (!faulted) GV_TRACE_FAILED_AS(kName, "GvPerformChunkedTopLevelWrite", status);
        return status;
    }
    Ccb* const ccb = GvCcbOf(write->FileObject);
    if (const LONGLONG end = EndOf(*write); end > oldSize) {
        GvFcbSetFileSize(write->File, &end);
        ccb->SizeChanged = 1;
    }
    ccb->LastWriteChanged = 1;
    return status;
}

// What other views have written goes out first; then their pages go, so that a later touch reads what is written now.
[[nodiscard]] NTSTATUS PrepareFile(WriteRequest* write, LONGLONG oldSize)
{
    if (!FsRtlCheckLockForWriteAccess(&write->File->FileLock, write->Irp)) {
        GV_TRACE_AS(kName, GvTraceError, "FsRtlCheckLockForWriteAccess(): failed\n");
        return STATUS_FILE_LOCK_CONFLICT;
    }
    constexpr LONGLONG kWriteToEndOfFile = -1;
    if (write->Offset == kWriteToEndOfFile) write->Offset = oldSize;
    if (GvLoad(write->File->SectionObjectPointers.DataSectionObject)) {
        GvUtlFlushAndPurgeMm(write->File, nullptr, 0, MmFlush::Yes);
    }
    return STATUS_SUCCESS;
}

[[nodiscard]] NTSTATUS WritePages(IrpContext* context, WriteRequest* write)
{
    const UCHAR* buffer = nullptr;
    NTSTATUS status = GetBuffer(*write, &buffer);
    if (!NT_SUCCESS(status)) return status;
    const void* const data = buffer;
    status =
        GV_CALL_PLUGIN(context, write->File, Write, GvLoad(write->File->PluginFd), write->Offset, &write->Length, data);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS(kName, "Write", status);
    return status;
}

[[nodiscard]] NTSTATUS WriteLocked(IrpContext* context, WriteRequest* write)
{
    // Its writers cannot tell that it is gone, and lose nothing.
    if (GvLoad(write->File->Deleted)) {
        write->Length = 0;
        return STATUS_SUCCESS;
    }
    if (write->IsPaging) return WritePages(context, write);
    LONGLONG oldSize;
    GvFcbGetFileSize(write->File, &oldSize);
    const NTSTATUS status = PrepareFile(write, oldSize);
    return NT_SUCCESS(status) ? WriteFromCaller(context, write, oldSize) : status;
}

} // namespace

NTSTATUS GvDoWrite(IrpContext* context, GvOutcome* outcome)
{
    if (KeGetCurrentIrql() > APC_LEVEL) return STATUS_UNSUCCESSFUL;
    if (context->IsAsync || KeGetCurrentIrql() != PASSIVE_LEVEL) return GvPendIrpContext(context);

    WriteRequest write = WriteParameters(context->Irp);
    TraceParameters(write);
    if (write.File->FcbType != GvFile) {
        GV_TRACE(GvTraceError, "ERROR: FO: 0x%x is not a 'file'\n", write.FileObject);
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    if (write.IsMdl) {
        GV_TRACE(GvTraceError, "ERROR: IRP_MN_MDL not supported\n");
        return STATUS_INVALID_PARAMETER;
    }
    GvHeldResource lock;
    if (context->IsTopLevel) {
        if (const NTSTATUS status = lock.Exclusive(write.File->Header.Resource); !NT_SUCCESS(status)) return status;
    }
    const NTSTATUS status = WriteLocked(context, &write);
    if (!NT_SUCCESS(status)) return status;
    if (write.IsSynchronous && !write.IsPaging) write.FileObject->CurrentByteOffset.QuadPart = EndOf(write);
    outcome->Information = write.Length;
    return status;
}
