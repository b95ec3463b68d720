// The walk from the root, one O(log n) step for each component. Relies on MemFs.TreeLock, held by the caller but for
// PathReference.

#include "path.h"

#include "directory.h"
#include "locks.h"
#include "names.h"

namespace memfs {
namespace {

UNICODE_STRING Part(const UNICODE_STRING& text, ULONG first, ULONG last)
{
    const USHORT bytes = static_cast<USHORT>((last - first) * sizeof(WCHAR));
    return {bytes, bytes, text.Buffer + first};
}

// Takes the first component off rest, which begins behind a backslash.
UNICODE_STRING NextComponent(UNICODE_STRING* rest)
{
    const ULONG characters = rest->Length / sizeof(WCHAR);
    ULONG end = 0;
    while (end < characters && rest->Buffer[end] != '\\') ++end;
    const UNICODE_STRING component = Part(*rest, 0, end);
    *rest = Part(*rest, end < characters ? end + 1 : end, characters);
    return component;
}

bool BeginsAtRoot(const UNICODE_STRING& path) { return path.Length >= sizeof(WCHAR) && path.Buffer[0] == '\\'; }

bool EndsInBackslash(const UNICODE_STRING& path) { return path.Buffer[path.Length / sizeof(WCHAR) - 1] == '\\'; }

} // namespace

NTSTATUS PathSplit(const UNICODE_STRING& path, SplitPath* split)
{
    if (!BeginsAtRoot(path)) return STATUS_OBJECT_PATH_SYNTAX_BAD;
    const ULONG characters = path.Length / sizeof(WCHAR);
    ULONG leaf = characters;
    while (path.Buffer[leaf - 1] != '\\') --leaf;
    split->Directory = Part(path, 0, leaf == 1 ? 1 : leaf - 1);
    split->Leaf = Part(path, leaf, characters);
    if (characters == 1 || IsLegalName(split->Leaf)) return STATUS_SUCCESS;
    return STATUS_OBJECT_NAME_INVALID;
}

NTSTATUS PathFind(MemFs* volume, const UNICODE_STRING& path, Node** node)
{
    if (!BeginsAtRoot(path)) return STATUS_OBJECT_PATH_SYNTAX_BAD;
    Node* at = volume->Root;
    UNICODE_STRING rest = Part(path, 1, path.Length / sizeof(WCHAR));
    if (rest.Length != 0 && EndsInBackslash(rest)) return STATUS_OBJECT_NAME_INVALID;
    while (rest.Length != 0) {
        if (at->Kind != NodeKind::Directory) return STATUS_OBJECT_PATH_NOT_FOUND;
        const UNICODE_STRING component = NextComponent(&rest);
        if (!IsLegalName(component)) return STATUS_OBJECT_NAME_INVALID;
        at = DirectoryFind(at, component);
        if (!at) return rest.Length == 0 ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_OBJECT_PATH_NOT_FOUND;
    }
    *node = at;
    return STATUS_SUCCESS;
}

NTSTATUS PathFindDirectory(MemFs* volume, const UNICODE_STRING& path, Node** directory)
{
    Node* node;
    const NTSTATUS status = PathFind(volume, path, &node);
    if (status == STATUS_OBJECT_NAME_NOT_FOUND) return STATUS_OBJECT_PATH_NOT_FOUND;
    if (!NT_SUCCESS(status)) return status;
    if (node->Kind != NodeKind::Directory) return STATUS_OBJECT_PATH_NOT_FOUND;
    *directory = node;
    return STATUS_SUCCESS;
}

NTSTATUS PathReference(MemFs* volume, const UNICODE_STRING& path, Node** node)
{
    SharedLock lock(volume->TreeLock);
    Node* found;
    if (const NTSTATUS status = PathFind(volume, path, &found); !NT_SUCCESS(status)) return status;
    NodeReference(found);
    *node = found;
    return STATUS_SUCCESS;
}

} // namespace memfs
