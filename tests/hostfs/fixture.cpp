// The fixture's plumbing: the machine's side with std::filesystem, the volume's side through the table.
#include "fixture.h"

#include <nthost/debug.h>
#include <nthost/host.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace hostfs_tests {
namespace {

std::u16string TextAt(const void* address, size_t bytes)
{
    std::u16string text(bytes / sizeof(WCHAR), u'\0');
    std::memcpy(text.data(), address, bytes);
    return text;
}

void Free(void* block)
{
    if (block) ExFreePoolWithTag(block, 0);
}

Found TakeInfo(NTSTATUS status, PluginFileInfo* info, PluginAccessMask access = 0)
{
    EXPECT_EQ(NT_SUCCESS(status), info != nullptr);
    const Found found = {status, info ? *info : PluginFileInfo{}, access};
    Free(info);
    return found;
}

} // namespace

NtString::NtString(std::u16string_view text)
{
    string_.Length = string_.MaximumLength = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    string_.Buffer = reinterpret_cast<PWCH>(const_cast<char16_t*>(text.data()));
}

std::string Name(NTSTATUS status) { return nthost::StatusName(status); }

Table::Table(const HostFsOptions& options) { EXPECT_STATUS(STATUS_SUCCESS, HostFsCreate(options, &Ops)); }

Found Table::Lookup(std::u16string_view path) const
{
    PluginFileInfo* info = nullptr;
    PluginAccessMask access = 0;
    const NTSTATUS status = Ops->Lookup(Ops->PluginContext, nullptr, NtString(path).Get(), &info, &access);
    return TakeInfo(status, info, access);
}

Opened Table::Open(std::u16string_view path, PluginAccessMask wanted) const
{
    PluginFd fd = 0;
    const NTSTATUS status = Ops->Open(Ops->PluginContext, nullptr, NtString(path).Get(), wanted, &fd);
    return {status, fd};
}

Opened Table::OpenDir(std::u16string_view path, PluginAccessMask wanted) const
{
    PluginFd fd = 0;
    const NTSTATUS status = Ops->OpenDir(Ops->PluginContext, nullptr, NtString(path).Get(), wanted, &fd);
    return {status, fd};
}

Opened Table::Create(std::u16string_view path) const
{
    PluginFd fd = 0;
    const NTSTATUS status = Ops->Create(Ops->PluginContext, nullptr, NtString(path).Get(), &fd);
    return {status, fd};
}

Opened Table::CreateDir(std::u16string_view path) const
{
    PluginFd fd = 0;
    const NTSTATUS status = Ops->CreateDir(Ops->PluginContext, nullptr, NtString(path).Get(), &fd);
    return {status, fd};
}

NTSTATUS Table::Write(PluginFd fd, LONGLONG offset, std::string_view data) const
{
    ULONG length = static_cast<ULONG>(data.size());
    const NTSTATUS status = Ops->Write(Ops->PluginContext, nullptr, fd, offset, &length, data.data());
    EXPECT_EQ(NT_SUCCESS(status) ? data.size() : 0, length);
    return status;
}

std::string Table::Read(PluginFd fd, LONGLONG offset, ULONG length, NTSTATUS* status) const
{
    std::string data(length, '\0');
    *status = Ops->Read(Ops->PluginContext, nullptr, fd, offset, &length, data.data());
    data.resize(NT_SUCCESS(*status) ? length : 0);
    return data;
}

NTSTATUS Table::Resize(PluginFd fd, LONGLONG size, LONGLONG allocation) const
{
    const LONGLONG asked = size;
    const NTSTATUS status = Ops->SetFileSize(Ops->PluginContext, nullptr, fd, &size, &allocation);
    EXPECT_EQ(asked, size);
    return status;
}

Found Table::Info(PluginFd fd) const
{
    PluginFileInfo* info = nullptr;
    const NTSTATUS status = Ops->GetInfo(Ops->PluginContext, nullptr, fd, &info);
    return TakeInfo(status, info);
}

Entry Table::EntryAt(PluginFd fd, ULONG index) const
{
    PluginDirEntry* record = nullptr;
    Entry entry = {Ops->ReadDirEntry(Ops->PluginContext, nullptr, fd, index, &record), {}, {}};
    EXPECT_EQ(NT_SUCCESS(entry.Status), record != nullptr);
    if (record) {
        entry.Name = TextAt(record->FileName, record->FileNameLength);
        entry.Record = *record;
    }
    Free(record);
    return entry;
}

