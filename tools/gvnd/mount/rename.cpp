// Renaming. NT never replaces a directory, a read-only file or an open one, and never moves a directory while something
// below it is open; Linux does all of that. So what is in the way is cleared first, and files below a directory that
// moves are closed and opened again. Nodes::Namespace, held exclusively, keeps the steps from being seen apart by
// anyone on the mount.
#include "gvnd/mount/bridge.h"

#include <cerrno>

#include <linux/fs.h>

#include "gvnd/mount/errors.h"
#include "gvnd/mount/files.h"

namespace tool::mount {

namespace {

// Files that are closed while their directory moves.
class Suspended {
public:
    explicit Suspended(std::vector<OpenFile*> files) : files_(std::move(files))
    {
        for (OpenFile* const file : files_) file->Suspend();
    }
    // A file that does not open again answers with its status from now on.
    void Resume(const Nodes& nodes)
    {
        for (OpenFile* const file : files_) file->Resume(nodes.PathOf(file->Owner()));
        files_.clear();
    }

private:
    std::vector<OpenFile*> files_;
};

} // namespace

// Leaves at the target nothing, or a file that the rename itself replaces.
int Bridge::ClearTheWay(const Place& target, const Facts& source, bool mayReplace, bool* replaces)
{
    *replaces = false;
    Facts there;
    const NTSTATUS status = DescribePath(links_, target.Path, &there);
    Node* const node = nodes_.FindChild(target.Parent, target.Name);
    if (status == STATUS_OBJECT_NAME_NOT_FOUND) {
        if (node) nodes_.Remove(node); // it went without the kernel's knowledge
        return 0;
    }
    if (!NT_SUCCESS(status)) return ErrorOf(status);
    if (!mayReplace) return EEXIST;
    if (there.IsDirectory() != source.IsDirectory()) return there.IsDirectory() ? EISDIR : ENOTDIR;

    if (node && !node->Files.empty()) return Hide(node, target.Path);
    if (there.IsDirectory() || there.IsLink() || source.IsLink()) {
        const ULONG type = there.IsDirectory() ? FILE_DIRECTORY_FILE : FILE_NON_DIRECTORY_FILE;
        if (const int error = RemoveName(target, type)) return error;
    } else {
        if (there.IsReadOnly() && !NT_SUCCESS(ClearReadOnly(target.Path))) return EACCES;
        *replaces = true;
    }
    if (node) nodes_.Remove(node);
    return 0;
}

int Bridge::MoveObject(const Place& from, const Place& to, const Facts& facts, bool replace)
{
    Node* const node = nodes_.FindChild(from.Parent, from.Name);
    if (facts.IsLink()) {
        const NTSTATUS status = links_.Rename(from.Path, to.Path);
        if (NT_SUCCESS(status) && node) nodes_.Move(node, to.Parent, to.Name);
        return ErrorOf(status);
    }
    Suspended below(node && facts.IsDirectory() ? nodes_.FilesAt(node) : std::vector<OpenFile*>());
    NTSTATUS status;
    {
        Handle handle;
        status = Open(from.Path, {.Access = DELETE}, &handle);
        if (NT_SUCCESS(status)) status = mount::Rename(handle.Get(), to.Path, replace);
    }
    if (NT_SUCCESS(status) && node) nodes_.Move(node, to.Parent, to.Name);
    below.Resume(nodes_);
    return ErrorOf(status);
}

int Bridge::Rename(fuse_req_t request, fuse_ino_t parent, const char* name, fuse_ino_t newParent, const char* newName,
                   unsigned flags)
{
    if (flags & ~static_cast<unsigned>(RENAME_NOREPLACE)) return EINVAL; // nothing exchanges two names in one step
    const std::unique_lock lock(nodes_.Namespace);
    Place from, to;
    if (const int error = FindPlace(parent, name, &from)) return error;
    if (const int error = FindPlace(newParent, newName, &to)) return error;
    if (nodes_.IsHiddenName(to.Parent, to.Name)) return EACCES;
    Facts facts;
    if (const NTSTATUS status = DescribePath(links_, from.Path, &facts); !NT_SUCCESS(status)) return ErrorOf(status);

    const UNICODE_STRING oldPath = Counted(from.Path), newPath = Counted(to.Path);
    const bool onlyCase = RtlEqualUnicodeString(&oldPath, &newPath, TRUE);
    bool replaces = false;
    if (!onlyCase) {
        if (const int error = ClearTheWay(to, facts, !(flags & RENAME_NOREPLACE), &replaces)) return error;
    }
    if (const int error = MoveObject(from, to, facts, replaces)) return error;
    fuse_reply_err(request, 0);
    return 0;
}

} // namespace tool::mount
