// NT deletes at the last handle; a plugin deletes by path, at once, and a read-only object may refuse. So a directory
// is proved empty, a read-only attribute is taken off, the plugin's handle is closed, and only then is the object
// deleted by path. From then on it is gone for NT, whatever the plugin said.

#include "teardown/deletion.h"

#include "plugin/operations.h"
#include "plugin/call.h"
#include "frame/resource.h"
#include "objects/fcb.h"
#include "objects/util.h"

namespace {

// The access fields stay: the object is about to go.
[[nodiscard]] NTSTATUS GvMakePluginFileWriteable(IrpContext* context, const Fcb* fcb)
{
    GvBlock<PluginFileInfo> info;
    GV_TRY_TRACED("GetInfo", GvGetInfoFromPlugin(context, GvHandleOf(fcb), &info));
    if (!(info->FileAttributes & FILE_ATTRIBUTE_READONLY)) return STATUS_SUCCESS;
    const ULONG attributes = info->FileAttributes & ~FILE_ATTRIBUTE_READONLY;
    const NTSTATUS status = GV_CALL_PLUGIN(context, fcb, SetAttr, GvHandleOf(fcb), attributes);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED("SetAttr", status);
    return status;
}

constexpr char kName[] = "GvPerformDeletion";

[[nodiscard]] NTSTATUS PrepareToDelete(IrpContext* context, Fcb* fcb)
{
    if (fcb->FcbType == GvDirectory) {
        GV_TRY_TRACED_AS(kName, "GvIsPluginDirEmpty", GvUtlIsPluginDirEmpty(context, fcb));
    }
    if (fcb->MaxAllowedAccess & GVND_ACCESS_WRITE) return STATUS_SUCCESS;
    const NTSTATUS status = GvMakePluginFileWriteable(context, fcb);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS(kName, "GvMakePluginFileWriteable", status);
    return status;
}

// The plugin deletes an object with no handle open on it. A failed close leaves an object without a handle.
[[nodiscard]] NTSTATUS ClosePluginFd(IrpContext* context, Fcb* fcb)
{
    const GvHandleSwitch closing(fcb);
    const NTSTATUS status = GvCloseObjectHandle(context, fcb);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS(kName, "Close", status);
    return status;
}

void DeleteOnPlugin(IrpContext* context, Fcb* fcb, PCUNICODE_STRING path)
{
    const NTSTATUS status = GV_CALL_PLUGIN(context, nullptr, Delete, path);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_AS(kName, GvTraceError, "Delete(): 0x%x, continuing...\n", status);
    } else if (fcb->ParentFcb) {
        InterlockedIncrement(&fcb->ParentFcb->ChildDeleteCount);
    }
}

} // namespace

NTSTATUS GvPerformDeletion(IrpContext* context, Fcb* fcb)
{
    GV_ASSERT_HELD_EXCLUSIVE(&context->Vcb->Resource);
    GV_ASSERT_HELD_EXCLUSIVE(fcb->Header.Resource);
    GvString path; // taken now: a deleted object has no name any more
    GV_TRY_TRACED("GvFcbGetName", GvFcbGetName(context->Vcb->FcbTables, fcb, path.Out()));
    GV_TRY(PrepareToDelete(context, fcb));
    GV_TRY(ClosePluginFd(context, fcb));
    GvUtlReportChange(context->Vcb, fcb,
                      fcb->FcbType == GvFile ? FILE_NOTIFY_CHANGE_FILE_NAME : FILE_NOTIFY_CHANGE_DIR_NAME,
                      FILE_ACTION_REMOVED);
    GvStore(fcb->Deleted, 1);
    DeleteOnPlugin(context, fcb, path.Get());
    const NTSTATUS status = GvFcbMarkFcbAsDeleted(context, fcb);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED("GvFcbMarkFcbAsDeleted", status);
    return status;
}
