// The open path: what one create asks for, the paths it works with, and the routines that end it. Everything here runs
// under Vcb.Resource, which GvDoCreate takes exclusively, at PASSIVE_LEVEL on the caller's thread.
#pragma once

#include "objects/fcb.h"
#include "objects/util.h"

// What the request asks for; constant once read.
struct CreateParameters {
    PFILE_OBJECT FileObject;
    ULONG CreateOptions;  // low 24 bits of the options
    ULONG Disposition;    // FILE_OPEN, ...
    ULONG FileAttributes; // within GVND_ATTRIBUTE_MASK
    ACCESS_MASK DesiredAccess;
    ULONG ShareAccess;
    LONGLONG AllocationSize;
    void* EaBuffer; // as given
    ULONG EaLength;
    bool DeleteOnClose;
    bool OpenTargetDirectory;
    void* SubjectToken;
    ULONG RequestedFileType; // GvFileType
};

// Full paths from the volume root, trailing backslashes stripped.
struct ResolvedPaths {
    GvString CasePreservedPath; // as the caller spelled it: what a new object is created under
    GvString FullPath;          // the plugin's normalised form: key of the name tree
    GvString WalkedPath;        // grows during the walk; begins as the related object's name
    GvString RemainingPath;     // shrinks during the walk
    bool TrailingBackslash;     // the name ended in one: such a name cannot be a file
};

[[nodiscard]] NTSTATUS GvCheckUnsupportedParams(PIRP irp);

// STATUS_OBJECT_NAME_INVALID, STATUS_OBJECT_PATH_SYNTAX_BAD, STATUS_INSUFFICIENT_RESOURCES, or the plugin's own.
[[nodiscard]] NTSTATUS GvResolveName(IrpContext* context, PFILE_OBJECT fileObject, ResolvedPaths* paths);
// May this be the last component of a name? STATUS_OBJECT_NAME_INVALID for none at all, a separator or an illegal
// character, STATUS_OBJECT_PATH_SYNTAX_BAD for a dot component.
[[nodiscard]] NTSTATUS GvCheckLeaf(PCUNICODE_STRING leaf);
// STATUS_NOT_SUPPORTED: use the name unchanged. The string is the caller's to free.
[[nodiscard]] NTSTATUS GvPnGetNormalizedPathFromPlugin(IrpContext* context, PCUNICODE_STRING path,
                                                       PUNICODE_STRING* normalized);

// How a walk ended when it did not fail: at the object, or at its parent because the last component could not be
// opened.
struct WalkResult {
    Fcb* Object;           // referenced, or null
    Fcb* Parent;           // referenced, or null
    NTSTATUS LookupStatus; // why there is only a parent
};

// STATUS_REPARSE when a reparse point stood in the way; WalkedPath then ends in it and RemainingPath holds what
// follows.
[[nodiscard]] NTSTATUS GvFullyOpenPath(IrpContext* context, PFILE_OBJECT fileObject, ResolvedPaths* paths,
                                       WalkResult* result);
// The record is one block for the caller to free.
[[nodiscard]] NTSTATUS GvPerformLookupOnPlugin(IrpContext* context, PCUNICODE_STRING path,
                                               GvBlock<PluginFileInfo>* info, PluginAccessMask* maxAccess);
[[nodiscard]] NTSTATUS GvOpenFileFromPlugin(IrpContext* context, PCUNICODE_STRING path, PluginAccessMask access,
                                            PluginFd* fd);
[[nodiscard]] NTSTATUS GvOpenDirFromPlugin(IrpContext* context, PCUNICODE_STRING path, PluginAccessMask access,
                                           PluginFd* fd);
// The first for GvFile, else the second; a failure is traced as function's step.
[[nodiscard]] NTSTATUS GvOpenFromPlugin(const char* function, IrpContext* context, ULONG type, PCUNICODE_STRING path,
                                        PluginAccessMask access, PluginFd* fd);

// STATUS_ACCESS_DENIED if the mask does not cover the access. Execute is tested on files only.
[[nodiscard]] NTSTATUS GvCheckDesiredAccessWithFcbMaxAccess(ULONG type, ACCESS_MASK desired, PluginAccessMask mask);
// The plugin's own decision; a plugin without one allows everything.
[[nodiscard]] NTSTATUS GvAccessCheck(IrpContext* context, PCUNICODE_STRING path, ACCESS_MASK desired, void* token);

// Ties the file object to the control block and a new Ccb. Takes no reference on the control block.
[[nodiscard]] NTSTATUS GvInitFileObj(PFILE_OBJECT fileObject, Fcb* fcb, bool deleteOnClose);

// The finishers. Each yields the value for IoStatus.Information; the caller keeps its references.
[[nodiscard]] NTSTATUS GvPerformVolumeOpen(IrpContext* context, const CreateParameters& parameters, ULONG* information);
[[nodiscard]] NTSTATUS GvInitExistingFcb(IrpContext* context, const CreateParameters& parameters,
                                         const ResolvedPaths& paths, Fcb* fcb, ULONG* information);
[[nodiscard]] NTSTATUS GvCreateNewFileOrDir(IrpContext* context, const CreateParameters& parameters,
                                            const ResolvedPaths& paths, Fcb* parent, NTSTATUS lookupStatus,
                                            ULONG* information);

// found is the target, or only its parent.
[[nodiscard]] NTSTATUS GvOpenTargetDirectory(IrpContext* context, const CreateParameters& parameters,
                                             const ResolvedPaths& paths, const WalkResult& found, ULONG* information);
// STATUS_REPARSE, with the file object's name replaced. The walk has ended at a link.
[[nodiscard]] NTSTATUS GvHandleReparsePoint(IrpContext* context, const CreateParameters& parameters,
                                            const ResolvedPaths& paths);

// The rest is under the object's lock, exclusive. Files only.
[[nodiscard]] NTSTATUS GvOverwriteExistingFcb(IrpContext* context, const CreateParameters& parameters, Fcb* fcb);
// Success if the handle in hand will do, or has been replaced by one that holds all that the plugin allows.
[[nodiscard]] NTSTATUS GvReopenPluginFdIfRequired(IrpContext* context, Fcb* fcb, ACCESS_MASK desired);
// Checks the open against the object's share record and enters it there; the first open starts the record. function is
// whose step it is.
[[nodiscard]] NTSTATUS GvJoinShareAccess(const char* function, const CreateParameters& parameters, Fcb* fcb);
// GvInitFileObj for an open that stands in the share record: a failure takes it out again.
[[nodiscard]] NTSTATUS GvInitSharedFileObj(const char* function, PFILE_OBJECT fileObject, Fcb* fcb, bool deleteOnClose);
