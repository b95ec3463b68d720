// Lookup, Open, OpenDir, Create, CreateDir, Close. Relies on no lock: that a name stays what it was between two steps
// is never assumed, everything after the first step goes through the object found.
#include "operations.h"

#include "errors.h"
#include "records.h"
#include "resolve.h"
#include "volume.h"

#include <fcntl.h>

namespace posixfs {
namespace {

constexpr PluginAccessMask kReadOnlyAccess = GVND_ACCESS_READ | GVND_ACCESS_EXECUTE;
constexpr PluginAccessMask kContentAccess = GVND_ACCESS_READ | GVND_ACCESS_WRITE | GVND_ACCESS_EXECUTE;

NTSTATUS ResolveAndDescribe(const Volume& volume, PCUNICODE_STRING path, NodeRef* node, Facts* facts)
{
    Components components;
    NTSTATUS status = ParsePath(path, &components);
    if (NT_SUCCESS(status)) status = Resolve(volume.Files(), components, node);
    if (NT_SUCCESS(status)) status = Describe(**node, facts);
    if (NT_SUCCESS(status) && facts->Kind == Kind::Special) status = STATUS_ACCESS_DENIED;
    return status;
}

NTSTATUS LookupPath(const Volume& volume, PCUNICODE_STRING path, PluginFileInfo** info, PluginAccessMask* maxAccess)
{
    NodeRef node;
    Facts facts;
    if (const NTSTATUS status = ResolveAndDescribe(volume, path, &node, &facts); !NT_SUCCESS(status)) return status;
    *maxAccess = AccessOf(*node, facts) & (volume.ReadOnly() ? kReadOnlyAccess : GVND_ACCESS_ALL);
    return MakeInfo(volume, facts, info);
}

int OpenFlags(PluginAccessMask wanted)
{
    if (!(wanted & GVND_ACCESS_WRITE)) return O_RDONLY;
    return wanted & (GVND_ACCESS_READ | GVND_ACCESS_EXECUTE) ? O_RDWR : O_WRONLY;
}

bool NeedsContents(Kind kind, PluginAccessMask wanted)
{
    if (kind == Kind::Link) return false;
    return (wanted & (kind == Kind::Directory ? GVND_ACCESS_READ : kContentAccess)) != 0;
}

NTSTATUS OpenContents(Kind kind, PluginAccessMask wanted, Node& node)
{
    if (!NeedsContents(kind, wanted)) return STATUS_SUCCESS;
    const int error = node.OpenContents(kind == Kind::Directory ? O_RDONLY : OpenFlags(wanted));
    return error == 0 ? STATUS_SUCCESS : StatusOf(error);
}

PluginFd AddObject(Volume& volume, NodeRef node, const Facts& facts, PluginAccessMask access)
{
    auto object = std::make_shared<OpenObject>();
    object->At = std::move(node);
    object->Kind = facts.Kind;
    object->Access = access;
    object->HasContents = NeedsContents(facts.Kind, access);
    object->Device = facts.Device;
    object->Inode = facts.Inode;
    return volume.Add(std::move(object));
}

// A link can be opened for what is known about it, so that a rename finds out what it would replace.
NTSTATUS CheckKind(Kind kind, Kind wantedKind, PluginAccessMask wanted)
{
    if (kind == wantedKind) return STATUS_SUCCESS;
    if (wantedKind == Kind::Directory) return STATUS_NOT_A_DIRECTORY;
    if (kind == Kind::Directory) return STATUS_FILE_IS_A_DIRECTORY;
    return wanted & ~GVND_ACCESS_READ ? STATUS_ACCESS_DENIED : STATUS_SUCCESS;
}

NTSTATUS OpenPath(Volume& volume, PCUNICODE_STRING path, Kind kind, PluginAccessMask wanted, PluginFd* fd)
{
    constexpr PluginAccessMask kChanges = GVND_ACCESS_WRITE | GVND_ACCESS_WRITE_ATTRIBUTES;
    if (volume.ReadOnly() && (wanted & kChanges)) return STATUS_MEDIA_WRITE_PROTECTED;
    NodeRef opened;
    Facts facts;
    NTSTATUS status = ResolveAndDescribe(volume, path, &opened, &facts);
    if (NT_SUCCESS(status)) status = CheckKind(facts.Kind, kind, wanted);
    if (NT_SUCCESS(status)) status = OpenContents(facts.Kind, wanted, *opened);
    if (NT_SUCCESS(status)) *fd = AddObject(volume, std::move(opened), facts, wanted);
    return status;
}

NTSTATUS CreateAt(Volume& volume, PCUNICODE_STRING path, int (Node::*make)(const std::string&, NodeRef*), PluginFd* fd)
{
    if (const NTSTATUS status = volume.CheckWritable(); !NT_SUCCESS(status)) return status;
    Components components;
    if (const NTSTATUS status = ParsePath(path, &components); !NT_SUCCESS(status)) return status;
    if (components.empty()) return STATUS_OBJECT_NAME_COLLISION; // the root is always there

    Place place;
    if (const NTSTATUS status = Locate(volume.Files(), components, &place); !NT_SUCCESS(status)) return status;
    // Linux would make a second file that differs in case alone.
    if (place.Exists) return STATUS_OBJECT_NAME_COLLISION;

    NodeRef made;
    if (const int error = ((*place.Parent).*make)(place.Given, &made); error != 0) return StatusOf(error);
    Facts facts;
    if (const NTSTATUS status = Describe(*made, &facts); !NT_SUCCESS(status)) return status;
    // The first write would move it otherwise.
    if (!facts.KeepsBirth) (void)SetTimes(*made, facts.Info.CreationTime, 0, 0);
    *fd = AddObject(volume, std::move(made), facts, GVND_ACCESS_ALL);
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS NTAPI Lookup(void* context, PKEVENT, PCUNICODE_STRING path, PluginFileInfo** info, PluginAccessMask* maxAccess)
{
    return Contained([&] { return LookupPath(Volume::From(context), path, info, maxAccess); });
}

NTSTATUS NTAPI Open(void* context, PKEVENT, PCUNICODE_STRING path, PluginAccessMask wanted, PluginFd* fd)
{
    return Contained([&] { return OpenPath(Volume::From(context), path, Kind::File, wanted, fd); });
}

NTSTATUS NTAPI OpenDir(void* context, PKEVENT, PCUNICODE_STRING path, PluginAccessMask wanted, PluginFd* fd)
{
    return Contained([&] { return OpenPath(Volume::From(context), path, Kind::Directory, wanted, fd); });
}

NTSTATUS NTAPI Create(void* context, PKEVENT, PCUNICODE_STRING path, PluginFd* fd)
{
    return Contained([&] { return CreateAt(Volume::From(context), path, &Node::CreateFile, fd); });
}

NTSTATUS NTAPI CreateDir(void* context, PKEVENT, PCUNICODE_STRING path, PluginFd* fd)
{
    return Contained([&] { return CreateAt(Volume::From(context), path, &Node::CreateDirectory, fd); });
}

NTSTATUS NTAPI Close(void* context, PKEVENT, PluginFd fd)
{
    return Volume::From(context).Remove(fd) ? STATUS_SUCCESS : STATUS_INVALID_HANDLE;
}

} // namespace posixfs
