// Symbolic links. NT's hold a path from the volume's root, Linux's a text that is read from where the link stands: what
// goes in is resolved by its text alone, and what comes out is the shortest relative way to the same place.
#include "gvnd/mount/bridge.h"

#include <cerrno>

#include <posixfs/links.h>
#include <posixfs/names.h>
#include <nthost/debug.h>

#include "gvnd/mount/errors.h"
#include "gvnd/status.h"

namespace tool::mount {

namespace {

std::string Utf8(const NtName& text)
{
    const UNICODE_STRING counted = Counted(text);
    return nthost::ToUtf8(&counted);
}

// False for names that Linux cannot hold.
bool LinuxNames(const NtName& path, posixfs::Components* names)
{
    const UNICODE_STRING counted = Counted(path);
    return NT_SUCCESS(posixfs::ParsePath(&counted, names));
}

bool LinkText(const NtName& link, const NtName& target, std::string* text)
{
    posixfs::Components directory, names;
    if (!LinuxNames(link, &directory) || directory.empty() || !LinuxNames(target, &names)) return false;
    directory.pop_back();
    *text = posixfs::LinkText(directory, names);
    return true;
}

// A direct call of the plugin, which nothing will cancel.
class DirectCall {
public:
    explicit DirectCall(Session& session) : Table(session.Plugin().Table())
    {
        KeInitializeEvent(&Cancel, SynchronizationEvent, FALSE);
    }
    const PluginOps* const Table;
    KEVENT Cancel;
};

} // namespace

bool Links::Describe(const NtName& path, Facts* facts)
{
    DirectCall call(session_);
    const UNICODE_STRING name = Counted(path);
    PluginFileInfo* info = nullptr;
    PluginAccessMask access = 0;
    if (!call.Table->Lookup) return false;
    const NTSTATUS status = call.Table->Lookup(call.Table->PluginContext, &call.Cancel, &name, &info, &access);
    const bool isLink = NT_SUCCESS(status) && info && info->FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT;
    if (isLink) {
        *facts = {.Attributes = FILE_ATTRIBUTE_REPARSE_POINT,
                  .Creation = info->CreationTime,
                  .LastAccess = info->LastAccessTime,
                  .LastWrite = info->LastWriteTime,
                  .Change = info->ChangeTime,
                  .FileId = info->FileId,
                  .Unix = DefaultUnix(0)};
        NtName target;
        std::string text;
        if (NT_SUCCESS(ReadTarget(path, &target)) && LinkText(path, target, &text)) facts->Size = text.size();
    }
    if (info) ExFreePoolWithTag(info, 0);
    return isLink;
}

NTSTATUS Links::Delete(const NtName& path)
{
    DirectCall call(session_);
    const UNICODE_STRING name = Counted(path);
    if (!call.Table->Delete) return STATUS_NOT_SUPPORTED;
    return call.Table->Delete(call.Table->PluginContext, &call.Cancel, &name);
}

NTSTATUS Links::Rename(const NtName& from, const NtName& to)
{
    DirectCall call(session_);
    const UNICODE_STRING oldName = Counted(from), newName = Counted(to);
    if (!call.Table->Rename) return STATUS_NOT_SUPPORTED;
    return call.Table->Rename(call.Table->PluginContext, &call.Cancel, &oldName, &newName);
}

NTSTATUS Links::ReadTarget(const NtName& path, NtName* target)
{
    DirectCall call(session_);
    const UNICODE_STRING name = Counted(path);
    PUNICODE_STRING leadsTo = nullptr, other = nullptr;
    if (!call.Table->ReadLink) return STATUS_NOT_SUPPORTED;
    NTSTATUS status = call.Table->ReadLink(call.Table->PluginContext, &call.Cancel, &name, &leadsTo, &other);
    if (NT_SUCCESS(status) && !leadsTo) status = STATUS_UNSUCCESSFUL;
    if (NT_SUCCESS(status)) *target = posixfs::TextOf(leadsTo);
    if (leadsTo) ExFreePoolWithTag(leadsTo, 0);
    if (other) ExFreePoolWithTag(other, 0);
    return status;
}

int Bridge::MakeSymlink(fuse_req_t request, const char* target, fuse_ino_t parent, const char* name)
{
    const std::unique_lock lock(nodes_.Namespace);
    Place place;
    if (const int error = FindPlace(parent, name, &place)) return error;
    if (nodes_.IsHiddenName(place.Parent, place.Name)) return EACCES;
    posixfs::Components directory;
    if (!LinuxNames(place.Path, &directory)) return EINVAL;
    directory.pop_back();
    posixfs::NtText leadsTo;
    const NTSTATUS status = posixfs::TargetFromRoot(target, directory, {mountPoint_}, &leadsTo);
    // What leaves the volume cannot be said in NT's form.
    if (!NT_SUCCESS(status)) return status == STATUS_ACCESS_DENIED ? EPERM : ErrorOf(status);
    try {
        session_.MakeLink(Utf8(place.Path), Utf8(leadsTo));
    } catch (const Failure& failure) {
        return ErrorOf(failure.Status());
    }
    Facts facts;
    if (!links_.Describe(place.Path, &facts)) return EIO;
    return ReplyEntry(request, place, facts);
}

int Bridge::ReadSymlink(fuse_req_t request, fuse_ino_t node)
{
    const std::shared_lock lock(nodes_.Namespace);
    NtName path, target;
    std::string text;
    if (const int error = FindPath(node, &path)) return error;
    if (const NTSTATUS status = links_.ReadTarget(path, &target); !NT_SUCCESS(status)) return ErrorOf(status);
    if (!LinkText(path, target, &text)) return EILSEQ;
    fuse_reply_readlink(request, text.c_str());
    return 0;
}

} // namespace tool::mount
