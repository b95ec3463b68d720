// Rename, Delete, ReadLink, and making a link. Relies on no lock: each change is one call of the store,
// and where a name is exchanged between the look and the call, that call fails or hits what now bears the name in the
// same directory.
#include "operations.h"

#include "errors.h"
#include "links.h"
#include "records.h"
#include "resolve.h"
#include "volume.h"

namespace posixfs {
namespace {

NTSTATUS LocateExisting(const Volume& volume, const Components& path, Place* place, Facts* facts)
{
    NTSTATUS status = Locate(volume.Files(), path, place);
    if (NT_SUCCESS(status) && !place->Exists) status = STATUS_OBJECT_NAME_NOT_FOUND;
    if (NT_SUCCESS(status)) status = DescribeEntry(*place->Parent, place->Leaf, facts);
    if (NT_SUCCESS(status) && facts->Kind == Kind::Special) status = STATUS_ACCESS_DENIED;
    return status;
}

bool IsSame(const NodeStat& a, const NodeStat& b) { return a.Device == b.Device && a.Inode == b.Inode; }

NTSTATUS Move(const Place& from, const Place& to)
{
    NodeStat source;
    NodeStat target;
    if (const int error = from.Parent->Stat(&source); error != 0) return StatusOf(error);
    if (const int error = to.Parent->Stat(&target); error != 0) return StatusOf(error);
    const bool sameDirectory = IsSame(source, target);
    const bool itself = to.Exists && sameDirectory && to.Leaf == from.Leaf;
    if (to.Exists && !itself) return STATUS_OBJECT_NAME_COLLISION;
    if (itself && to.Given == from.Leaf) return STATUS_SUCCESS;

    const int error = from.Parent->Rename(from.Leaf, *to.Parent, to.Given, false);
    if (error == 0) return STATUS_SUCCESS;
    // On a file system that ignores case itself, the new spelling is there already: it is the old one.
    if (error == EEXIST && itself && StatChild(*from.Parent, from.Leaf, &source) == 0 &&
        StatChild(*to.Parent, to.Given, &target) == 0 && IsSame(source, target)) {
        const int respelled = from.Parent->Rename(from.Leaf, *to.Parent, to.Given, true);
        return respelled == 0 ? STATUS_SUCCESS : StatusOf(respelled);
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
    if (NT_SUCCESS(status)) status = Locate(volume.Files(), target, &targetPlace);
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
    const int error = place.Parent->Remove(place.Leaf, facts.Kind == Kind::Directory);
    return error == 0 ? STATUS_SUCCESS : StatusOf(error);
}

NTSTATUS ReadLinkPath(const Volume& volume, PCUNICODE_STRING path, PUNICODE_STRING* result)
{
    Components components;
    if (const NTSTATUS status = ParsePath(path, &components); !NT_SUCCESS(status)) return status;
    NodeRef link;
    if (const NTSTATUS status = Resolve(volume.Files(), components, &link); !NT_SUCCESS(status)) return status;
    NodeStat stat;
    if (const int error = link->Stat(&stat); error != 0) return StatusOf(error);
    if (KindOf(stat.Mode) != Kind::Link) return STATUS_OBJECT_TYPE_MISMATCH;

    std::string target;
    NtText text;
    components.pop_back(); // the root is a directory, so a link has a name
    if (const int error = link->ReadLink(&target); error != 0) return StatusOf(error);
    const NTSTATUS status = TargetFromRoot(target, components, volume.Files().RootPaths(), &text);
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
    if (NT_SUCCESS(status)) status = Locate(volume.Files(), link, &place);
    if (NT_SUCCESS(status) && place.Exists) status = STATUS_OBJECT_NAME_COLLISION;
    if (!NT_SUCCESS(status)) return status;
    link.pop_back();
    const std::string text = LinkText(link, leadsTo);
    const int error = place.Parent->CreateLink(place.Given, text);
    return error == 0 ? STATUS_SUCCESS : StatusOf(error);
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

} // namespace posixfs
