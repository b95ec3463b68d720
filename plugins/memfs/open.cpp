// Finding, opening, making and closing objects. Takes the tree lock, and never with another one. What a handle was
// opened for is not kept: the driver checks each request, and opens objects with less than it later needs of them.

#include "ops.h"

#include "directory.h"
#include "locks.h"
#include "path.h"

namespace memfs {
namespace {

NTSTATUS OpenNode(MemFs* volume, const UNICODE_STRING& path, NodeKind kind, PluginAccessMask wanted, PluginFd* fd)
{
    NodeRef node;
    *fd = 0;
    if (const NTSTATUS status = PathReference(volume, path, node.Out()); !NT_SUCCESS(status)) return status;
    if (const NTSTATUS status = NodeExpect(node.Get(), kind); !NT_SUCCESS(status)) return status;
    if ((wanted & GVND_ACCESS_WRITE) && NodeIsReadOnlyFile(node.Get())) return STATUS_ACCESS_DENIED;
    return HandleOpen(volume->Handles, node.Get(), fd);
}

NTSTATUS Link(MemFs* volume, const UNICODE_STRING& directoryPath, Node* node)
{
    ExclusiveLock lock(volume->TreeLock);
    Node* directory;
    const NTSTATUS status = PathFindDirectory(volume, directoryPath, &directory);
    if (!NT_SUCCESS(status)) return status;
    NodeReference(node);
    if (!DirectoryInsert(directory, node)) {
        NodeRelease(node);
        return STATUS_OBJECT_NAME_COLLISION;
    }
    NodeTouch(directory, Touched::Content);
    return STATUS_SUCCESS;
}

NTSTATUS CreateNode(MemFs* volume, const UNICODE_STRING& path, NodeKind kind, PluginFd* fd)
{
    SplitPath split;
    NodeRef node;
    *fd = 0;
    if (const NTSTATUS status = PathSplit(path, &split); !NT_SUCCESS(status)) return status;
    if (split.Leaf.Length == 0) return STATUS_OBJECT_NAME_COLLISION;
    if (const NTSTATUS status = NodeCreate(volume, split.Leaf, kind, node.Out()); !NT_SUCCESS(status)) return status;
    // The handle comes first: it needs memory, and once the object is in its directory nothing may fail.
    PluginFd made;
    if (const NTSTATUS status = HandleOpen(volume->Handles, node.Get(), &made); !NT_SUCCESS(status)) return status;
    const NTSTATUS status = Link(volume, split.Directory, node.Get());
    if (NT_SUCCESS(status)) {
        *fd = made;
    } else {
        (void)HandleClose(volume->Handles, made);
    }
    return status;
}

} // namespace

NTSTATUS NTAPI AccessCheck(void* context, PKEVENT, PCUNICODE_STRING path, ULONG, PluginAccessMask wanted, void**)
{
    if (path->Length == 0) return STATUS_SUCCESS; // the volume itself
    NodeRef node;
    // A name that is free may be taken.
    if (!NT_SUCCESS(PathReference(VolumeOf(context), *path, node.Out()))) return STATUS_SUCCESS;
    return (wanted & GVND_ACCESS_WRITE) && NodeIsReadOnlyFile(node.Get()) ? STATUS_ACCESS_DENIED : STATUS_SUCCESS;
}

NTSTATUS NTAPI Lookup(void* context, PKEVENT, PCUNICODE_STRING path, PluginFileInfo** info, PluginAccessMask* maxAccess)
{
    NodeRef node;
    *info = nullptr;
    if (const NTSTATUS status = PathReference(VolumeOf(context), *path, node.Out()); !NT_SUCCESS(status)) return status;
    if (const NTSTATUS status = AllocateInfo(node.Get(), info); !NT_SUCCESS(status)) return status;
    const bool mayWrite = node->Kind == NodeKind::Directory || !((*info)->FileAttributes & FILE_ATTRIBUTE_READONLY);
    *maxAccess = mayWrite ? GVND_ACCESS_ALL : GVND_ACCESS_ALL & ~GVND_ACCESS_WRITE;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI Open(void* context, PKEVENT, PCUNICODE_STRING path, PluginAccessMask wanted, PluginFd* fd)
{
    return OpenNode(VolumeOf(context), *path, NodeKind::File, wanted, fd);
}

NTSTATUS NTAPI OpenDir(void* context, PKEVENT, PCUNICODE_STRING path, PluginAccessMask wanted, PluginFd* fd)
{
    return OpenNode(VolumeOf(context), *path, NodeKind::Directory, wanted, fd);
}

NTSTATUS NTAPI Create(void* context, PKEVENT, PCUNICODE_STRING casePreservedPath, PluginFd* fd)
{
    return CreateNode(VolumeOf(context), *casePreservedPath, NodeKind::File, fd);
}

NTSTATUS NTAPI CreateDir(void* context, PKEVENT, PCUNICODE_STRING casePreservedPath, PluginFd* fd)
{
    return CreateNode(VolumeOf(context), *casePreservedPath, NodeKind::Directory, fd);
}

NTSTATUS NTAPI Close(void* context, PKEVENT, PluginFd fd) { return HandleClose(VolumeOf(context)->Handles, fd); }

} // namespace memfs
