// Resources, handles, the change-report hook.

#include "objects/util.h"

#include "frame/trace.h"

NTSTATUS GvUtlAllocAndInitResource(PERESOURCE* resource, GvAllocateResource allocate)
{
    GvBlock<ERESOURCE> allocated;
    if (allocate == GvAllocateResource::Yes) {
        allocated.Reset(GvAllocate<ERESOURCE>(NonPagedPool));
        if (!allocated) return GV_REFUSE(STATUS_INSUFFICIENT_RESOURCES, "out-of-mem\n");
    }
    const PERESOURCE target = allocated ? allocated.Get() : *resource;
    GV_TRY_TRACED("ExInitializeResourceLite", ExInitializeResourceLite(target));
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

void GvUtlReportChange(Vcb*, Fcb*, ULONG, ULONG) {}
