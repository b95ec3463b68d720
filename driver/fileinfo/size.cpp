// FileAllocationInformation and FileEndOfFileInformation. To the plugin a size change is one operation that takes both
// sizes; each class derives the one that its caller did not give from the plugin's present record.

#include "fileinfo/fileinfo.h"

#include "frame/plugincall.h"
#include "objects/coherence.h"
#include "objects/fcb.h"
#include "objects/util.h"

namespace {

[[nodiscard]] NTSTATUS CheckIsFile(const char* function, const Fcb* fcb)
{
    if (fcb->FcbType == GvFile) return STATUS_SUCCESS;
    GV_TRACE_AS(function, GvTraceError, "ERROR not allowed on dir\n");
    return STATUS_INVALID_DEVICE_REQUEST;
}

// What a view still shows must not be cut off, and what it has changed goes out before the cut.
[[nodiscard]] NTSTATUS PrepareToShrink(Fcb* fcb, LONGLONG newEof)
{
    LARGE_INTEGER size;
    size.QuadPart = newEof;
    if (!MmCanFileBeTruncated(&fcb->SectionObjectPointers, &size)) {
        GV_TRACE_AS("GvSetAllocationSizeOrEof", GvTraceError, "MmCanFileBeTruncated(): 0x%x\n",
                    STATUS_USER_MAPPED_FILE);
        return STATUS_USER_MAPPED_FILE;
    }
    if (GvLoad(fcb->SectionObjectPointers.DataSectionObject)) GvUtlFlushAndPurgeMm(fcb, nullptr, 0, MmFlush::Yes);
    return STATUS_SUCCESS;
}

[[nodiscard]] NTSTATUS GvSetAllocationSizeOrEof(const GvSetRequest& set, LONGLONG newEof, LONGLONG newAllocation)
{
    Fcb* const fcb = set.Object;
    const LONGLONG currentEof = set.Record->EndOfFile;
    if (newEof < currentEof) {
        if (const NTSTATUS status = PrepareToShrink(fcb, newEof); !NT_SUCCESS(status)) return status;
    }
    const LONGLONG* const allocation = &newAllocation;
    const NTSTATUS status = GV_CALL_PLUGIN(set.Context, fcb, SetFileSize, GvHandleOf(fcb), &newEof, allocation);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("SetFileSize", status);
        return status;
    }
    GvFcbSetFileSize(fcb, &newEof); // as the plugin left it
    if (newEof != currentEof) {
        GvCcbOf(set.FileObject)->LastWriteChanged = 1;
        GvUtlReportChange(set.Context->Vcb, fcb, FILE_NOTIFY_CHANGE_SIZE, FILE_ACTION_MODIFIED);
    }
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS GvSetAllocationInfo(const GvSetRequest& set)
{
    if (const NTSTATUS status = CheckIsFile(__func__, set.Object); !NT_SUCCESS(status)) return status;
    const LONGLONG allocation = static_cast<PFILE_ALLOCATION_INFORMATION>(set.Buffer)->AllocationSize.QuadPart;
    const LONGLONG eof = set.Record->EndOfFile < allocation ? set.Record->EndOfFile : allocation;
    return GvSetAllocationSizeOrEof(set, eof, allocation);
}

NTSTATUS GvSetEndOfFileInfo(const GvSetRequest& set)
{
    if (const NTSTATUS status = CheckIsFile(__func__, set.Object); !NT_SUCCESS(status)) return status;
    const LONGLONG eof = static_cast<PFILE_END_OF_FILE_INFORMATION>(set.Buffer)->EndOfFile.QuadPart;
    const LONGLONG allocation = set.Record->AllocationSize > eof ? set.Record->AllocationSize : eof;
    return GvSetAllocationSizeOrEof(set, eof, allocation);
}
