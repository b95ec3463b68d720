// Overwriting an existing file: truncated on the plugin, attributes and extended attributes brought to what the open
// asked for. Under the object's lock; what was done before a failing step stays done.

#include "create/create.h"

#include "ea/ea.h"
#include "fileinfo/plugininfo.h"
#include "frame/resource.h"
#include "objects/coherence.h"

namespace {

constexpr char kName[] = "GvOverwriteExistingFcb"; // whose steps the routines below are

// Hidden and system files are overwritten only by those who know what they are.
[[nodiscard]] NTSTATUS CheckAttributes(ULONG current, ULONG wanted)
{
    constexpr ULONG kProtecting = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;
    if (!(current & kProtecting & ~wanted)) return STATUS_SUCCESS;
    GV_TRACE_AS(kName, GvTraceError, "ERR: attrs don't match!, cur: 0x%x, new: 0x%x\n", current, wanted);
    return STATUS_ACCESS_DENIED;
}

// Cached data is thrown away, not written.
[[nodiscard]] NTSTATUS DropPages(Fcb* fcb)
{
    SECTION_OBJECT_POINTERS& sections = fcb->SectionObjectPointers;
    if (GvLoad(sections.DataSectionObject) || GvLoad(sections.ImageSectionObject)) {
        LARGE_INTEGER empty = {};
        if (!MmCanFileBeTruncated(&sections, &empty)) {
            GV_TRACE_AS(kName, GvTraceError, "tried to overwrite mapped-file: 0x%x\n", STATUS_USER_MAPPED_FILE);
            return STATUS_USER_MAPPED_FILE;
        }
    }
    GvUtlFlushAndPurgeMm(fcb, nullptr, 0, MmFlush::No);
    return STATUS_SUCCESS;
}

[[nodiscard]] NTSTATUS Truncate(IrpContext* context, Fcb* fcb, const LONGLONG* allocationSize)
{
    LONGLONG size = 0;
    const NTSTATUS status = GV_CALL_PLUGIN(context, fcb, SetFileSize, GvHandleOf(fcb), &size, allocationSize);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_AS(kName, GvTraceError, "Plugin SetFileSize(): 0x%x\n", status);
        return status;
    }
    GvFcbSetFileSize(fcb, &size); // as the plugin left it
    return status;
}

// Attributes are only ever added.
[[nodiscard]] NTSTATUS MergeAttributes(IrpContext* context, Fcb* fcb, ULONG current, ULONG wanted)
{
    if (wanted == 0) return STATUS_SUCCESS;
    const ULONG merged = wanted | current | FILE_ATTRIBUTE_ARCHIVE;
    if (merged != current) {
        const NTSTATUS status = GV_CALL_PLUGIN(context, fcb, SetAttr, GvHandleOf(fcb), merged);
        if (!NT_SUCCESS(status)) {
            GV_TRACE_AS(kName, GvTraceError, "Plugin SetAttr(): 0x%x\n", status);
            return status;
        }
    }
    // For later opens; the handle in hand keeps what it has.
    if (merged & FILE_ATTRIBUTE_READONLY) fcb->MaxAllowedAccess &= ~GVND_ACCESS_WRITE;
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS GvOverwriteExistingFcb(IrpContext* context, const CreateParameters& parameters, Fcb* fcb)
{
    GV_ASSERT_HELD_EXCLUSIVE(fcb->Header.Resource);
    GvBlock<PluginFileInfo> info;
    NTSTATUS status = GvGetInfoFromPlugin(context, GvHandleOf(fcb), &info);
    if (!NT_SUCCESS(status)) {
        GV_TRACE(GvTraceError, "Plugin GetInfo(): 0x%x\n", status);
        return status;
    }
    status = CheckAttributes(info->FileAttributes, parameters.FileAttributes);
    if (NT_SUCCESS(status)) status = DropPages(fcb);
    if (NT_SUCCESS(status)) status = Truncate(context, fcb, &parameters.AllocationSize);
    if (NT_SUCCESS(status)) status = MergeAttributes(context, fcb, info->FileAttributes, parameters.FileAttributes);
    if (!NT_SUCCESS(status) || parameters.EaLength == 0) return status;

    ULONG errorOffset;
    status = GvSetFullEaInfo(context, GvHandleOf(fcb), parameters.EaBuffer, parameters.EaLength, &errorOffset);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED("GvSetFullEaInfo", status);
    return status;
}
