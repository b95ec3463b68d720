// IRP_MJ_WRITE: every write has reached the plugin before it completes. A paging write goes in one call, straight from
// its pages, and moves no size, no position and no flag. Any other write first gets hold of the caller's data, then
// brings the file's section in line, then hands the data over piece by piece. Under the object's lock, exclusive, but
// for the first of these; a request nested in work that may hold it goes without.

#include "dataio/dataio.h"

#include "frame/atomic.h"
#include "frame/buffer.h"
#include "frame/guard.h"
#include "plugin/call.h"
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
        .IsSynchronous = (GvLoad(stack->FileObject->Flags) & FO_SYNCHRONOUS_IO) != 0,
        .IsMdl = (stack->MinorFunction & IRP_MN_MDL) != 0,
    };
}

void TraceParameters(const WriteRequest& write)
{
    GV_TRACE_AS(
        kName, GvTraceFlow, "mn: 0x%x, fo: 0x%x, fo-flags: 0x%x, irp-flags: 0x%x, mdl: 0x%x, user-buffer: 0x%x\n",
        IoGetCurrentIrpStackLocation(write.Irp)->MinorFunction, write.FileObject, GvLoad(write.FileObject->Flags),
        write.Irp->Flags, static_cast<ULONG>(write.IsMdl), write.Irp->UserBuffer);
}

// The offset is the caller's, and the sum may leave the signed range.
LONGLONG EndOf(const WriteRequest& write)
{
    return static_cast<LONGLONG>(static_cast<ULONGLONG>(write.Offset) + write.Length);
}

