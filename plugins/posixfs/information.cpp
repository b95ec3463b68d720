// ReadDirEntry, GetInfo, SetAttr, SetTime: what is known of an open object. Relies on DirListing's own lock only.
#include "operations.h"

#include "errors.h"
#include "records.h"
#include "volume.h"

namespace posixfs {
namespace {

// Listings of all directories but the root begin with these.
constexpr NtTextView kDots[] = {u".", u".."};

NTSTATUS ReadEntry(Volume& volume, OpenObject& directory, ULONG index, PluginDirEntry** entry)
{
    const Node& node = *directory.At;
    DirListing& listing = volume.ListingOf(directory);
    // A listing that starts over sees what has changed.
    if (index == 0) {
        if (const NTSTATUS status = listing.Refresh(node); !NT_SUCCESS(status)) return status;
    }

    const size_t dots = volume.IsRoot(directory.Device, directory.Inode) ? 0 : std::size(kDots);
    Facts facts;
    if (index < dots) {
        const NTSTATUS status = Describe(node, &facts);
        return NT_SUCCESS(status) ? MakeEntry(facts, kDots[index], entry) : status;
    }
    for (;;) {
        std::string name;
        bool exists = false;
        if (const NTSTATUS status = listing.At(node, index - dots, &name, &exists); !NT_SUCCESS(status)) return status;
        if (!exists) return STATUS_NO_MORE_FILES;

        const NTSTATUS status = DescribeEntry(node, name, &facts);
        const bool gone = status == STATUS_OBJECT_NAME_NOT_FOUND || (NT_SUCCESS(status) && facts.Kind == Kind::Special);
        if (!gone) return NT_SUCCESS(status) ? MakeEntry(facts, ToNtName(name), entry) : status;
        listing.Forget(node, index - dots, name);
    }
}

NTSTATUS ReadEntryOf(Volume& volume, PluginFd fd, ULONG index, PluginDirEntry** entry)
{
    const OpenObjectRef object = volume.Find(fd);
    if (!object) return STATUS_INVALID_HANDLE;
    if (object->Kind != Kind::Directory) return STATUS_INVALID_DEVICE_REQUEST;
    if (!object->HasContents) return STATUS_ACCESS_DENIED;
    return ReadEntry(volume, *object, index, entry);
}

NTSTATUS InfoOf(const Volume& volume, PluginFd fd, PluginFileInfo** info)
{
    const OpenObjectRef object = volume.Find(fd);
    if (!object) return STATUS_INVALID_HANDLE;
    Facts facts;
    const NTSTATUS status = Describe(*object->At, &facts);
    return NT_SUCCESS(status) ? MakeInfo(volume, facts, info) : status;
}

// Runs change on a file or directory that may be changed. The handle's own access does not matter: a read-only file is
// made writable through a handle that cannot write.
template <typename Change>
NTSTATUS ChangeObject(const Volume& volume, PluginFd fd, Change&& change)
{
    if (const NTSTATUS status = volume.CheckWritable(); !NT_SUCCESS(status)) return status;
    const OpenObjectRef object = volume.Find(fd);
    if (!object) return STATUS_INVALID_HANDLE;
    if (object->Kind == Kind::Link) return STATUS_INVALID_DEVICE_REQUEST;
    return change(*object->At);
}

} // namespace

NTSTATUS NTAPI ReadDirEntry(void* context, PKEVENT, PluginFd fd, ULONG index, PluginDirEntry** entry)
{
    return Contained([&] { return ReadEntryOf(Volume::From(context), fd, index, entry); });
}

NTSTATUS NTAPI GetInfo(void* context, PKEVENT, PluginFd fd, PluginFileInfo** info)
{
    return Contained([&] { return InfoOf(Volume::From(context), fd, info); });
}

NTSTATUS NTAPI SetAttr(void* context, PKEVENT, PluginFd fd, ULONG attributes)
{
    return Contained([&] {
        return ChangeObject(Volume::From(context), fd, [&](Node& object) { return SetAttributes(object, attributes); });
    });
}

NTSTATUS NTAPI SetTime(void* context, PKEVENT, PluginFd fd, LONGLONG creation, LONGLONG lastAccess, LONGLONG lastWrite,
                       LONGLONG)
{
    return Contained([&] {
        return ChangeObject(Volume::From(context), fd,
                            [&](Node& object) { return SetTimes(object, creation, lastAccess, lastWrite); });
    });
}

} // namespace posixfs
