// The upgrade of an object's plugin handle. All opens of an object share the handle, and it is usually weaker than what
// a new open asks for. There is no graded upgrade: a re-opened handle holds all that the plugin allows.

#include "create/create.h"

#include "frame/plugincall.h"

NTSTATUS GvReopenPluginFdIfRequired(IrpContext* context, PCUNICODE_STRING path, Fcb* fcb, ACCESS_MASK desired)
{
    NTSTATUS status = GvCheckDesiredAccessWithFcbMaxAccess(fcb->FcbType, desired, fcb->PluginFdCurrentAccess);
    if (NT_SUCCESS(status) && !fcb->PluginFdRefreshNeeded) return STATUS_SUCCESS;
    GV_TRACE(GvTraceNotable, "re-opening plugin-fd, permission-check: 0x%x, refresh: %d\n", status,
             fcb->PluginFdRefreshNeeded);

    GvBlock<PluginFileInfo> info;
    PluginAccessMask maxAccess;
    status = GvPerformLookupOnPlugin(context, path, &info, &maxAccess);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvPerformLookupOnPlugin", status);
        return status;
    }
    PluginFd fd = 0;
    status = GvOpenFromPlugin(__func__, context, fcb->FcbType, path, maxAccess, &fd);
    if (!NT_SUCCESS(status)) return status;
    const NTSTATUS closed = GV_CALL_PLUGIN(context, fcb, Close, fcb->PluginFd);
    if (!NT_SUCCESS(closed)) GV_TRACE_FAILED("Close", closed);

    GvStore(fcb->PluginFd, fd);
    fcb->MaxAllowedAccess = maxAccess;
    fcb->PluginFdCurrentAccess = maxAccess;
    GvFcbSetFileSize(fcb, &info->EndOfFile);
    fcb->PluginFdRefreshNeeded = 0;
    return STATUS_SUCCESS;
}
