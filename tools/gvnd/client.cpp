// Native services with the tool's conventions: every failure names its request.
#include "gvnd/client.h"

#include <algorithm>
#include <cstring>

#include <fmt/format.h>

#include <nthost/debug.h>

#include "gvnd/status.h"

namespace tool {

namespace {

LARGE_INTEGER Large(uint64_t value)
{
    LARGE_INTEGER large;
    large.QuadPart = static_cast<LONGLONG>(value);
    return large;
}

Entry MakeEntry(const FILE_FULL_DIR_INFORMATION& record)
{
    return {
        .Name = nthost::ToUtf8(record.FileName, record.FileNameLength / sizeof(WCHAR)),
        .Attributes = record.FileAttributes,
        .Size = static_cast<uint64_t>(record.EndOfFile.QuadPart),
        .Allocation = static_cast<uint64_t>(record.AllocationSize.QuadPart),
        .Creation = record.CreationTime.QuadPart,
        .LastAccess = record.LastAccessTime.QuadPart,
        .LastWrite = record.LastWriteTime.QuadPart,
        .Change = record.ChangeTime.QuadPart,
        .ReparseTag = record.EaSize,
    };
}

void EachRecord(const char* buffer, const std::function<void(const Entry&)>& each)
{
    for (;;) {
        const auto* const record = reinterpret_cast<const FILE_FULL_DIR_INFORMATION*>(buffer);
        Entry entry = MakeEntry(*record);
        if (entry.Name != "." && entry.Name != "..") each(entry);
        if (record->NextEntryOffset == 0) return;
        buffer += record->NextEntryOffset;
    }
}

} // namespace

NtText::NtText(const std::string& utf8) : text_(nthost::FromUtf8(utf8))
{
    const size_t bytes = text_.size() * sizeof(char16_t);
    if (bytes > 0xfffe) throw Usage("a name is longer than NT can carry: " + utf8.substr(0, 40) + "...");
    string_.Buffer = reinterpret_cast<PWCH>(text_.data());
    string_.Length = string_.MaximumLength = static_cast<USHORT>(bytes);
}

std::string ShownPath(const std::string& path)
{
    constexpr std::string_view kPrefix = "\\??\\Gvnd";
    if (!path.starts_with(kPrefix)) return path;
    return path.size() == kPrefix.size() ? "the volume" : path.substr(kPrefix.size());
}

std::vector<uint64_t> RecordWithText(size_t size, size_t lengthAt, size_t textAt, std::string_view bytes)
{
    std::vector<uint64_t> record((std::max(size, textAt + bytes.size()) + 7) / 8);
    auto* const raw = reinterpret_cast<char*>(record.data());
    const ULONG length = static_cast<ULONG>(bytes.size());
    std::memcpy(raw + lengthAt, &length, sizeof length);
    std::memcpy(raw + textAt, bytes.data(), bytes.size());
    return record;
}

void File::Close()
{
    if (handle_) NtClose(std::exchange(handle_, nullptr));
}

size_t File::Read(uint64_t offset, void* buffer, size_t length) const
{
    LARGE_INTEGER position = Large(offset);
    IO_STATUS_BLOCK statusBlock{};
    const NTSTATUS status = NtReadFile(handle_, nullptr, nullptr, nullptr, &statusBlock, buffer,
                                       static_cast<ULONG>(length), &position, nullptr);
    if (status == STATUS_END_OF_FILE) return 0;
    Require(fmt::format("read {} at {}", ShownPath(path_), offset), status);
    return statusBlock.Information;
}

void File::Write(uint64_t offset, const void* buffer, size_t length) const
{
    LARGE_INTEGER position = Large(offset);
    IO_STATUS_BLOCK statusBlock{};
    const NTSTATUS status = NtWriteFile(handle_, nullptr, nullptr, nullptr, &statusBlock, const_cast<void*>(buffer),
                                        static_cast<ULONG>(length), &position, nullptr);
    Require(fmt::format("write {} at {}", ShownPath(path_), offset), status);
    if (statusBlock.Information != length) {
        throw Failure(
            fmt::format("write {} at {}: {} of {} bytes", ShownPath(path_), offset, statusBlock.Information, length),
            STATUS_DISK_FULL);
    }
}

void File::Append(const void* buffer, size_t length) const
{
    LARGE_INTEGER position;
    position.u.LowPart = FILE_WRITE_TO_END_OF_FILE;
    position.u.HighPart = -1;
    IO_STATUS_BLOCK statusBlock{};
    Require("append to " + ShownPath(path_),
            NtWriteFile(handle_, nullptr, nullptr, nullptr, &statusBlock, const_cast<void*>(buffer),
                        static_cast<ULONG>(length), &position, nullptr));
}

void File::Flush() const
{
    IO_STATUS_BLOCK statusBlock{};
    Require("flush " + ShownPath(path_), NtFlushBuffersFile(handle_, &statusBlock));
}

void File::QueryRaw(FILE_INFORMATION_CLASS infoClass, void* info, size_t length, const char* what) const
{
    IO_STATUS_BLOCK statusBlock{};
    Require(fmt::format("query {} of {}", what, ShownPath(path_)),
            NtQueryInformationFile(handle_, &statusBlock, info, static_cast<ULONG>(length), infoClass));
}

void File::SetRaw(FILE_INFORMATION_CLASS infoClass, void* info, size_t length, const char* what) const
{
    IO_STATUS_BLOCK statusBlock{};
    Require(fmt::format("{} {}", what, ShownPath(path_)),
            NtSetInformationFile(handle_, &statusBlock, info, static_cast<ULONG>(length), infoClass));
}

void File::QueryVolume(FS_INFORMATION_CLASS infoClass, void* info, size_t length, const char* what) const
{
    IO_STATUS_BLOCK statusBlock{};
    Require(fmt::format("query {}", what),
            NtQueryVolumeInformationFile(handle_, &statusBlock, info, static_cast<ULONG>(length), infoClass));
}

void File::SetVolume(FS_INFORMATION_CLASS infoClass, void* info, size_t length, const char* what) const
{
    IO_STATUS_BLOCK statusBlock{};
    Require(what, NtSetVolumeInformationFile(handle_, &statusBlock, info, static_cast<ULONG>(length), infoClass));
}

void File::FsControl(ULONG code, const char* what) const
{
    IO_STATUS_BLOCK statusBlock{};
    Require(what, NtFsControlFile(handle_, nullptr, nullptr, nullptr, &statusBlock, code, nullptr, 0, nullptr, 0));
}

void File::Lock(uint64_t offset, uint64_t length, bool exclusive) const
{
    LARGE_INTEGER position = Large(offset);
    LARGE_INTEGER size = Large(length);
    IO_STATUS_BLOCK statusBlock{};
    Require(fmt::format("lock {} {}+{}", ShownPath(path_), offset, length),
            NtLockFile(handle_, nullptr, nullptr, nullptr, &statusBlock, &position, &size, 0, TRUE, exclusive));
}

void File::Unlock(uint64_t offset, uint64_t length) const
{
    LARGE_INTEGER position = Large(offset);
    LARGE_INTEGER size = Large(length);
    IO_STATUS_BLOCK statusBlock{};
    Require(fmt::format("unlock {} {}+{}", ShownPath(path_), offset, length),
            NtUnlockFile(handle_, &statusBlock, &position, &size, 0));
}

File OpenFile(const std::string& path, const OpenHow& how)
{
    NtText name(path);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, name.Get(), OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK statusBlock{};
    HANDLE handle = nullptr;
    void* const eas = how.Eas.empty() ? nullptr : const_cast<uint64_t*>(how.Eas.data());
    const NTSTATUS status = NtCreateFile(&handle, how.Access, &attributes, &statusBlock, nullptr, how.Attributes,
                                         how.Share, how.Disposition, how.Options | FILE_SYNCHRONOUS_IO_NONALERT, eas,
                                         static_cast<ULONG>(how.Eas.size() * sizeof(uint64_t)));
    Require((how.Disposition == FILE_OPEN ? "open " : "create ") + ShownPath(path), status);
    return File(handle, path, statusBlock.Information);
}

void ListDirectory(const File& directory, const std::string& pattern, const std::function<void(const Entry&)>& each)
{
    NtText expression(pattern);
    std::vector<uint64_t> buffer(64 * 1024 / sizeof(uint64_t));
    for (bool first = true;; first = false) {
        IO_STATUS_BLOCK statusBlock{};
        const NTSTATUS status =
            NtQueryDirectoryFile(directory.Handle(), nullptr, nullptr, nullptr, &statusBlock, buffer.data(),
                                 static_cast<ULONG>(buffer.size() * sizeof(uint64_t)), FileFullDirectoryInformation,
                                 FALSE, first && !pattern.empty() ? expression.Get() : nullptr, first);
        if (status == STATUS_NO_MORE_FILES) return;
        Require("list " + ShownPath(directory.Path()), status);
        EachRecord(reinterpret_cast<const char*>(buffer.data()), each);
    }
}

} // namespace tool
