// The opens that this driver does not serve yet. They end here, with one status and a trace that says which it was.

#include "create/create.h"

#include "frame/trace.h"

NTSTATUS GvRefuseUnservedOpen(GvUnservedOpen open)
{
    static const char* const kNames[] = {"creating an object", "overwriting a file", "opening a rename target",
                                         "following a reparse point", "delete-on-close"};
    GV_TRACE(GvTraceUnsupported, "%s is not supported\n", kNames[static_cast<ULONG>(open)]);
    return STATUS_NOT_IMPLEMENTED;
}

NTSTATUS GvCreateNewFileOrDir(IrpContext*, const CreateParameters& parameters, const ResolvedPaths&, Fcb*,
                              NTSTATUS lookupStatus, ULONG*)
{
    if (parameters.Disposition == FILE_OPEN || parameters.Disposition == FILE_OVERWRITE) {
        GV_TRACE(GvTraceError, "bad disposition = 0x%x\n", parameters.Disposition);
        return NT_SUCCESS(lookupStatus) ? STATUS_OBJECT_NAME_NOT_FOUND : lookupStatus;
    }
    return GvRefuseUnservedOpen(GvUnservedOpen::NewObject);
}
