// Finding, making and removing names.
#include "gvnd/mount/bridge.h"

#include <cerrno>

#include <posixfs/names.h>

#include "gvnd/eas.h"
#include "gvnd/mount/errors.h"
#include "gvnd/mount/files.h"

namespace tool::mount {

namespace {

constexpr size_t kMostCharacters = 255; // of a name, in NT

// A node that an operation is about to give back to the kernel lives on for the time of this: the kernel's own count
// cannot fall to zero before it has the answer.
using Shared = std::shared_lock<std::shared_mutex>;
using Exclusive = std::unique_lock<std::shared_mutex>;

} // namespace

Bridge::Bridge(Session& session, const BridgeOptions& options, std::string mountPoint)
    : session_(session), options_(options), mountPoint_(std::move(mountPoint)), links_(session)
{}

int Bridge::FindPath(fuse_ino_t id, NtName* path)
{
    const Node* const node = nodes_.Find(id);
    if (!node) return ESTALE;
    *path = nodes_.PathOf(node);
    return path->empty() ? ESTALE : 0;
}

int Bridge::FindPlace(fuse_ino_t parent, const char* name, Place* place)
{
    place->Name = posixfs::ToNtName(name);
    if (place->Name.size() > kMostCharacters) return ENAMETOOLONG;
    NtName directory;
    if (const int error = FindPath(parent, &directory)) return error;
    place->Parent = nodes_.Find(parent);
    place->Path = Nodes::Join(directory, place->Name);
    return 0;
}

fuse_entry_param Bridge::EntryOf(const Place& place, const Facts& facts)
{
    const Node* const node = nodes_.Remember(place.Parent, place.Name);
    fuse_entry_param entry = {};
    entry.ino = node->Id;
    entry.attr = StatOf(facts, node->Id);
    entry.attr_timeout = options_.Timeout;
    // By another spelling the kernel would not notice that the name has gone.
    entry.entry_timeout = node->Name == place.Name ? options_.Timeout : 0;
    return entry;
}

int Bridge::ReplyEntry(fuse_req_t request, const Place& place, const Facts& facts)
{
    const fuse_entry_param entry = EntryOf(place, facts);
    // The kernel has not heard of the lookup if the program behind the request is gone.
    if (fuse_reply_entry(request, &entry) == -ENOENT) nodes_.Forget(entry.ino, 1);
    return 0;
}

int Bridge::Lookup(fuse_req_t request, fuse_ino_t parent, const char* name)
{
    const Shared lock(nodes_.Namespace);
    Place place;
    if (const int error = FindPlace(parent, name, &place)) return error;
    if (nodes_.IsHiddenName(place.Parent, place.Name)) return ENOENT;
    Facts facts;
    if (const NTSTATUS status = DescribePath(links_, place.Path, &facts); !NT_SUCCESS(status)) return ErrorOf(status);
    return ReplyEntry(request, place, facts);
}

// The mode goes with the creation, so that nobody can see the object without it. A plugin that keeps no extended
// attributes refuses a creation with some; then the object is made without.
int Bridge::MakeObject(fuse_req_t request, const Place& place, mode_t mode, ACCESS_MASK access, ULONG options,
                       ULONG disposition, Handle* handle, Facts* facts)
{
    if (nodes_.IsHiddenName(place.Parent, place.Name)) return EACCES;
    const bool isDirectory = options & FILE_DIRECTORY_FILE;
    const bool readOnly = !isDirectory && !(mode & 0222);
    const ULONG attributes = readOnly ? FILE_ATTRIBUTE_READONLY : FILE_ATTRIBUTE_NORMAL;
    const fuse_ctx* const caller = fuse_req_ctx(request);
    const UnixFacts wanted = {.Mode = mode & 07777, .Uid = caller->uid, .Gid = caller->gid};
    const ULONG kind = (isDirectory ? FILE_ATTRIBUTE_DIRECTORY : 0) | (readOnly ? FILE_ATTRIBUTE_READONLY : 0);
    const std::string kept = UnixEaValue(wanted, kind);
    const std::string eas = kept.empty() ? std::string() : EaList({{std::string(kUnixEa), kept}});

    OpenRequest open = {.Access = access | kLook,
                        .Options = options,
                        .Disposition = disposition,
                        .Share = isDirectory ? kShareEverything : options_.Share,
                        .Attributes = attributes,
                        .Eas = &eas};
    NTSTATUS status = Open(place.Path, open, handle);
    if (status == STATUS_EAS_NOT_SUPPORTED || status == STATUS_NOT_SUPPORTED) {
        open.Eas = nullptr;
        open.Disposition = disposition == FILE_CREATE ? FILE_OPEN_IF : disposition; // the refused one may stay
        status = Open(place.Path, open, handle);
    }
    if (NT_SUCCESS(status)) status = QueryFacts(handle->Get(), facts);
    return ErrorOf(status);
}

int Bridge::MakeNode(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode)
{
    if (!S_ISREG(mode)) return EPERM; // mknod's word for a file system that has no such objects
    const Shared lock(nodes_.Namespace);
    Place place;
    Handle handle;
    Facts facts;
    if (const int error = FindPlace(parent, name, &place)) return error;
    const int error = MakeObject(request, place, mode, 0, FILE_NON_DIRECTORY_FILE, FILE_CREATE, &handle, &facts);
    if (error) return error;
    handle.Close();
    return ReplyEntry(request, place, facts);
}

int Bridge::MakeDirectory(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode)
{
    const Shared lock(nodes_.Namespace);
    Place place;
    Handle handle;
    Facts facts;
    if (const int error = FindPlace(parent, name, &place)) return error;
    const int error = MakeObject(request, place, mode, 0, FILE_DIRECTORY_FILE, FILE_CREATE, &handle, &facts);
    if (error) return error;
    handle.Close();
    return ReplyEntry(request, place, facts);
}

// NT deletes nothing that is read-only; on Linux the directory decides alone. So the attribute goes first.
int Bridge::RemoveName(const Place& place, ULONG type)
{
    for (bool mayClear = true;; mayClear = false) {
        Handle handle;
        NTSTATUS status = Open(place.Path, {.Access = DELETE, .Options = type}, &handle);
        Facts link;
        if (status == STATUS_ACCESS_DENIED && type == FILE_NON_DIRECTORY_FILE && links_.Describe(place.Path, &link)) {
            return ErrorOf(links_.Delete(place.Path));
        }
        if (NT_SUCCESS(status))
            status = Set(handle.Get(), FileDispositionInformation, FILE_DISPOSITION_INFORMATION{TRUE});
        if (status != STATUS_CANNOT_DELETE || !mayClear) return ErrorOf(status);
        handle.Close();
        if (!NT_SUCCESS(ClearReadOnly(place.Path))) return EPERM;
    }
}

int Bridge::Hide(Node* node, const NtName& path)
{
    Handle handle;
    NTSTATUS status = Open(path, {.Access = DELETE, .Options = FILE_NON_DIRECTORY_FILE}, &handle);
    if (!NT_SUCCESS(status)) return ErrorOf(status);
    const NtName hidden = nodes_.NewHiddenName();
    status = mount::Rename(handle.Get(), Nodes::Join(u"\\", hidden), false);
    if (!NT_SUCCESS(status)) return ErrorOf(status);
    nodes_.Move(node, nodes_.Root(), hidden);
    node->Hidden = true;
    return 0;
}

int Bridge::Unlink(fuse_req_t request, fuse_ino_t parent, const char* name)
{
    const Exclusive lock(nodes_.Namespace);
    Place place;
    if (const int error = FindPlace(parent, name, &place)) return error;
    Node* const node = nodes_.FindChild(place.Parent, place.Name);
    const bool isOpen = node && !node->Files.empty();
    if (const int error = isOpen ? Hide(node, place.Path) : RemoveName(place, FILE_NON_DIRECTORY_FILE)) return error;
    if (node && !isOpen) nodes_.Remove(node);
    fuse_reply_err(request, 0);
    return 0;
}

int Bridge::RemoveDirectory(fuse_req_t request, fuse_ino_t parent, const char* name)
{
    const Exclusive lock(nodes_.Namespace);
    Place place;
    if (const int error = FindPlace(parent, name, &place)) return error;
    if (const int error = RemoveName(place, FILE_DIRECTORY_FILE)) return error;
    if (Node* const node = nodes_.FindChild(place.Parent, place.Name)) nodes_.Remove(node);
    fuse_reply_err(request, 0);
    return 0;
}

} // namespace tool::mount
