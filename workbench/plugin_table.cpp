// Calls of a plugin's table, with what they allocate taken over.
#include "workbench/plugin_table.h"

#include <cstring>

namespace workbench {

namespace {

std::u16string TextAt(const void* address, size_t bytes)
{
    std::u16string text(bytes / sizeof(WCHAR), u'\0');
    std::memcpy(text.data(), address, bytes);
    return text;
}

// What a success owes.
NTSTATUS Owed(NTSTATUS status, bool isThere) { return NT_SUCCESS(status) && !isThere ? STATUS_UNSUCCESSFUL : status; }

FoundObject TakeInfo(NTSTATUS status, PluginFileInfo* info, PluginAccessMask access = 0)
{
    const PoolOwned<PluginFileInfo> owned(info);
    return {Owed(status, info), info ? *info : PluginFileInfo{}, access};
}

NTSTATUS First(NTSTATUS first, NTSTATUS second) { return NT_SUCCESS(first) ? second : first; }

} // namespace

PluginTable::PluginTable(const PluginOps* operations) : operations_(operations)
{
    KeInitializeEvent(&cancel_, SynchronizationEvent, FALSE);
}

FoundObject PluginTable::Lookup(const Text& path) const
{
    PluginFileInfo* info = nullptr;
    PluginAccessMask access = 0;
    const NTSTATUS status = Call(&PluginOps::Lookup, path.Get(), &info, &access);
    return TakeInfo(status, info, access);
}

FoundObject PluginTable::Info(PluginFd fd) const
{
    PluginFileInfo* info = nullptr;
    const NTSTATUS status = Call(&PluginOps::GetInfo, fd, &info);
    return TakeInfo(status, info);
}

PluginHandle PluginTable::Opened(PluginOpenFn PluginOps::*slot, const Text& path, PluginAccessMask wanted) const
{
    PluginFd fd = 0;
    const NTSTATUS status = Call(slot, path.Get(), wanted, &fd);
    return {Owed(status, fd), fd};
}

PluginHandle PluginTable::Created(PluginCreateFn PluginOps::*slot, const Text& path) const
{
    PluginFd fd = 0;
    const NTSTATUS status = Call(slot, path.Get(), &fd);
    return {Owed(status, fd), fd};
}

PluginHandle PluginTable::Open(const Text& path, PluginAccessMask wanted) const
{
    return Opened(&PluginOps::Open, path, wanted);
}

PluginHandle PluginTable::OpenDir(const Text& path, PluginAccessMask wanted) const
{
    return Opened(&PluginOps::OpenDir, path, wanted);
}

PluginHandle PluginTable::Create(const Text& path) const { return Created(&PluginOps::Create, path); }

PluginHandle PluginTable::CreateDir(const Text& path) const { return Created(&PluginOps::CreateDir, path); }

NTSTATUS PluginTable::Write(PluginFd fd, LONGLONG offset, std::string_view data) const
{
    auto length = static_cast<ULONG>(data.size());
    const NTSTATUS status = Call(&PluginOps::Write, fd, offset, &length, static_cast<const void*>(data.data()));
    return Owed(status, length == data.size());
}

std::string PluginTable::Read(PluginFd fd, LONGLONG offset, ULONG length, NTSTATUS* status) const
{
    std::string data(length, '?');
    *status = Call(&PluginOps::Read, fd, offset, &length, static_cast<void*>(data.data()));
    data.resize(NT_SUCCESS(*status) ? length : 0);
    return data;
}

NTSTATUS PluginTable::Resize(PluginFd fd, LONGLONG size, LONGLONG allocation) const
{
    const LONGLONG asked = size;
    const NTSTATUS status = Call(&PluginOps::SetFileSize, fd, &size, static_cast<const LONGLONG*>(&allocation));
    return Owed(status, size == asked);
}

NTSTATUS PluginTable::Rename(const Text& from, const Text& to) const
{
    return Call(&PluginOps::Rename, from.Get(), to.Get());
}

ListedEntry PluginTable::EntryAt(PluginFd directory, ULONG index) const
{
    PluginDirEntry* record = nullptr;
    const NTSTATUS status = Call(&PluginOps::ReadDirEntry, directory, index, &record);
    const PoolOwned<PluginDirEntry> owned(record);
    ListedEntry entry = {Owed(status, record), {}, {}};
    if (record) {
        entry.Name = TextAt(record->FileName, record->FileNameLength);
        entry.Record = *record;
    }
    return entry;
}

std::vector<std::u16string> PluginTable::List(PluginFd directory, NTSTATUS* status) const
{
    std::vector<std::u16string> names;
    for (ULONG index = 0;; ++index) {
        ListedEntry entry = EntryAt(directory, index);
        if (!NT_SUCCESS(entry.Status)) {
            *status = entry.Status == STATUS_NO_MORE_FILES ? STATUS_SUCCESS : entry.Status;
            return names;
        }
        names.push_back(std::move(entry.Name));
    }
}

PoolOwned<PluginVolInfo> PluginTable::VolumeInfo(NTSTATUS* status) const
{
    PluginVolInfo* info = nullptr;
    *status = Call(&PluginOps::GetVolInfo, &info);
    *status = Owed(*status, info);
    return PoolOwned<PluginVolInfo>(info);
}

std::u16string PluginTable::ReadLink(const Text& path, NTSTATUS* status) const
{
    PUNICODE_STRING target = nullptr, other = nullptr;
    *status = Call(&PluginOps::ReadLink, path.Get(), &target, &other);
    *status = Owed(*status, target);
    const PoolOwned<UNICODE_STRING> ownedTarget(target), ownedOther(other);
    return target ? TextAt(target->Buffer, target->Length) : std::u16string();
}

std::vector<std::string> PluginTable::Eas(PluginFd fd, NTSTATUS* status) const
{
    char* names = nullptr;
    ULONG count = 0;
    *status = Call(&PluginOps::ListEa, fd, &names, &count);
    *status = Owed(*status, names || count == 0);
    const PoolOwned<char> owned(names);
    std::vector<std::string> result;
    if (!NT_SUCCESS(*status)) return result;
    for (const char* name = names; result.size() < count; name += result.back().size() + 1) result.emplace_back(name);
    return result;
}

std::optional<std::string> PluginTable::Ea(PluginFd fd, const char* name, NTSTATUS* status) const
{
    void* value = nullptr;
    ULONG length = 0;
    *status = Call(&PluginOps::GetEa, fd, name, &value, &length);
    const PoolOwned<void> owned(value);
    if (NT_SUCCESS(*status)) return std::string(static_cast<const char*>(value), length);
    if (*status == STATUS_NONEXISTENT_EA_ENTRY) *status = STATUS_SUCCESS;
    return std::nullopt;
}

NTSTATUS PluginTable::SetEa(PluginFd fd, const char* name, std::string_view value) const
{
    return Call(&PluginOps::SetEa, fd, name, static_cast<const void*>(value.data()), static_cast<ULONG>(value.size()));
}

NTSTATUS PluginTable::MakeDir(const Text& path) const
{
    const PluginHandle made = CreateDir(path);
    return NT_SUCCESS(made.Status) ? Close(made.Fd) : made.Status;
}

NTSTATUS PluginTable::MakeFile(const Text& path, std::string_view content, const EaValue* ea) const
{
    const auto [status, fd] = Create(path);
    if (!NT_SUCCESS(status)) return status;
    NTSTATUS filled = content.empty() ? STATUS_SUCCESS : Write(fd, 0, content);
    if (ea) filled = First(filled, SetEa(fd, ea->Name, ea->Value));
    return First(filled, Close(fd));
}

NTSTATUS PluginTable::SetAttributes(const Text& path, ULONG attributes) const
{
    const FoundObject found = Lookup(path);
    if (!NT_SUCCESS(found.Status)) return found.Status;
    const bool isDirectory = found.Info.FileAttributes & FILE_ATTRIBUTE_DIRECTORY;
    const auto [status, fd] = isDirectory ? OpenDir(path) : Open(path);
    return NT_SUCCESS(status) ? First(SetAttr(fd, attributes), Close(fd)) : status;
}

} // namespace workbench
