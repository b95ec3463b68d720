// Control blocks: their life, their references, the pair of trees. Trees change under Vcb.Resource, exclusive; the
// counts are atomic, since a close that is not top-level gives its reference back with no lock.
#pragma once

#include "frame/records.h"

[[nodiscard]] NTSTATUS GvFcbInit(FcbTables** tables);
// The trees must be empty; else the failing tree's status, and the record stays.
[[nodiscard]] NTSTATUS GvFcbShutdown(FcbTables* tables);

// What a control block is made from.
struct GvFcbInitialState {
    ULONG Type; // GvFileType
    PluginAccessMask MaxAllowedAccess;
    PluginAccessMask PluginFdCurrentAccess;
    LONGLONG FileSize;
    ::PluginFd PluginFd;
    Fcb* Parent; // null for the root and the volume; gets a count
};

[[nodiscard]] NTSTATUS GvFcbAllocAndInitVolumeFcb(PluginAccessMask access, Fcb** fcb);
NTSTATUS GvFcbFreeVolumeFcb(Fcb* fcb);

// Enters the path in the name tree; one reference for the caller. On failure the handle is still the caller's to close.
[[nodiscard]] NTSTATUS GvFcbCreateNewFcb(FcbTables* tables, PCUNICODE_STRING path, const GvFcbInitialState& state,
                                         Fcb** fcb);
// One reference for the caller, or null.
[[nodiscard]] Fcb* GvFcbGetExistingFcb(FcbTables* tables, PCUNICODE_STRING path);

// Gives back a reference, under Vcb.Resource, exclusive. The last one on a live object closes its plugin handle, and
// then those of idle ancestors, leaf first; the last one on a deleted object takes it off the deletion tree.
NTSTATUS GvFcbReleaseFcb(IrpContext* context, Fcb* fcb);
// Gives back a reference without any lock; false, and nothing has changed, for the last one.
[[nodiscard]] bool GvFcbReleaseUnlessLast(Fcb* fcb);
NTSTATUS GvFcbDerefFcbAndParentChain(IrpContext* context, Fcb* fcb);

// A copy for the caller to free. STATUS_INVALID_PARAMETER for a deleted object, which has no name.
[[nodiscard]] NTSTATUS GvFcbGetName(FcbTables* tables, Fcb* fcb, PUNICODE_STRING* name);
// Moves a deleted object to the deletion tree and gives back its count on the parent. After a failure behind the
// removal the object is on no tree, and holds its parent, and so the volume, until its last release.
NTSTATUS GvFcbMarkFcbAsDeleted(IrpContext* context, Fcb* fcb);
// Re-enters the object under its new path, below target's object if a target is given.
[[nodiscard]] NTSTATUS GvFcbMoveFcbForRename(IrpContext* context, Fcb* fcb, PFILE_OBJECT target,
                                             PCUNICODE_STRING newPath);

// All live objects of a type, each with a reference that the popper gives back, so that work on one may end in closes
// that change the tree. *head is null at the start.
void GvFcbGetReferencedFcbList(FcbTables* tables, ULONG type, Fcb** head);
[[nodiscard]] Fcb* GvFcbPopReferencedFcb(Fcb** head);

ULONG GvFcbGetFcbCount(const FcbTables* tables);
void GvFcbGetFileSize(const Fcb* fcb, LONGLONG* size);
void GvFcbSetFileSize(Fcb* fcb, const LONGLONG* size);

inline void GvFcbAddReference(Fcb* fcb) { InterlockedIncrement(&fcb->RefCount); }

// Owns one reference until the end of the scope, which is under Vcb.Resource, exclusive.
class GvFcbReference {
public:
    explicit GvFcbReference(IrpContext* context, Fcb* fcb = nullptr) : context_(context), fcb_(fcb) {}
    GvFcbReference(const GvFcbReference&) = delete;
    GvFcbReference& operator=(const GvFcbReference&) = delete;
    ~GvFcbReference() { Reset(); }

    Fcb* Get() const { return fcb_; }
    explicit operator bool() const { return fcb_ != nullptr; }
    void Reset(Fcb* fcb = nullptr)
    {
        if (fcb_) GvFcbReleaseFcb(context_, fcb_);
        fcb_ = fcb;
    }
    Fcb* Release()
    {
        Fcb* const fcb = fcb_;
        fcb_ = nullptr;
        return fcb;
    }

private:
    IrpContext* context_;
    Fcb* fcb_;
};
