// Resolution by the calls of a store (resolve.h, node.h). No lock, no state.
#include "resolve.h"

#include "errors.h"

namespace posixfs {
namespace {

// The name in the directory that equals the given one without regard to case, the first in byte order; empty if there
// is none, or if the directory cannot be listed.
std::string FindAnyCase(const Node& directory, const std::string& name)
{
    const NameMatcher matcher(name);
    std::string found;
    const int error = directory.ForEachName([&](const std::string& candidate, unsigned char) {
        if (matcher.Matches(candidate) && (found.empty() || candidate < found)) found = candidate;
    });
    return error == 0 ? found : std::string();
}

int ChildAnyCase(const Node& directory, const std::string& name, NodeRef* child)
{
    const int error = directory.Child(name, child);
    if (error != ENOENT) return error;
    const std::string spelled = FindAnyCase(directory, name);
    return spelled.empty() ? ENOENT : directory.Child(spelled, child);
}

} // namespace

Kind KindOf(mode_t mode)
{
    if (S_ISREG(mode)) return Kind::File;
    if (S_ISDIR(mode)) return Kind::Directory;
    return S_ISLNK(mode) ? Kind::Link : Kind::Special;
}

int Store::Find(const Components& path, NodeRef* node)
{
    NodeRef at;
    int error = 0;
    for (size_t i = 0; error == 0 && i < path.size(); ++i) {
        NodeRef next;
        error = (at ? *at : Root()).Child(path[i], &next);
        at = std::move(next);
    }
    if (error == 0 && !at) error = Root().Child("", &at);
    if (error == 0) *node = std::move(at);
    return error;
}

NTSTATUS Resolve(Store& store, const Components& path, NodeRef* node)
{
    int error = store.Find(path, node);
    if (error == 0) return STATUS_SUCCESS;
    if (error != ENOENT) return StatusOf(error);

    NodeRef at;
    for (size_t i = 0; i < path.size(); ++i) {
        NodeRef next;
        error = ChildAnyCase(at ? *at : store.Root(), path[i], &next);
        if (error == ENOENT && i + 1 < path.size()) return STATUS_OBJECT_PATH_NOT_FOUND;
        if (error != 0) return StatusOf(error);
        at = std::move(next);
    }
    if (!at) return STATUS_OBJECT_NAME_NOT_FOUND; // the root itself
    *node = std::move(at);
    return STATUS_SUCCESS;
}

NTSTATUS Locate(Store& store, const Components& path, Place* place)
{
    if (path.empty()) return STATUS_ACCESS_DENIED;
    const NTSTATUS status = Resolve(store, Components(path.begin(), path.end() - 1), &place->Parent);
    if (!NT_SUCCESS(status)) return status == STATUS_OBJECT_NAME_NOT_FOUND ? STATUS_OBJECT_PATH_NOT_FOUND : status;

    place->Given = place->Leaf = path.back();
    NodeStat stat;
    const int error = StatChild(*place->Parent, place->Leaf, &stat);
    place->Exists = error == 0;
    if (place->Exists) return STATUS_SUCCESS;
    if (error != ENOENT) return StatusOf(error);
    if (std::string spelled = FindAnyCase(*place->Parent, place->Given); !spelled.empty()) {
        place->Leaf = std::move(spelled);
        place->Exists = true;
    }
    return STATUS_SUCCESS;
}

int StatChild(const Node& directory, const std::string& name, NodeStat* stat)
{
    std::unique_ptr<Entry> entry;
    const int error = directory.ChildEntry(name, &entry);
    return error == 0 ? entry->Stat(stat) : error;
}

} // namespace posixfs
