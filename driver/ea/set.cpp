// IRP_MJ_SET_EA, and the routine that applies a list of extended attributes, which creates use too. Setting is always
// two steps of the plugin: the name is deleted, then set anew if it has a value. A list is applied record by record;
// what was applied before a bad record stays.

#include "ea/ea.h"

#include "frame/guard.h"
#include "frame/plugincall.h"
#include "frame/requests.h"
#include "frame/resource.h"
#include "objects/util.h"

namespace {

// The rule of FAT names over the ASCII range; whatever lies above it passes.
bool GvIsEaNameValid(ULONG length, const char* name)
{
    for (ULONG i = 0; i < length; ++i) {
        const auto character = static_cast<UCHAR>(name[i]);
        if (character >= 0x80 || (FsRtlLegalAnsiCharacterArray[character] & FSRTL_FAT_LEGAL)) continue;
        GV_TRACE(GvTraceError, "%s not legal FAT ea-name\n", name);
        return false;
    }
    return true;
}

[[nodiscard]] NTSTATUS CheckRecord(const FILE_FULL_EA_INFORMATION* record, ULONG offset)
{
    NTSTATUS status = STATUS_SUCCESS;
    if (!GvIsEaNameValid(record->EaNameLength, record->EaName)) {
        status = STATUS_INVALID_EA_NAME;
    } else if (record->Flags & ~FILE_NEED_EA) {
        status = STATUS_INVALID_EA_FLAG;
    }
    if (!NT_SUCCESS(status)) {
        GV_TRACE_AS("GvSetFullEaInfo", GvTraceError, "ERR: ea-name-invalid offset: %d\n", offset);
    }
    return status;
}

[[nodiscard]] NTSTATUS ApplyRecord(IrpContext* context, GvHandle handle, const FILE_FULL_EA_INFORMATION* record)
{
    const char* const name = record->EaName;
    NTSTATUS status = GvDeleteEaOnPlugin(context, handle, name);
    if (!NT_SUCCESS(status)) {
        // A name that the object does not have is no obstacle.
        GV_TRACE_AS("GvSetFullEaInfo", GvTraceNotable, "GvDeleteEaOnPlugin(): %s, 0x%x\n", name, status);
        status = STATUS_SUCCESS;
    }
    if (record->EaValueLength == 0) return status;
    status = GvSetEaOnPlugin(context, handle, name, name + record->EaNameLength + 1, record->EaValueLength);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_AS("GvSetFullEaInfo", GvTraceError, "GvSetEaOnPlugin(): %s, 0x%x\n", name, status);
    }
    return status;
}

} // namespace

NTSTATUS GvSetFullEaInfo(IrpContext* context, GvHandle handle, void* buffer, ULONG length, ULONG* errorOffset)
{
    *errorOffset = 0;
    auto* const first = static_cast<PFILE_FULL_EA_INFORMATION>(buffer);
    NTSTATUS status = IoCheckEaBufferValidity(first, length, errorOffset);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("IoCheckEaBufferValidity", status);
        return status;
    }
    // Names and flags are looked at just before each record is applied; only the structure was checked in advance.
    for (ULONG offset = 0;;) {
        const auto* const record =
            reinterpret_cast<const FILE_FULL_EA_INFORMATION*>(static_cast<const UCHAR*>(buffer) + offset);
        status = CheckRecord(record, offset);
        if (!NT_SUCCESS(status)) {
            *errorOffset = offset;
            return status;
        }
        status = ApplyRecord(context, handle, record);
        if (!NT_SUCCESS(status) || record->NextEntryOffset == 0) return status;
        offset += record->NextEntryOffset;
    }
}

namespace {

constexpr char kName[] = "GvDoSetEa";

[[nodiscard]] NTSTATUS BadUserBuffer()
{
    GV_TRACE_AS(kName, GvTraceError, "EXCEPTION EXCEPTION!! error: 0x%x\n", STATUS_INVALID_PARAMETER);
    return STATUS_INVALID_PARAMETER;
}

// The list that is validated must be the list that is applied, and no caller's address is touched under a lock.
[[nodiscard]] NTSTATUS CopyList(PIRP irp, ULONG length, GvBlock<void>* copy)
{
    void* buffer = nullptr;
    NTSTATUS status = GvUtlMapProbedBuffer(irp, length, IoReadAccess, &buffer);
    if (status == STATUS_ACCESS_VIOLATION) return BadUserBuffer();
    if (!NT_SUCCESS(status)) {
        GV_TRACE_AS(kName, GvTraceError, "GvUtlMapBufferForIo(): failed: 0x%x\n", status);
        return status;
    }
    copy->Reset(GvAllocate(PagedPool, length ? length : 1));
    if (!*copy) {
        GV_TRACE_AS(kName, GvTraceError, "out-of-mem\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    void* const destination = copy->Get();
    if (!GvGuarded([=] { RtlCopyMemory(destination, buffer, length); })) return BadUserBuffer();
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS GvDoSetEa(IrpContext* context, GvOutcome* outcome)
{
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(context->Irp);
    Fcb* const fcb = GvFcbOf(stack->FileObject);
    NTSTATUS status = GvScreenEaRequest(context, fcb, __func__, "ERR: set-ea must be a top-level request\n");
    if (!NT_SUCCESS(status)) return status;
    if (context->IsAsync) return GvPendIrpContext(context);

    const ULONG length = stack->Parameters.SetEa.Length;
    GvBlock<void> copy;
    status = CopyList(context->Irp, length, &copy);
    if (!NT_SUCCESS(status)) return status;
    GvHeldResource lock;
    status = lock.Exclusive(fcb->Header.Resource);
    if (!NT_SUCCESS(status)) return status;
    status = GvSetFullEaInfo(context, GvHandleOf(fcb), copy.Get(), length, &outcome->Information);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvSetFullEaInfo", status);
        return status;
    }
    GvUtlReportChange(context->Vcb, fcb, FILE_NOTIFY_CHANGE_EA, FILE_ACTION_MODIFIED);
    return status;
}
