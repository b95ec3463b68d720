// Asking the plugin, and what an answer must be like to be one. Takes no lock; relies on what its callers hold.

#include "plugin/operations.h"

namespace {

bool HasNonAscii(PCUNICODE_STRING path)
{
    for (ULONG i = 0; i < path->Length / sizeof(WCHAR); ++i)
        if (path->Buffer[i] >= 0x80) return true;
    return false;
}

} // namespace

NTSTATUS GvPnGetNormalizedPathFromPlugin(IrpContext* context, PCUNICODE_STRING path, PUNICODE_STRING* normalized)
{
    if (!HasNonAscii(path)) return STATUS_NOT_SUPPORTED;
    NTSTATUS status = GV_CALL_PLUGIN(context, nullptr, GetNormalizedPath, path, normalized);
    if (NT_SUCCESS(status) && *normalized) {
        status = GvCheckPluginName("GetNormalizedPath", (*normalized)->Buffer, (*normalized)->Length);
    }
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED("GetNormalizedPath", status);
    return status;
}

NTSTATUS GvNormalizedOrGiven(IrpContext* context, PCUNICODE_STRING name, GvBlock<UNICODE_STRING>* holder,
                             PCUNICODE_STRING* result)
{
    const NTSTATUS status = GvPnGetNormalizedPathFromPlugin(context, name, holder->Out());
    if (!NT_SUCCESS(status) && status != STATUS_NOT_SUPPORTED) return status;
    *result = NT_SUCCESS(status) && *holder ? holder->Get() : name;
    return STATUS_SUCCESS;
}

NTSTATUS GvPerformLookupOnPlugin(IrpContext* context, PCUNICODE_STRING path, GvBlock<PluginFileInfo>* info,
                                 PluginAccessMask* maxAccess)
{
    PluginAccessMask access = 0;
    const NTSTATUS status = GV_CALL_PLUGIN(context, nullptr, Lookup, path, info->Out(), &access);
    if (!NT_SUCCESS(status)) {
        GV_TRACE(GvTraceError, "plugin->Lookup() failed: 0x%x\n", status);
        return status;
    }
    if (!*info) return GV_REFUSE(STATUS_UNSUCCESSFUL, "plugin->Lookup() gave no record\n");
    const bool isDirectory = ((*info)->FileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    *maxAccess = access & (isDirectory ? GVND_ACCESS_ALL & ~GVND_ACCESS_EXECUTE : GVND_ACCESS_ALL);
    return status;
}

NTSTATUS GvOpenByType(IrpContext* context, ULONG type, PCUNICODE_STRING path, PluginAccessMask access, PluginFd* fd)
{
    *fd = 0;
    const NTSTATUS status = type == GvFile ? GV_CALL_PLUGIN(context, nullptr, Open, path, access, fd)
                                           : GV_CALL_PLUGIN(context, nullptr, OpenDir, path, access, fd);
    if (!NT_SUCCESS(status)) *fd = 0;
    return status;
}

NTSTATUS GvOpenFileFromPlugin(IrpContext* context, PCUNICODE_STRING path, PluginAccessMask access, PluginFd* fd)
{
    const NTSTATUS status = GvOpenByType(context, GvFile, path, access, fd);
    if (!NT_SUCCESS(status)) GV_TRACE(GvTraceError, "plugin->Open() failed: 0x%x\n", status);
    return status;
}

NTSTATUS GvOpenDirFromPlugin(IrpContext* context, PCUNICODE_STRING path, PluginAccessMask access, PluginFd* fd)
{
    const NTSTATUS status = GvOpenByType(context, GvDirectory, path, access, fd);
    if (!NT_SUCCESS(status)) GV_TRACE(GvTraceError, "plugin->OpenDir() failed: 0x%x\n", status);
    return status;
}

NTSTATUS GvOpenFromPlugin(const char* function, IrpContext* context, ULONG type, PCUNICODE_STRING path,
                          PluginAccessMask access, PluginFd* fd)
{
    if (type == GvFile) {
        const NTSTATUS status = GvOpenFileFromPlugin(context, path, access, fd);
        if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS(function, "GvOpenFileFromPlugin", status);
        return status;
    }
    const NTSTATUS status = GvOpenDirFromPlugin(context, path, access, fd);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS(function, "GvOpenDirFromPlugin", status);
    return status;
}

void GvCloseBareHandle(const char* function, IrpContext* context, PluginFd fd)
{
    const NTSTATUS closed = GV_CALL_PLUGIN(context, nullptr, Close, GvBareHandle(fd));
    if (!NT_SUCCESS(closed)) GV_TRACE_FAILED_AS(function, "Close", closed);
}

NTSTATUS GvCloseObjectHandle(IrpContext* context, Fcb* fcb)
{
    const NTSTATUS status = GV_CALL_PLUGIN(context, fcb, Close, GvHandleOf(fcb));
    GvStore(fcb->PluginFdClosed, 1);
    GvStore(fcb->PluginFd, 0);
    return status;
}

NTSTATUS GvAskAccess(IrpContext* context, PCUNICODE_STRING path, PluginAccessMask wanted, void* token)
{
    if (!context->Vcb->PluginOps->AccessCheck) return STATUS_SUCCESS;
    constexpr ULONG kConstant = 2;
    return GV_CALL_PLUGIN(context, nullptr, AccessCheck, path, kConstant, wanted, &token);
}

NTSTATUS GvGetInfoFromPlugin(IrpContext* context, GvHandle handle, GvBlock<PluginFileInfo>* record)
{
    const NTSTATUS status = GV_CALL_PLUGIN(context, handle.Object, GetInfo, handle, record->Out());
    return NT_SUCCESS(status) && !*record ? STATUS_UNSUCCESSFUL : status;
}

NTSTATUS GvReadDirEntryFromPlugin(IrpContext* context, const Fcb* directory, ULONG index,
                                  GvBlock<PluginDirEntry>* entry)
{
    const NTSTATUS status =
        GV_CALL_PLUGIN(context, directory, ReadDirEntry, GvHandleOf(directory), index, entry->Out());
    if (!NT_SUCCESS(status)) return status;
    if (!*entry) return GV_REFUSE(STATUS_UNSUCCESSFUL, "ReadDirEntry() gave no entry\n");
    return GvCheckPluginName("ReadDirEntry", (*entry)->FileName, (*entry)->FileNameLength);
}