[[nodiscard]] NTSTATUS BadUserBuffer()
{
    return GV_REFUSE_AS(kName, STATUS_ACCESS_VIOLATION, "EXCEPTION: 0x%x, bad user-buffer\n", STATUS_ACCESS_VIOLATION);
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

// A caller's data on its way to the plugin, which never sees the caller's address. It is fetched before the object's
// lock is taken: the memory may be a view of this file or of another, and whoever is reading a page of it in may be
// waiting for that lock, or for one whose owner waits for this write. A first piece is copied, and the pages of the
// rest are locked in memory, so that copying from their address waits for nobody. What went wrong is told when the
// piece comes up.
class CallerData {
public:
    CallerData() = default;
    CallerData(const CallerData&) = delete;
    CallerData& operator=(const CallerData&) = delete;
    ~CallerData() { Unlock(); }

    void Fetch(const WriteRequest& write);
    // The buffer of the pieces. STATUS_INSUFFICIENT_RESOURCES.
    [[nodiscard]] NTSTATUS Allocate(ULONG length);
    // The piece of that size at an offset, from the caller's mapped address; false if the caller's memory is bad.
    [[nodiscard]] bool Take(const UCHAR* buffer, ULONG offset, ULONG size);

    const void* Piece() const { return chunk_.Get(); }
    ULONG PieceSize() const { return size_; }

private:
    void LockRest(const WriteRequest& write);
    bool Lock(UCHAR* start, ULONG length, KPROCESSOR_MODE mode);
    void Unlock();

    GvBlock<UCHAR> chunk_;
    ULONG size_ = 0;
    bool fetched_ = false; // the first piece is in the buffer, or cannot be had
    bool faulted_ = false;
    bool noMemory_ = false;
    PMDL mdl_ = nullptr; // of what follows the first piece
    ULONG lockedLength_ = 0;
};

[[nodiscard]] bool Copy(UCHAR* destination, const UCHAR* source, ULONG size)
{
    return GvGuarded([=] { RtlCopyMemory(destination, source, size); });
}

void CallerData::Fetch(const WriteRequest& write)
{
    auto* const buffer = static_cast<UCHAR*>(write.Irp->UserBuffer);
    // A described buffer is in memory already.
    if (write.Irp->MdlAddress || !buffer || write.Length == 0) return;
    noMemory_ = !NT_SUCCESS(Allocate(write.Length));
    if (noMemory_) return;
    fetched_ = true;
    if (write.Irp->RequestorMode == UserMode) {
        faulted_ = !GvGuarded([&] { ProbeForRead(buffer, write.Length, 1); });
    }
    if (!faulted_) faulted_ = !Copy(chunk_.Get(), buffer, size_);
    if (!faulted_ && write.Length > size_) LockRest(write);
}

// As much of it as can be locked; the pieces in front of a bad address are still the plugin's.
void CallerData::LockRest(const WriteRequest& write)
{
    auto* const start = static_cast<UCHAR*>(write.Irp->UserBuffer) + size_;
    for (ULONG length = write.Length - size_;;) {
        if (Lock(start, length, write.Irp->RequestorMode) || noMemory_ || length <= size_) return;
        length = (length - 1) / size_ * size_;
    }
}

bool CallerData::Lock(UCHAR* start, ULONG length, KPROCESSOR_MODE mode)
{
    const PMDL mdl = IoAllocateMdl(start, length, FALSE, FALSE, nullptr);
    noMemory_ = !mdl;
    if (!mdl) return false;
    if (!GvGuarded([mdl, mode] { MmProbeAndLockPages(mdl, mode, IoReadAccess); })) {
        IoFreeMdl(mdl);
        return false;
    }
    mdl_ = mdl;
    lockedLength_ = length;
    return true;
}

void CallerData::Unlock()
{
    if (!mdl_) return;
    MmUnlockPages(mdl_);
    IoFreeMdl(mdl_);
}

NTSTATUS CallerData::Allocate(ULONG length)
{
    if (noMemory_) return STATUS_INSUFFICIENT_RESOURCES;
    if (chunk_) return STATUS_SUCCESS;
    size_ = length < kChunkSize ? length : kChunkSize;
    chunk_.Reset(static_cast<UCHAR*>(GvAllocate(PagedPool, size_ ? size_ : 1)));
    return chunk_ ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

bool CallerData::Take(const UCHAR* buffer, ULONG offset, ULONG size)
{
    if (faulted_) return false;
    if (fetched_) {
        if (offset == 0) return true;
        if (offset - size_ + size > lockedLength_) return false;
    }
    return Copy(chunk_.Get(), buffer + offset, size); // the address may still have been taken away
}

// Ends early when the plugin takes less than it is offered. *faulted: the caller's memory is bad, which has been said.
[[nodiscard]] NTSTATUS GvPerformChunkedTopLevelWrite(IrpContext* context, WriteRequest* write, const UCHAR* buffer,
                                                     CallerData* data, bool* faulted)
{
    NTSTATUS status = STATUS_SUCCESS;
    ULONG written = 0;
    while (written < write->Length) {
        const ULONG left = write->Length - written;
        const ULONG size = left < data->PieceSize() ? left : data->PieceSize();
        *faulted = !data->Take(buffer, written, size);
        if (*faulted) return BadUserBuffer();
        const auto offset = static_cast<LONGLONG>(static_cast<ULONGLONG>(write->Offset) + written);
        ULONG taken = size;
        status = GV_CALL_PLUGIN(context, write->File, Write, GvHandleOf(write->File), offset, &taken, data->Piece());
        if (NT_SUCCESS(status)) status = GvCheckPluginCount("Write", taken, size);
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

[[nodiscard]] NTSTATUS WriteFromCaller(IrpContext* context, WriteRequest* write, CallerData* data, LONGLONG oldSize)
{
    const UCHAR* buffer = nullptr;
    GV_TRY(GetBuffer(*write, &buffer));
    if (NTSTATUS status = data->Allocate(write->Length); !NT_SUCCESS(status)) {
        GV_TRACE_AS(kName, GvTraceError, "ERR allocating chunk buf: out-of-mem\n");
        return status;
    }
    bool faulted = false;
    const NTSTATUS status = GvPerformChunkedTopLevelWrite(context, write, buffer, data, &faulted);
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
    if (!FsRtlCheckLockForWriteAccess(&write->File->FileLock, write->Irp))
        return GV_REFUSE_AS(kName, STATUS_FILE_LOCK_CONFLICT, "FsRtlCheckLockForWriteAccess(): failed\n");
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
    GV_TRY(GetBuffer(*write, &buffer));
    const void* const data = buffer;
    const ULONG asked = write->Length;
    NTSTATUS status =
        GV_CALL_PLUGIN(context, write->File, Write, GvHandleOf(write->File), write->Offset, &write->Length, data);
    if (NT_SUCCESS(status)) status = GvCheckPluginCount("Write", write->Length, asked);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS(kName, "Write", status);
    return status;
}

[[nodiscard]] NTSTATUS WriteLocked(IrpContext* context, WriteRequest* write, CallerData* data)
{
    GV_ASSERT_HELD_OR_NESTED(context, write->File->Header.Resource);
    // Its writers cannot tell that it is gone, and lose nothing.
    if (GvLoad(write->File->Deleted)) {
        write->Length = 0;
        return STATUS_SUCCESS;
    }
    if (write->IsPaging) return WritePages(context, write);
    LONGLONG oldSize;
    GvFcbGetFileSize(write->File, &oldSize);
    const NTSTATUS status = PrepareFile(write, oldSize);
    return NT_SUCCESS(status) ? WriteFromCaller(context, write, data, oldSize) : status;
}

} // namespace

NTSTATUS GvDoWrite(IrpContext* context, GvOutcome* outcome)
{
    if (KeGetCurrentIrql() > APC_LEVEL) return STATUS_UNSUCCESSFUL;
    if (context->IsAsync || KeGetCurrentIrql() != PASSIVE_LEVEL) return GvPendIrpContext(context);

    WriteRequest write = WriteParameters(context->Irp);
    TraceParameters(write);
    if (write.File->FcbType != GvFile)
        return GV_REFUSE(STATUS_OBJECT_TYPE_MISMATCH, "ERROR: FO: 0x%x is not a 'file'\n", write.FileObject);
    if (write.IsMdl) return GV_REFUSE(STATUS_INVALID_PARAMETER, "ERROR: IRP_MN_MDL not supported\n");
    CallerData data;
    if (!write.IsPaging) data.Fetch(write);
    GvHeldResource lock;
    if (context->IsTopLevel) { GV_TRY(lock.Exclusive(write.File->Header.Resource)); }
    const NTSTATUS status = WriteLocked(context, &write, &data);
    if (!NT_SUCCESS(status)) return status;
    if (write.IsSynchronous && !write.IsPaging) write.FileObject->CurrentByteOffset.QuadPart = EndOf(write);
    outcome->Information = write.Length;
    return status;
}
