// Directory listings by place: "." and ".." first, except in the root, then the entries in name order. Takes the tree
// lock, shared. The places of later entries move when one is made, deleted or renamed.

#include "ops.h"

#include "directory.h"
#include "locks.h"

namespace memfs {
namespace {

constexpr ULONG kDotEntries = 2;

NTSTATUS AllocateEntry(Node* node, const UNICODE_STRING& name, PluginDirEntry** entry)
{
    PluginDirEntry* const made = Allocate<PluginDirEntry>(PagedPool, sizeof(PluginDirEntry) + name.Length);
    if (!made) return STATUS_INSUFFICIENT_RESOURCES;
    const PluginFileInfo info = NodeInfo(node);
    made->CreationTime = info.CreationTime;
    made->LastAccessTime = info.LastAccessTime;
    made->LastWriteTime = info.LastWriteTime;
    made->ChangeTime = info.ChangeTime;
    made->EndOfFile = info.EndOfFile;
    made->AllocationSize = info.AllocationSize;
    made->FileAttributes = info.FileAttributes;
    made->FileNameLength = name.Length;
    RtlCopyMemory(made->FileName, name.Buffer, name.Length);
    *entry = made;
    return STATUS_SUCCESS;
}

NTSTATUS DotEntry(Node* directory, ULONG index, PluginDirEntry** entry)
{
    WCHAR dots[kDotEntries] = {'.', '.'};
    const USHORT bytes = static_cast<USHORT>((index + 1) * sizeof(WCHAR));
    return AllocateEntry(index == 0 ? directory : directory->Parent, {bytes, bytes, dots}, entry);
}

NTSTATUS EntryAt(Node* directory, ULONG index, PluginDirEntry** entry)
{
    if (directory != directory->Volume->Root) {
        if (!directory->Parent) return STATUS_NO_MORE_FILES; // deleted while it was open
        if (index < kDotEntries) return DotEntry(directory, index, entry);
        index -= kDotEntries;
    }
    Node* const node = DirectoryAt(directory, index);
    return node ? AllocateEntry(node, node->Name, entry) : STATUS_NO_MORE_FILES;
}

} // namespace

NTSTATUS NTAPI ReadDirEntry(void* context, PKEVENT, PluginFd fd, ULONG index, PluginDirEntry** entry)
{
    NodeRef directory;
    *entry = nullptr;
    const NTSTATUS status = HandleResolve(VolumeOf(context)->Handles, fd, directory.Out());
    if (!NT_SUCCESS(status)) return status;
    if (directory->Kind != NodeKind::Directory) return STATUS_NOT_A_DIRECTORY;
    SharedLock lock(VolumeOf(context)->TreeLock);
    return EntryAt(directory.Get(), index, entry);
}

} // namespace memfs
