// Control blocks: allocation, references, release up the chain of parents.

#include "objects/fcb.h"

#include "frame/plugincall.h"
#include "frame/pool.h"
#include "frame/resource.h"
#include "frame/trace.h"
#include "objects/tree.h"
#include "objects/util.h"

NTSTATUS GvFcbInit(FcbTables** result)
{
    GvBlock<FcbTables> tables(GvAllocate<FcbTables>(NonPagedPool));
    if (!tables) {
        GV_TRACE(GvTraceError, "out of memory\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (const NTSTATUS status = GvTreeInit(&tables->NameTree); !NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvTreeInit", status);
        return status;
    }
    if (const NTSTATUS status = GvTreeInit(&tables->DeletionTree); !NT_SUCCESS(status)) {
        GV_TRACE(GvTraceError, "GvTreeInit(2): 0x%x\n", status);
        [[maybe_unused]] const NTSTATUS undone = GvTreeDelete(tables->NameTree);
        return status;
    }
    *result = tables.Release();
    return STATUS_SUCCESS;
}

NTSTATUS GvFcbShutdown(FcbTables* tables)
{
    if (!tables) {
        GV_TRACE(GvTraceError, "bad call!\n");
        return STATUS_INVALID_PARAMETER;
    }
    if (const NTSTATUS status = GvTreeDelete(tables->NameTree); !NT_SUCCESS(status)) {
        GV_TRACE(GvTraceError, "fGvTreeDelete(): 0x%x\n", status);
        return status;
    }
    if (const NTSTATUS status = GvTreeDelete(tables->DeletionTree); !NT_SUCCESS(status)) {
        GV_TRACE(GvTraceError, "GvTreeDelete(2): 0x%x\n", status);
        return status;
    }
    GvFree(tables);
    return STATUS_SUCCESS;
}

namespace {

[[nodiscard]] NTSTATUS InitResources(Fcb* fcb)
{
    NTSTATUS status = GvUtlAllocAndInitResource(&fcb->Header.Resource, GvAllocateResource::Yes);
    if (NT_SUCCESS(status)) {
        status = GvUtlAllocAndInitResource(&fcb->Header.PagingIoResource, GvAllocateResource::Yes);
        if (!NT_SUCCESS(status)) GvUtlDeleteResource(fcb->Header.Resource, GvAllocateResource::Yes);
    }
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS("GvFcbAllocAndInitFcb", "GvUtlAllocAndInitResource", status);
    return status;
}

[[nodiscard]] NTSTATUS GvFcbAllocAndInitFcb(const GvFcbInitialState& state, bool isRootDir, Fcb** result)
{
    GvBlock<Fcb> fcb(GvAllocate<Fcb>(NonPagedPool));
    if (!fcb) {
        GV_TRACE(GvTraceError, "out-of-mem\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    fcb->Header.NodeTypeCode = GvFcbNodeType;
    fcb->Header.NodeByteSize = sizeof(Fcb);
    fcb->Header.FileSize.QuadPart = state.FileSize;
    if (const NTSTATUS status = InitResources(fcb.Get()); !NT_SUCCESS(status)) return status;

    if (state.Parent) GvFcbAddReference(state.Parent);
    fcb->ParentFcb = state.Parent;
    fcb->PluginFd = state.PluginFd;
    fcb->FcbType = state.Type;
    fcb->IsRootDir = isRootDir;
    fcb->MaxAllowedAccess = state.MaxAllowedAccess;
    fcb->PluginFdCurrentAccess = state.PluginFdCurrentAccess;
    fcb->PluginFdGranted = state.PluginFdCurrentAccess;
    GvInitHandleSwitch(fcb.Get());
    FsRtlInitializeFileLock(&fcb->FileLock, nullptr, nullptr);
    *result = fcb.Release();
    return STATUS_SUCCESS;
}

// Gives back the count on the parent, but leaves the parent's own teardown to the caller's loop.
NTSTATUS GvFcbFreeFcb(Fcb* fcb)
{
    GvUtlDeleteResource(fcb->Header.Resource, GvAllocateResource::Yes);
    GvUtlDeleteResource(fcb->Header.PagingIoResource, GvAllocateResource::Yes);
    FsRtlUninitializeFileLock(&fcb->FileLock);
    if (fcb->ParentFcb) InterlockedDecrement(&fcb->ParentFcb->RefCount);
    GvFree(fcb);
    return STATUS_SUCCESS;
}

// The handle is forgotten whatever the plugin says: after an unmount request it hears of no handle any more.
void ClosePluginFd(IrpContext* context, Fcb* fcb)
{
    if (fcb->PluginFdClosed) return;
    const NTSTATUS status = GV_CALL_PLUGIN(context, fcb, Close, GvHandleOf(fcb));
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS("GvFcbDerefFcbAndParentChain", "Close", status);
    GvStore(fcb->PluginFdClosed, 1);
    GvStore(fcb->PluginFd, 0);
}

} // namespace

NTSTATUS GvFcbAllocAndInitVolumeFcb(PluginAccessMask access, Fcb** fcb)
{
    const GvFcbInitialState state = {
        .Type = GvVolume,
        .MaxAllowedAccess = access,
        .PluginFdCurrentAccess = access,
        .FileSize = 0,
        .PluginFd = 0,
        .Parent = nullptr,
    };
    const NTSTATUS status = GvFcbAllocAndInitFcb(state, false, fcb);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED("GvFcbAllocAndInitFcb", status);
    return status;
}

NTSTATUS GvFcbFreeVolumeFcb(Fcb* fcb) { return GvFcbFreeFcb(fcb); }

NTSTATUS GvFcbCreateNewFcb(FcbTables* tables, PCUNICODE_STRING path, const GvFcbInitialState& state, Fcb** result)
{
    const bool isRootDir = state.Type == GvDirectory && GvUtlIsRootPath(path);
    Fcb* fcb;
    NTSTATUS status = GvFcbAllocAndInitFcb(state, isRootDir, &fcb);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvFcbAllocAndInitFcb", status);
        return status;
    }
    status = GvTreeAddEntry(tables->NameTree, path, &fcb->TreeEntry);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvTreeAddEntry", status);
        GvFcbFreeFcb(fcb);
        return status;
    }
    GvFcbAddReference(fcb);
    *result = fcb;
    return STATUS_SUCCESS;
}

