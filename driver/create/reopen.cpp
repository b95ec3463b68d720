// The upgrade of an object's plugin handle. All opens of an object share the handle, and it is usually weaker than what
// a new open asks for. There is no graded upgrade: a re-opened handle holds all that the plugin allows.

#include "create/create.h"

#include "frame/plugincall.h"
#include "frame/resource.h"

namespace {

// No call that is nested in other work sees the old handle after its close, or none at all. A rename that failed has
// left the object without a handle, and the new one makes it whole again.
void ReplaceHandle(IrpContext* context, Fcb* fcb, PluginFd fd)
{
    const GvHandleSwitch replacing(fcb);
    const NTSTATUS closed = GV_CALL_PLUGIN(context, fcb, Close, GvHandleOf(fcb));
    if (!NT_SUCCESS(closed)) GV_TRACE_FAILED_AS("GvReopenPluginFdIfRequired", "Close", closed);
    GvStore(fcb->PluginFd, fd);
    GvStore(fcb->PluginFdClosed, 0);
}

} // namespace

NTSTATUS GvReopenPluginFdIfRequired(IrpContext* context, Fcb* fcb, ACCESS_MASK desired)
{
    GV_ASSERT_HELD_EXCLUSIVE(fcb->Header.Resource);
    NTSTATUS status = GvCheckDesiredAccessWithFcbMaxAccess(fcb->FcbType, desired, fcb->PluginFdCurrentAccess);
    if (NT_SUCCESS(status) && !fcb->PluginFdRefreshNeeded) return STATUS_SUCCESS;
    GV_TRACE(GvTraceNotable, "re-opening plugin-fd, permission-check: 0x%x, refresh: %d\n", status,
             fcb->PluginFdRefreshNeeded);

    GvString path; // the object's own, however this open has spelled it
    status = GvFcbGetName(context->Vcb->FcbTables, fcb, path.Out());
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvFcbGetName", status);
        return status;
    }
    GvBlock<PluginFileInfo> info;
    PluginAccessMask maxAccess;
    status = GvPerformLookupOnPlugin(context, path.Get(), &info, &maxAccess);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvPerformLookupOnPlugin", status);
        return status;
    }
    PluginFd fd = 0;
    status = GvOpenFromPlugin(__func__, context, fcb->FcbType, path.Get(), maxAccess, &fd);
    if (!NT_SUCCESS(status)) return status;
    ReplaceHandle(context, fcb, fd);

    fcb->MaxAllowedAccess = maxAccess;
    fcb->PluginFdCurrentAccess = maxAccess;
    fcb->PluginFdGranted = maxAccess;
    GvFcbSetFileSize(fcb, &info->EndOfFile);
    fcb->PluginFdRefreshNeeded = 0;
    return STATUS_SUCCESS;
}
