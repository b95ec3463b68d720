// The names of control blocks: reading one, moving one.

#include "objects/fcb.h"

#include "frame/resource.h"
#include "frame/trace.h"
#include "objects/tree.h"
#include "objects/util.h"

NTSTATUS GvFcbGetName(FcbTables* tables, Fcb* fcb, PUNICODE_STRING* name)
{
    GvString key;
    const NTSTATUS status = GvLoad(fcb->Deleted) ? STATUS_INVALID_PARAMETER
                                                 : GvTreeGetEntryKey(tables->NameTree, &fcb->TreeEntry, key.Out());
    // Behind the copy: what a nested query has copied may have become a deletion key meanwhile, which is no name.
    if (GvLoad(fcb->Deleted)) return GV_REFUSE(STATUS_INVALID_PARAMETER, "ERROR: fcb: 0x%x already 'deleted'\n", fcb);
    if (status == STATUS_NOT_FOUND) return GV_REFUSE(STATUS_INVALID_PARAMETER, "ERROR: fcb: 0x%x is on no tree\n", fcb);
    if (NT_SUCCESS(status)) *name = key.Release();
    return status;
}

NTSTATUS GvFcbMoveFcbForRename(IrpContext* context, Fcb* fcb, PFILE_OBJECT target, PCUNICODE_STRING newPath)
{
    GvTree* const tree = context->Vcb->FcbTables->NameTree;
    GV_ASSERT_HELD_EXCLUSIVE(&context->Vcb->Resource);
    if (target) {
        const NTSTATUS status = GvFcbDerefFcbAndParentChain(context, fcb->ParentFcb);
        if (!NT_SUCCESS(status)) GV_TRACE_FAILED("GvFcbDerefFcbAndParentChain", status);
        fcb->ParentFcb = GvFcbOf(target);
        GvFcbAddReference(fcb->ParentFcb);
    }
    const NTSTATUS status = GvTreeMoveEntry(tree, newPath, &fcb->TreeEntry);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED("GvTreeAddEntry", status);
    return status;
}
