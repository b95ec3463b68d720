// The destination of a rename: what stands there, whether it may be replaced, and its deletion on the plugin. A
// destination with a control block is judged by it; any other by probing the plugin with opens.

#include "fileinfo/rename.h"

#include "fileinfo/plugininfo.h"
#include "frame/resource.h"
#include "objects/coherence.h"
#include "objects/fcb.h"

namespace {

constexpr char kName[] = "GvCheckRenameDestination"; // whose steps the checks below are

[[nodiscard]] NTSTATUS CheckLive(Fcb* fcb, bool replaceIfExists, bool* replaced)
{
    GvHeldResource lock;
    if (const NTSTATUS status = lock.Exclusive(fcb->Header.Resource); !NT_SUCCESS(status)) return status;
    if (!replaceIfExists || fcb->FcbType == GvDirectory) {
        GV_TRACE_AS(kName, GvTraceError, "target-exists, AND replace-if-exists == FALSE, or target is dir err: 0x%x\n",
                    STATUS_OBJECT_NAME_COLLISION);
        return STATUS_OBJECT_NAME_COLLISION;
    }
    if (!(fcb->MaxAllowedAccess & GVND_ACCESS_WRITE)) {
        GV_TRACE_AS(kName, GvTraceError, "ERR: dest is read-only\n");
        return STATUS_ACCESS_DENIED;
    }
    if (GvLoad(fcb->HandleCount) > 0) {
        GV_TRACE_AS(kName, GvTraceError, "ERR: dest file has open handles\n");
        return STATUS_ACCESS_DENIED;
    }
    if (!MmFlushImageSection(&fcb->SectionObjectPointers, MmFlushForDelete)) {
        GV_TRACE_AS(kName, GvTraceError, "ERR: MmFlushImageSection(): failed\n");
        return STATUS_ACCESS_DENIED;
    }
    // Flushed as well: the deletion that follows can still be refused, and the data would be gone.
    GvUtlFlushAndPurgeMm(fcb, nullptr, 0, MmFlush::Yes);
    *replaced = true;
    GV_TRACE_AS(kName, GvTraceFlow, "dest exists in fcb name-tree, but can be renamed over\n");
    return STATUS_SUCCESS;
}

// A handle without a control block, for a look at what stands on the plugin.
class Probe {
public:
    explicit Probe(IrpContext* context) : context_(context) {}
    Probe(const Probe&) = delete;
    Probe& operator=(const Probe&) = delete;
    ~Probe()
    {
        if (fd_ == 0) return;
        [[maybe_unused]] const NTSTATUS dropped = GV_CALL_PLUGIN(context_, nullptr, Close, GvBareHandle(fd_));
    }

    bool OpensAsFile(PCUNICODE_STRING path)
    {
        return Keep(GV_CALL_PLUGIN(context_, nullptr, Open, path, GVND_ACCESS_READ, &fd_));
    }
    bool OpensAsDirectory(PCUNICODE_STRING path)
    {
        return Keep(GV_CALL_PLUGIN(context_, nullptr, OpenDir, path, GVND_ACCESS_READ, &fd_));
    }
    ::PluginFd PluginFd() const { return fd_; }

private:
    bool Keep(NTSTATUS status)
    {
        if (!NT_SUCCESS(status)) fd_ = 0; // a failed open hands over nothing
        return NT_SUCCESS(status);
    }

    IrpContext* context_;
    ::PluginFd fd_ = 0;
};

[[nodiscard]] NTSTATUS CheckProbedFile(IrpContext* context, PluginFd fd)
{
    GvBlock<PluginFileInfo> info;
    const NTSTATUS status = GvGetInfoFromPlugin(context, GvBareHandle(fd), &info);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_AS(kName, GvTraceError, "plugin GetInfo(): 0x%x\n", status);
        return status;
    }
    if (info->FileAttributes & (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_REPARSE_POINT)) {
        GV_TRACE_AS(kName, GvTraceError,
                    "ERR: dest exists on plugin and is a file, and is read-only, or is reparse-point, attrs: 0x%x\n",
                    info->FileAttributes);
        return STATUS_ACCESS_DENIED;
    }
    return STATUS_SUCCESS;
}

[[nodiscard]] NTSTATUS CheckOnPlugin(IrpContext* context, PCUNICODE_STRING path, bool replaceIfExists, bool* replaced)
{
    Probe probe(context);
    if (!probe.OpensAsFile(path)) {
        if (probe.OpensAsDirectory(path)) {
            GV_TRACE_AS(kName, GvTraceError, "ERR: dest exists on plugin and is a dir\n");
            return STATUS_OBJECT_NAME_COLLISION;
        }
        GV_TRACE_AS(kName, GvTraceFlow, "dest does not exist on plugin\n");
        *replaced = false;
        return STATUS_SUCCESS;
    }
    if (!replaceIfExists) {
        GV_TRACE_AS(kName, GvTraceError, "ERR: dest exists on plugin and is a file, and replace-if-exists == FALSE\n");
        return STATUS_OBJECT_NAME_COLLISION;
    }
    if (const NTSTATUS status = CheckProbedFile(context, probe.PluginFd()); !NT_SUCCESS(status)) return status;
    GV_TRACE_AS(kName, GvTraceFlow, "dest exists on plugin as a file, and can be renamed over\n");
    *replaced = true;
    return STATUS_SUCCESS;
}

// A plugin without a decision of its own allows it.
[[nodiscard]] NTSTATUS CheckMayDelete(IrpContext* context, PCUNICODE_STRING path, void* token)
{
    if (!context->Vcb->PluginOps->AccessCheck) return STATUS_SUCCESS;
    constexpr ULONG kConstant = 2;
    const NTSTATUS status = GV_CALL_PLUGIN(context, nullptr, AccessCheck, path, kConstant, GVND_ACCESS_WRITE, &token);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_AS("GvDeleteRenameTarget", GvTraceError, "plugin AccessCheck('delete'): 0x%x\n", status);
    }
    return status;
}

} // namespace

NTSTATUS GvCheckRenameDestination(IrpContext* context, bool replaceIfExists, GvRenameDestination* destination)
{
    GV_ASSERT_HELD_EXCLUSIVE(&context->Vcb->Resource);
    const PCUNICODE_STRING path = destination->Normalized.Get();
    const GvFcbReference live(context, GvFcbGetExistingFcb(context->Vcb->FcbTables, path));
    if (live) return CheckLive(live.Get(), replaceIfExists, &destination->TargetReplaced);
    return CheckOnPlugin(context, path, replaceIfExists, &destination->TargetReplaced);
}

NTSTATUS GvDeleteRenameTarget(IrpContext* context, PCUNICODE_STRING destination)
{
    GV_TRACE(GvTraceFlow, "attempting to delete file for rename: %wZ\n", destination);
    const GvCallerSubject subject(context);
    NTSTATUS status = CheckMayDelete(context, destination, subject.Token());
    if (!NT_SUCCESS(status)) return status;
    status = GV_CALL_PLUGIN(context, nullptr, Delete, destination);
    if (!NT_SUCCESS(status)) {
        GV_TRACE(GvTraceError, "plugin Delete(): 0x%x\n", status);
        return status;
    }
    GV_TRACE(GvTraceFlow, "called plugin->Delete(): %wZ\n", destination);
    return status;
}
