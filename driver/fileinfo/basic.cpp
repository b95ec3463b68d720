// FileBasicInformation: times and attributes go straight to the plugin. What the driver keeps of it is the consequence
// of the read-only attribute for access.

#include "fileinfo/fileinfo.h"

#include "frame/plugincall.h"
#include "objects/util.h"

namespace {

constexpr char kName[] = "GvSetBasicInfo";

// 0 and -1 both leave a time alone.
LONGLONG TimeToSet(LARGE_INTEGER time) { return time.QuadPart == -1 ? 0 : time.QuadPart; }

struct TimesToSet {
    LONGLONG Creation;
    LONGLONG LastAccess;
    LONGLONG LastWrite;
    LONGLONG Change;

    bool Any() const { return Creation || LastAccess || LastWrite || Change; }
};

[[nodiscard]] NTSTATUS SetTimes(const GvSetRequest& set, const TimesToSet& times)
{
    const NTSTATUS status = GV_CALL_PLUGIN(set.Context, set.Object, SetTime, GvHandleOf(set.Object), times.Creation,
                                           times.LastAccess, times.LastWrite, times.Change);
    if (status == STATUS_NOT_SUPPORTED) {
        GV_TRACE_AS(kName, GvTraceNotable, "plugin doesn't support SetTime()\n");
        return STATUS_SUCCESS;
    }
    if (!NT_SUCCESS(status)) GV_TRACE_AS(kName, GvTraceError, "plugin SetTime(): 0x%x\n", status);
    return status;
}

// A handle that was opened without write access gets it by the re-open at the next open.
void FollowReadOnly(Fcb* fcb, ULONG attributes)
{
    if (attributes & FILE_ATTRIBUTE_READONLY) {
        fcb->MaxAllowedAccess &= ~GVND_ACCESS_WRITE;
        fcb->PluginFdCurrentAccess &= ~GVND_ACCESS_WRITE;
    } else if (!(fcb->MaxAllowedAccess & GVND_ACCESS_WRITE)) {
        fcb->MaxAllowedAccess |= GVND_ACCESS_WRITE;
        fcb->PluginFdRefreshNeeded = 1;
    }
}

[[nodiscard]] NTSTATUS SetAttributes(const GvSetRequest& set, FILE_BASIC_INFORMATION* info)
{
    Fcb* const fcb = set.Object;
    if (info->FileAttributes == 0) {
        GV_TRACE_AS(kName, GvTraceFlow, "no attributes being set\n");
        return STATUS_SUCCESS;
    }
    info->FileAttributes &= GVND_ATTRIBUTE_MASK;
    if (fcb->FcbType != GvFile) {
        info->FileAttributes |= FILE_ATTRIBUTE_DIRECTORY;
    } else if (info->FileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
        return STATUS_INVALID_PARAMETER;
    }
    const NTSTATUS status = GV_CALL_PLUGIN(set.Context, fcb, SetAttr, GvHandleOf(fcb), info->FileAttributes);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED_AS(kName, "SetAttr", status);
        return status;
    }
    FollowReadOnly(fcb, info->FileAttributes);
    return status;
}

ULONG ChangesOf(const TimesToSet& times, ULONG attributes)
{
    ULONG filter = 0;
    if (times.Creation) filter |= FILE_NOTIFY_CHANGE_CREATION;
    if (times.LastAccess) filter |= FILE_NOTIFY_CHANGE_LAST_ACCESS;
    if (times.LastWrite) filter |= FILE_NOTIFY_CHANGE_LAST_WRITE;
    if (attributes) filter |= FILE_NOTIFY_CHANGE_ATTRIBUTES;
    return filter;
}

} // namespace

// Nothing is undone: times stay set when the attributes fail.
NTSTATUS GvSetBasicInfo(const GvSetRequest& set)
{
    auto* const info = static_cast<PFILE_BASIC_INFORMATION>(set.Buffer);
    GV_TRACE(GvTraceFlow,
             "set-basic-info, create-time: 0x%I64x, access-time: 0x%I64x, write-time: 0x%I64x, change-time: 0x%I64x, "
             "set-attr: 0x%x\n",
             GvWide{static_cast<ULONGLONG>(info->CreationTime.QuadPart)},
             GvWide{static_cast<ULONGLONG>(info->LastAccessTime.QuadPart)},
             GvWide{static_cast<ULONGLONG>(info->LastWriteTime.QuadPart)},
             GvWide{static_cast<ULONGLONG>(info->ChangeTime.QuadPart)}, info->FileAttributes);
    const TimesToSet times = {
        .Creation = TimeToSet(info->CreationTime),
        .LastAccess = TimeToSet(info->LastAccessTime),
        .LastWrite = TimeToSet(info->LastWriteTime),
        .Change = TimeToSet(info->ChangeTime),
    };
    if (times.Any()) {
        if (const NTSTATUS status = SetTimes(set, times); !NT_SUCCESS(status)) return status;
    }
    if (const NTSTATUS status = SetAttributes(set, info); !NT_SUCCESS(status)) return status;
    GvUtlReportChange(set.Context->Vcb, set.Object, ChangesOf(times, info->FileAttributes), FILE_ACTION_MODIFIED);
    return STATUS_SUCCESS;
}
