// Resources, handles, the address of a request's data, the directory-empty test, the change-report hook.

#include "objects/util.h"

#include "frame/plugincall.h"
#include "frame/resource.h"
#include "frame/trace.h"

NTSTATUS GvUtlAllocAndInitResource(PERESOURCE* resource, GvAllocateResource allocate)
{
    GvBlock<ERESOURCE> allocated;
    if (allocate == GvAllocateResource::Yes) {
        allocated.Reset(GvAllocate<ERESOURCE>(NonPagedPool));
        if (!allocated) {
            GV_TRACE(GvTraceError, "out-of-mem\n");
            return STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    const PERESOURCE target = allocated ? allocated.Get() : *resource;
    if (const NTSTATUS status = ExInitializeResourceLite(target); !NT_SUCCESS(status)) {
        GV_TRACE_FAILED("ExInitializeResourceLite", status);
        return status;
    }
    if (allocated) *resource = allocated.Release();
    return STATUS_SUCCESS;
}

NTSTATUS GvUtlDeleteResource(PERESOURCE resource, GvAllocateResource allocated)
{
    ExDeleteResourceLite(resource);
    if (allocated == GvAllocateResource::Yes) GvFree(resource);
    return STATUS_SUCCESS;
}

NTSTATUS GvUtlOpenFileWithNoAccess(PUNICODE_STRING path, HANDLE* handle)
{
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, path, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    IO_STATUS_BLOCK statusBlock = {};
    const NTSTATUS status = ZwCreateFile(handle, 0, &attributes, &statusBlock, nullptr, 0, 0, FILE_OPEN, 0, nullptr, 0);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED("ZwCreateFile", status);
    return status;
}

void* GvUtlMapBufferForIo(PIRP irp)
{
    const PMDL mdl = irp->MdlAddress;
    if (!mdl) {
        if (!irp->UserBuffer) GV_TRACE(GvTraceError, "ERROR: neither user-buffer nor mdl-address available\n");
        return irp->UserBuffer;
    }
    if (mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL)) return mdl->MappedSystemVa;
    void* const address = MmMapLockedPagesSpecifyCache(mdl, KernelMode, MmCached, nullptr, FALSE, NormalPagePriority);
    if (!address) GV_TRACE(GvTraceError, "MmGetSystemAddressForMdlSafe(0x%x): failed\n", mdl);
    return address;
}

NTSTATUS GvUtlMapProbedBuffer(PIRP irp, ULONG length, LOCK_OPERATION access, void** buffer)
{
    *buffer = nullptr;
    const bool contained = GvGuarded([irp, length, access, buffer] {
        *buffer = GvUtlMapBufferForIo(irp);
        if (!*buffer || *buffer != irp->UserBuffer || irp->RequestorMode != UserMode) return;
        if (access == IoReadAccess) {
            ProbeForRead(*buffer, length, 1);
        } else {
            ProbeForWrite(*buffer, length, 1);
        }
    });
    if (!contained) return STATUS_ACCESS_VIOLATION;
    return *buffer ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

namespace {

bool IsDotName(const PluginDirEntry* entry)
{
    const auto length = static_cast<USHORT>(entry->FileNameLength);
    const UNICODE_STRING name = {length, length, const_cast<PWCH>(entry->FileName)};
    const UNICODE_STRING dot = GvLiteral(L".");
    const UNICODE_STRING dotDot = GvLiteral(L"..");
    return RtlCompareUnicodeString(&name, &dot, TRUE) == 0 || RtlCompareUnicodeString(&name, &dotDot, TRUE) == 0;
}

} // namespace

NTSTATUS GvReadDirEntryFromPlugin(IrpContext* context, const Fcb* directory, ULONG index,
                                  GvBlock<PluginDirEntry>* entry)
{
    const NTSTATUS status =
        GV_CALL_PLUGIN(context, directory, ReadDirEntry, GvHandleOf(directory), index, entry->Out());
    if (!NT_SUCCESS(status)) return status;
    if (!*entry) {
        GV_TRACE_AS("GvReadDirEntryFromPlugin", GvTraceError, "ReadDirEntry() gave no entry\n");
        return STATUS_UNSUCCESSFUL;
    }
    return GvCheckPluginName("ReadDirEntry", (*entry)->FileName, (*entry)->FileNameLength);
}

NTSTATUS GvUtlIsPluginDirEmpty(IrpContext* context, Fcb* fcb)
{
    GV_ASSERT_HELD_OR_NESTED(context, fcb->Header.Resource);
    if (GvLoad(fcb->OpenCount) < GvLoad(fcb->RefCount)) {
        GV_TRACE(GvTraceError, "FCB has child entries, dir is not empty\n");
        return STATUS_UNSUCCESSFUL;
    }
    ULONG found = 0;
    for (ULONG index = 0;; ++index) {
        GvBlock<PluginDirEntry> entry;
        const NTSTATUS status = GvReadDirEntryFromPlugin(context, fcb, index, &entry);
        if (status == STATUS_NO_MORE_FILES) return found ? STATUS_DIRECTORY_NOT_EMPTY : STATUS_SUCCESS;
        if (!NT_SUCCESS(status)) {
            GV_TRACE_FAILED("ReadDirEntry", status);
            return status;
        }
        if (!IsDotName(entry.Get())) ++found;
    }
}

void GvUtlReportChange(Vcb*, Fcb*, ULONG, ULONG) {}