std::vector<std::u16string> Table::List(PluginFd fd) const
{
    std::vector<std::u16string> names;
    for (ULONG index = 0;; ++index) {
        Entry entry = EntryAt(fd, index);
        if (entry.Status == STATUS_NO_MORE_FILES) return names;
        EXPECT_STATUS(STATUS_SUCCESS, entry.Status);
        if (!NT_SUCCESS(entry.Status)) return names;
        names.push_back(std::move(entry.Name));
    }
}

NTSTATUS Table::Rename(std::u16string_view from, std::u16string_view to) const
{
    return Ops->Rename(Ops->PluginContext, nullptr, NtString(from).Get(), NtString(to).Get());
}

NTSTATUS Table::Delete(std::u16string_view path) const
{
    return Ops->Delete(Ops->PluginContext, nullptr, NtString(path).Get());
}

NTSTATUS Table::SetAttr(PluginFd fd, ULONG attributes) const
{
    return Ops->SetAttr(Ops->PluginContext, nullptr, fd, attributes);
}

std::u16string Table::ReadLink(std::u16string_view path, NTSTATUS* status) const
{
    PUNICODE_STRING target = nullptr;
    PUNICODE_STRING other = nullptr;
    *status = Ops->ReadLink(Ops->PluginContext, nullptr, NtString(path).Get(), &target, &other);
    std::u16string text = target ? TextAt(target->Buffer, target->Length) : std::u16string();
    Free(target);
    Free(other);
    return text;
}

std::vector<std::string> Table::Eas(PluginFd fd) const
{
    char* names = nullptr;
    ULONG count = 0;
    EXPECT_STATUS(STATUS_SUCCESS, Ops->ListEa(Ops->PluginContext, nullptr, fd, &names, &count));
    std::vector<std::string> result;
    const char* name = names;
    for (ULONG i = 0; i < count; ++i) {
        result.emplace_back(name);
        name += result.back().size() + 1;
    }
    Free(names);
    return result;
}

std::optional<std::string> Table::Ea(PluginFd fd, const char* name) const
{
    void* value = nullptr;
    ULONG length = 0;
    const NTSTATUS status = Ops->GetEa(Ops->PluginContext, nullptr, fd, name, &value, &length);
    std::optional<std::string> result;
    if (NT_SUCCESS(status))
        result.emplace(static_cast<const char*>(value), length);
    else
        EXPECT_STATUS(STATUS_NONEXISTENT_EA_ENTRY, status);
    Free(value);
    return result;
}

NTSTATUS Table::SetEa(PluginFd fd, const char* name, std::string_view value) const
{
    return Ops->SetEa(Ops->PluginContext, nullptr, fd, name, value.data(), static_cast<ULONG>(value.size()));
}

std::string Table::Contents(std::u16string_view path) const
{
    const Opened file = Open(path);
    if (!NT_SUCCESS(file.Status)) return Name(file.Status);
    NTSTATUS status = STATUS_SUCCESS;
    std::string data = Read(file.Fd, 0, 100, &status);
    EXPECT_STATUS(STATUS_SUCCESS, Close(file.Fd));
    return NT_SUCCESS(status) ? data : Name(status);
}

void HostFs::SetUp()
{
    nthost::Boot();
    std::string pattern = std::filesystem::temp_directory_path() / "gvnd-hostfs-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern.data()));
    outer_ = pattern;
    rootText_ = Root();
    std::filesystem::create_directory(Root());
    Mount(Options());
}

void HostFs::TearDown()
{
    table_.reset();
    std::filesystem::remove_all(outer_);
    for (const std::string& line : nthost::Shutdown().Lines) ADD_FAILURE() << line;
}

HostFsOptions HostFs::Options() const
{
    HostFsOptions options = {};
    options.Root = rootText_.c_str();
    return options;
}

void HostFs::Mount(const HostFsOptions& options)
{
    table_.reset();
    table_.emplace(options);
}

void HostFs::Put(const std::string& name, const std::string& text) const { std::ofstream(At(name)) << text; }

std::string HostFs::Peek(const std::string& name) const
{
    std::ifstream file(At(name));
    return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace hostfs_tests
