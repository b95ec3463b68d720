// Renaming, deleting and normalising names. Takes the tree lock, exclusive; what is deleted while it is open lives on,
// without a name, until the last handle has gone.

#include "ops.h"

#include "directory.h"
#include "locks.h"
#include "names.h"
#include "path.h"

namespace memfs {
namespace {

// Whether the node is the directory or one that leads to it.
bool LeadsTo(const Node* node, const Node* directory)
{
    while (directory && directory != node) directory = directory->Parent;
    return directory != nullptr;
}

void SwapNames(UNICODE_STRING* a, UNICODE_STRING* b)
{
    const UNICODE_STRING kept = *a;
    *a = *b;
    *b = kept;
}

// Gives the node the new name and place. The old name is left in *name, for the caller to free.
NTSTATUS MoveNode(Node* node, Node* directory, UNICODE_STRING* name)
{
    if (LeadsTo(node, directory)) return STATUS_INVALID_PARAMETER;
    Node* const existing = DirectoryFind(directory, *name);
    if (existing && existing != node) return STATUS_OBJECT_NAME_COLLISION;
    Node* const oldDirectory = node->Parent;
    DirectoryRemove(node);
    SwapNames(&node->Name, name);
    (void)DirectoryInsert(directory, node); // the name is free: the lock has been held since it was looked for
    NodeTouch(node, Touched::Attributes);
    NodeTouch(oldDirectory, Touched::Content);
    if (directory != oldDirectory) NodeTouch(directory, Touched::Content);
    return STATUS_SUCCESS;
}

NTSTATUS RenameLocked(MemFs* volume, const UNICODE_STRING& from, const UNICODE_STRING& toDirectory,
                      UNICODE_STRING* name)
{
    ExclusiveLock lock(volume->TreeLock);
    Node* node;
    Node* directory;
    if (const NTSTATUS status = PathFind(volume, from, &node); !NT_SUCCESS(status)) return status;
    if (node == volume->Root) return STATUS_INVALID_PARAMETER;
    if (const NTSTATUS status = PathFindDirectory(volume, toDirectory, &directory); !NT_SUCCESS(status)) return status;
    return MoveNode(node, directory, name);
}

// The directory's reference passes to the caller.
NTSTATUS Unlink(MemFs* volume, const UNICODE_STRING& path, Node** node)
{
    ExclusiveLock lock(volume->TreeLock);
    Node* found;
    if (const NTSTATUS status = PathFind(volume, path, &found); !NT_SUCCESS(status)) return status;
    if (found == volume->Root) return STATUS_CANNOT_DELETE;
    if (found->Children) return STATUS_DIRECTORY_NOT_EMPTY;
    NodeTouch(found->Parent, Touched::Content);
    DirectoryRemove(found);
    *node = found;
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS NTAPI GetNormalizedPath(void*, PKEVENT, PCUNICODE_STRING path, PUNICODE_STRING* normalized)
{
    *normalized = nullptr;
    return ComposeString(*path, normalized);
}

NTSTATUS NTAPI Rename(void* context, PKEVENT, PCUNICODE_STRING from, PCUNICODE_STRING to)
{
    SplitPath split;
    UNICODE_STRING name;
    if (const NTSTATUS status = PathSplit(*to, &split); !NT_SUCCESS(status)) return status;
    if (split.Leaf.Length == 0) return STATUS_OBJECT_NAME_COLLISION;
    if (const NTSTATUS status = CopyName(split.Leaf, &name); !NT_SUCCESS(status)) return status;
    const NTSTATUS status = RenameLocked(VolumeOf(context), *from, split.Directory, &name);
    Free(name.Buffer);
    return status;
}

NTSTATUS NTAPI Delete(void* context, PKEVENT, PCUNICODE_STRING path)
{
    NodeRef node; // the end of its data comes after the lock
    return Unlink(VolumeOf(context), *path, node.Out());
}

} // namespace memfs