Fcb* GvFcbGetExistingFcb(FcbTables* tables, PCUNICODE_STRING path)
{
    GvTreeEntry* entry;
    if (const NTSTATUS status = GvTreeGetEntry(tables->NameTree, path, &entry); !NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvTreeGetEntry", status);
        return nullptr;
    }
    auto* const fcb = CONTAINING_RECORD(entry, Fcb, TreeEntry);
    GvFcbAddReference(fcb);
    return fcb;
}

NTSTATUS GvFcbDerefFcbAndParentChain(IrpContext* context, Fcb* fcb)
{
    GV_ASSERT_HELD_EXCLUSIVE(&context->Vcb->Resource);
    InterlockedDecrement(&fcb->RefCount);
    NTSTATUS status = STATUS_SUCCESS;
    while (fcb && GvLoad(fcb->RefCount) == 0) {
        Fcb* const parent = fcb->ParentFcb;
        // A rename that could not enter the new name leaves an object that is on no tree.
        if (GvTreeHasEntry(&fcb->TreeEntry)) GvTreeRemoveEntryByVal(context->Vcb->FcbTables->NameTree, &fcb->TreeEntry);
        ClosePluginFd(context, fcb);
        status = GvFcbFreeFcb(fcb);
        if (!NT_SUCCESS(status)) GV_TRACE_FAILED("GvFcbFreeFcb", status);
        fcb = parent;
    }
    return status;
}

namespace {

// A deletion that failed half way. Until now the object has kept its directory, and so the volume. One that never left
// the name tree, such as a root that its plugin has deleted, goes; of one that is on neither tree the record stays.
void LeaveHalfDeleted(IrpContext* context, Fcb* fcb)
{
    Fcb* const parent = fcb->ParentFcb;
    fcb->ParentFcb = nullptr;
    if (GvTreeHasEntry(&fcb->TreeEntry)) {
        GvTreeRemoveEntryByVal(context->Vcb->FcbTables->NameTree, &fcb->TreeEntry);
        GvFcbFreeFcb(fcb);
    }
    if (parent) GvFcbDerefFcbAndParentChain(context, parent);
}

} // namespace

NTSTATUS GvFcbReleaseFcb(IrpContext* context, Fcb* fcb)
{
    GV_ASSERT_HELD_EXCLUSIVE(&context->Vcb->Resource);
    if (!GvLoad(fcb->Deleted)) return GvFcbDerefFcbAndParentChain(context, fcb);
    // A deleted object has no parent, and its handle was closed before the delete: no chain and no call follow.
    if (InterlockedDecrement(&fcb->RefCount) != 0) return STATUS_SUCCESS;
    if (!fcb->OnDeletionTree) {
        GV_TRACE(GvTraceError, "bad FCB.. not on deletion tree: 0x%x\n", fcb);
        LeaveHalfDeleted(context, fcb);
        return STATUS_UNSUCCESSFUL;
    }
    GvTreeRemoveEntryByVal(context->Vcb->FcbTables->DeletionTree, &fcb->TreeEntry);
    return GvFcbFreeFcb(fcb);
}

bool GvFcbReleaseUnlessLast(Fcb* fcb)
{
    for (LONG count = GvLoad(fcb->RefCount); count > 1;) {
        const LONG found = InterlockedCompareExchange(&fcb->RefCount, count - 1, count);
        if (found == count) return true;
        count = found;
    }
    return false;
}

void GvFcbGetReferencedFcbList(FcbTables* tables, ULONG type, Fcb** head)
{
    for (GvTreeEntry* entry = GvTreeGetNextEntry(tables->NameTree, GvWalk::Restart); entry;
         entry = GvTreeGetNextEntry(tables->NameTree, GvWalk::Continue)) {
        auto* const fcb = CONTAINING_RECORD(entry, Fcb, TreeEntry);
        if (fcb->FcbType != type) continue;
        GvFcbAddReference(fcb);
        fcb->ReferencedLink = *head;
        *head = fcb;
    }
}

Fcb* GvFcbPopReferencedFcb(Fcb** head)
{
    Fcb* const fcb = *head;
    if (!fcb) return nullptr;
    *head = fcb->ReferencedLink;
    fcb->ReferencedLink = nullptr;
    return fcb;
}

// In this order: an object goes from the first tree to the second, and while it is on neither, its directory is on the
// first.
ULONG GvFcbGetFcbCount(const FcbTables* tables)
{
    const ULONG live = GvTreeGetEntryCount(tables->NameTree);
    return live + GvTreeGetEntryCount(tables->DeletionTree);
}

void GvFcbGetFileSize(const Fcb* fcb, LONGLONG* size) { *size = fcb->Header.FileSize.QuadPart; }

void GvFcbSetFileSize(Fcb* fcb, const LONGLONG* size) { fcb->Header.FileSize.QuadPart = *size; }
