// NT deletes at the last handle; a plugin deletes by path, at once, and a read-only object may refuse. So a directory
// is proved empty, a read-only attribute is taken off, the plugin's handle is closed, and only then is the object
// deleted by path. From then on it is gone for NT, whatever the plugin said.

#include "teardown/deletion.h"

#include "fileinfo/plugininfo.h"
#include "frame/plugincall.h"
#include "frame/resource.h"
#include "objects/fcb.h"
#include "objects/util.h"

namespace {

// The access fields stay: the object is about to go.
[[nodiscard]] NTSTATUS GvMakePluginFileWriteable(IrpContext* context, const Fcb* fcb)
{
    GvBlock<PluginFileInfo> info;
    NTSTATUS status = GvGetInfoFromPlugin(context, GvHandleOf(fcb), &info);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GetInfo", status);
        return status;
    }
    if (!(info->FileAttributes & FILE_ATTRIBUTE_READONLY)) return STATUS_SUCCESS;
    const ULONG attributes = info->FileAttributes & ~FILE_ATTRIBUTE_READONLY;
    status = GV_CALL_PLUGIN(context, fcb, SetAttr, GvHandleOf(fcb), attributes);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED("SetAttr", status);
    return status;
}

constexpr char kName[] = "GvPerformDeletion";

[[nodiscard]] NTSTATUS PrepareToDelete(IrpContext* context, Fcb* fcb)
{
    if (fcb->FcbType == GvDirectory) {
        if (const NTSTATUS status = GvUtlIsPluginDirEmpty(context, fcb); !NT_SUCCESS(status)) {
            GV_TRACE_FAILED_AS(kName, "GvIsPluginDirEmpty", status);
            return status;
        }
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
    const NTSTATUS status = GV_CALL_PLUGIN(context, fcb, Close, GvHandleOf(fcb));
    GvStore(fcb->PluginFdClosed, 1);
    GvStore(fcb->PluginFd, 0);
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
    NTSTATUS status = GvFcbGetName(context->Vcb->FcbTables, fcb, path.Out());
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvFcbGetName", status);
        return status;
    }
    status = PrepareToDelete(context, fcb);
    if (!NT_SUCCESS(status)) return status;
    status = ClosePluginFd(context, fcb);
    if (!NT_SUCCESS(status)) return status;
    GvUtlReportChange(context->Vcb, fcb,
                      fcb->FcbType == GvFile ? FILE_NOTIFY_CHANGE_FILE_NAME : FILE_NOTIFY_CHANGE_DIR_NAME,
                      FILE_ACTION_REMOVED);
    GvStore(fcb->Deleted, 1);
    DeleteOnPlugin(context, fcb, path.Get());
    status = GvFcbMarkFcbAsDeleted(context, fcb);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED("GvFcbMarkFcbAsDeleted", status);
    return status;
}
