// Requests whose failures name themselves.
#include "workbench/file.h"

namespace workbench {

namespace {

std::string At(const char* verb, const std::string& path, uint64_t offset)
{
    return std::string(verb) + " " + ShownPath(path) + " at " + std::to_string(offset);
}

std::string Range(const char* verb, const std::string& path, uint64_t offset, uint64_t length)
{
    return std::string(verb) + " " + ShownPath(path) + " " + std::to_string(offset) + "+" + std::to_string(length);
}

Entry MakeEntry(const FILE_FULL_DIR_INFORMATION& record)
{
    return {
        .Name = Utf8(record.FileName, record.FileNameLength),
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

} // namespace

std::string ShownPath(const std::string& path)
{
    constexpr std::string_view kPrefix = "\\??\\";
    if (!path.starts_with(kPrefix)) return path;
    const size_t end = path.find('\\', kPrefix.size());
    return end == std::string::npos ? "the volume" : path.substr(end);
}

size_t File::Read(uint64_t offset, void* buffer, size_t length) const
{
    LARGE_INTEGER position;
    position.QuadPart = static_cast<LONGLONG>(offset);
    IO_STATUS_BLOCK block{};
    const NTSTATUS status =
        NtReadFile(Handle(), nullptr, nullptr, nullptr, &block, buffer, static_cast<ULONG>(length), &position, nullptr);
    if (status == STATUS_END_OF_FILE) return 0;
    Require(At("read", path_, offset), status);
    return block.Information;
}

void File::Write(uint64_t offset, const void* buffer, size_t length) const
{
    const auto [status, written] =
        workbench::Write(Handle(), {static_cast<const char*>(buffer), length}, static_cast<LONGLONG>(offset));
    Require(At("write", path_, offset), status);
    if (written != length) {
        throw Failure(At("write", path_, offset) + ": " + std::to_string(written) + " of " + std::to_string(length) +
                          " bytes",
                      STATUS_DISK_FULL);
    }
}

void File::Append(const void* buffer, size_t length) const
{
    Require("append to " + ShownPath(path_),
            workbench::Write(Handle(), {static_cast<const char*>(buffer), length}, kAtEnd).Status);
}

void File::Flush() const { Require("flush " + ShownPath(path_), workbench::Flush(Handle())); }

void File::QueryRaw(FILE_INFORMATION_CLASS infoClass, void* info, size_t length, const char* what) const
{
    Require(std::string("query ") + what + " of " + ShownPath(path_),
            workbench::Query(Handle(), infoClass, info, static_cast<ULONG>(length)).Status);
}

void File::SetRaw(FILE_INFORMATION_CLASS infoClass, void* info, size_t length, const char* what) const
{
    Require(what + (" " + ShownPath(path_)),
            workbench::Set(Handle(), infoClass, info, static_cast<ULONG>(length)).Status);
}

void File::QueryVolume(FS_INFORMATION_CLASS infoClass, void* info, size_t length, const char* what) const
{
    Require(std::string("query ") + what,
            workbench::QueryVolume(Handle(), infoClass, info, static_cast<ULONG>(length)).Status);
}

void File::SetVolume(FS_INFORMATION_CLASS infoClass, void* info, size_t length, const char* what) const
{
    Require(what, workbench::SetVolume(Handle(), infoClass, info, static_cast<ULONG>(length)).Status);
}

void File::FsControl(ULONG code, const char* what) const { Require(what, workbench::FsControl(Handle(), code).Status); }

void File::Lock(uint64_t offset, uint64_t length, bool exclusive) const
{
    Require(Range("lock", path_, offset, length),
            workbench::Lock(Handle(), static_cast<LONGLONG>(offset), static_cast<LONGLONG>(length), exclusive));
}

void File::Unlock(uint64_t offset, uint64_t length) const
{
    Require(Range("unlock", path_, offset, length),
            workbench::Unlock(Handle(), static_cast<LONGLONG>(offset), static_cast<LONGLONG>(length)));
}

File OpenFile(const std::string& path, OpenRequest how)
{
    how.Options |= FILE_SYNCHRONOUS_IO_NONALERT;
    if (!how.Attributes) how.Attributes = FILE_ATTRIBUTE_NORMAL;
    OpenResult opened = Open(path, how);
    Require((how.Disposition == FILE_OPEN ? "open " : "create ") + ShownPath(path), opened.Status);
    return File(std::move(opened.File), path, opened.Information);
}

void ListDirectory(const File& directory, const std::string& pattern, const std::function<void(const Entry&)>& each)
{
    Text expression(pattern);
    std::vector<uint64_t> buffer(64 * 1024 / sizeof(uint64_t));
    for (bool first = true;; first = false) {
        IO_STATUS_BLOCK block{};
        const NTSTATUS status =
            NtQueryDirectoryFile(directory.Handle(), nullptr, nullptr, nullptr, &block, buffer.data(),
                                 static_cast<ULONG>(buffer.size() * sizeof(uint64_t)), FileFullDirectoryInformation,
                                 FALSE, first && !pattern.empty() ? expression.Get() : nullptr, first);
        if (status == STATUS_NO_MORE_FILES) return;
        Require("list " + ShownPath(directory.Path()), status);
        EachRecord<FILE_FULL_DIR_INFORMATION>(buffer.data(), [&](const FILE_FULL_DIR_INFORMATION& record) {
            const Entry entry = MakeEntry(record);
            if (entry.Name != "." && entry.Name != "..") each(entry);
        });
    }
}

} // namespace workbench
