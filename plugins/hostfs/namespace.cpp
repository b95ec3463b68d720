// Rename, Delete, ReadLink, and making a link. Relies on no lock: each change is one atomic call of the Linux machine,
// and where a name is exchanged between the look and the call, that call fails or hits what now bears the name in the
// same directory.
#include "operations.h"

#include "errors.h"
#include "links.h"
#include "records.h"
#include "volume.h"

#include <climits>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

namespace hostfs {
namespace {

NTSTATUS LocateExisting(const Volume& volume, const Components& path, Place* place, Facts* facts)
{
    NTSTATUS status = volume.Root().Locate(path, place);
    if (NT_SUCCESS(status) && !place->Exists) status = STATUS_OBJECT_NAME_NOT_FOUND;
    if (NT_SUCCESS(status)) status = DescribeEntry(place->Parent.Get(), place->Leaf, facts);
    if (NT_SUCCESS(status) && facts->Kind == Kind::Special) status = STATUS_ACCESS_DENIED;
    return status;
}

bool IsSameObject(int directoryA, const std::string& a, int directoryB, const std::string& b)
{
    struct stat first = {};
    struct stat second = {};
    const auto look = [](int directory, const std::string& name, struct stat* info) {
        return fstatat(directory, name.c_str(), info, name.empty() ? AT_EMPTY_PATH : AT_SYMLINK_NOFOLLOW) == 0;
    };
    return look(directoryA, a, &first) && look(directoryB, b, &second) && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

// Fails with EEXIST rather than replace. Where the file system cannot promise that in one step, it is two.
int RenameWithoutReplacing(int from, const char* name, int to, const char* newName)
{
    if (renameat2(from, name, to, newName, RENAME_NOREPLACE) == 0) return 0;
    if (errno != EINVAL && errno != ENOSYS) return errno;
    struct stat info = {};
    if (fstatat(to, newName, &info, AT_SYMLINK_NOFOLLOW) == 0) return EEXIST;
    return renameat(from, name, to, newName) == 0 ? 0 : errno;
}

NTSTATUS Move(const Place& from, const Place& to)
{
    const bool sameDirectory = IsSameObject(from.Parent.Get(), "", to.Parent.Get(), "");
    const bool itself = to.Exists && sameDirectory && to.Leaf == from.Leaf;
    if (to.Exists && !itself) return STATUS_OBJECT_NAME_COLLISION;
    if (itself && to.Given == from.Leaf) return STATUS_SUCCESS;

    const int error = RenameWithoutReplacing(from.Parent.Get(), from.Leaf.c_str(), to.Parent.Get(), to.Given.c_str());
    if (error == 0) return STATUS_SUCCESS;
    // On a file system that ignores case itself, the new spelling is there already: it is the old one.
    if (error == EEXIST && itself && IsSameObject(from.Parent.Get(), from.Leaf, to.Parent.Get(), to.Given)) {
        const int result = renameat(from.Parent.Get(), from.Leaf.c_str(), to.Parent.Get(), to.Given.c_str());
        return result == 0 ? STATUS_SUCCESS : LastError();
    }
    return StatusOf(error);
}

NTSTATUS RenamePath(const Volume& volume, PCUNICODE_STRING from, PCUNICODE_STRING to)
{
    Components source;
    Components target;
    NTSTATUS status = volume.CheckWritable();
    if (NT_SUCCESS(status)) status = ParsePath(from, &source);
    if (NT_SUCCESS(status)) status = ParsePath(to, &target);

    Place sourcePlace;
    Place targetPlace;
    Facts facts;
    if (NT_SUCCESS(status)) status = LocateExisting(volume, source, &sourcePlace, &facts);
    if (NT_SUCCESS(status)) status = volume.Root().Locate(target, &targetPlace);
    return NT_SUCCESS(status) ? Move(sourcePlace, targetPlace) : status;
}

NTSTATUS DeletePath(const Volume& volume, PCUNICODE_STRING path)
{
    Components components;
    NTSTATUS status = volume.CheckWritable();
    if (NT_SUCCESS(status)) status = ParsePath(path, &components);
    Place place;
    Facts facts;
    if (NT_SUCCESS(status)) status = LocateExisting(volume, components, &place, &facts);
    if (!NT_SUCCESS(status)) return status;
    if (facts.Info.FileAttributes & FILE_ATTRIBUTE_READONLY) return STATUS_CANNOT_DELETE;
    const int flags = facts.Kind == Kind::Directory ? AT_REMOVEDIR : 0;
    return unlinkat(place.Parent.Get(), place.Leaf.c_str(), flags) == 0 ? STATUS_SUCCESS : LastError();
}

NTSTATUS ReadTarget(int link, std::string* target)
{
    target->resize(PATH_MAX);
    const ssize_t length = readlinkat(link, "", target->data(), target->size());
    if (length < 0) return LastError();
    target->resize(static_cast<size_t>(length));
    return STATUS_SUCCESS;
}

NTSTATUS ReadLinkPath(const Volume& volume, PCUNICODE_STRING path, PUNICODE_STRING* result)
{
    Components components;
    if (const NTSTATUS status = ParsePath(path, &components); !NT_SUCCESS(status)) return status;
    UniqueFd link;
    if (const NTSTATUS status = volume.Root().Resolve(components, &link); !NT_SUCCESS(status)) return status;
    struct stat info = {};
    if (fstat(link.Get(), &info) != 0) return LastError();
    if (KindOf(info.st_mode) != Kind::Link) return STATUS_OBJECT_TYPE_MISMATCH;

    std::string target;
    NtText text;
    components.pop_back(); // the root is a directory, so a link has a name
    NTSTATUS status = ReadTarget(link.Get(), &target);
    if (NT_SUCCESS(status)) status = TargetFromRoot(target, components, volume.Root().RootPaths(), &text);
    return NT_SUCCESS(status) ? MakeString(text, result) : status;
}

} // namespace

NTSTATUS MakeLink(const Volume& volume, PCUNICODE_STRING path, PCUNICODE_STRING target)
{
    Components link;
    Components leadsTo;
    NTSTATUS status = volume.CheckWritable();
    if (NT_SUCCESS(status)) status = ParsePath(path, &link);
    if (NT_SUCCESS(status)) status = ParsePath(target, &leadsTo);

    Place place;
    if (NT_SUCCESS(status)) status = volume.Root().Locate(link, &place);
    if (NT_SUCCESS(status) && place.Exists) status = STATUS_OBJECT_NAME_COLLISION;
    if (!NT_SUCCESS(status)) return status;
    link.pop_back();
    const std::string text = LinkText(link, leadsTo);
    return symlinkat(text.c_str(), place.Parent.Get(), place.Given.c_str()) == 0 ? STATUS_SUCCESS : LastError();
}

NTSTATUS NTAPI Rename(void* context, PKEVENT, PCUNICODE_STRING from, PCUNICODE_STRING to)
{
    return Contained([&] { return RenamePath(Volume::From(context), from, to); });
}

NTSTATUS NTAPI Delete(void* context, PKEVENT, PCUNICODE_STRING path)
{
    return Contained([&] { return DeletePath(Volume::From(context), path); });
}

NTSTATUS NTAPI ReadLink(void* context, PKEVENT, PCUNICODE_STRING path, PUNICODE_STRING* target, PUNICODE_STRING*)
{
    return Contained([&] { return ReadLinkPath(Volume::From(context), path, target); });
}

} // namespace hostfs
