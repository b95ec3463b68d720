// Native services with the tool's conventions: every failure names its request.
#include "gvnd/client.h"

#include <ctime>

#include <fmt/format.h>

#include <nthost/debug.h>

#include "gvnd/status.h"

namespace tool {

namespace {

// Text and its counted header.
class NtText {
public:
    explicit NtText(const std::string& utf8) : text_(nthost::FromUtf8(utf8))
    {
        const size_t bytes = text_.size() * sizeof(char16_t);
        if (bytes > 0xfffe) throw Usage("a name is longer than NT can carry: " + utf8.substr(0, 40) + "...");
        string_.Buffer = reinterpret_cast<PWCH>(text_.data());
        string_.Length = string_.MaximumLength = static_cast<USHORT>(bytes);
    }
    PUNICODE_STRING Get() { return &string_; }

private:
    std::u16string text_;
    UNICODE_STRING string_{};
};

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
    Require(fmt::format("read {} at {}", path_, offset), status);
    return statusBlock.Information;
}

void File::Lock(uint64_t offset, uint64_t length, bool exclusive) const
{
    LARGE_INTEGER position = Large(offset);
    LARGE_INTEGER size = Large(length);
    IO_STATUS_BLOCK statusBlock{};
    Require(fmt::format("lock {} {}+{}", path_, offset, length),
            NtLockFile(handle_, nullptr, nullptr, nullptr, &statusBlock, &position, &size, 0, TRUE, exclusive));
}

void File::Unlock(uint64_t offset, uint64_t length) const
{
    LARGE_INTEGER position = Large(offset);
    LARGE_INTEGER size = Large(length);
    IO_STATUS_BLOCK statusBlock{};
    Require(fmt::format("unlock {} {}+{}", path_, offset, length),
            NtUnlockFile(handle_, &statusBlock, &position, &size, 0));
}

File OpenFile(const std::string& path, const OpenHow& how)
{
    NtText name(path);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, name.Get(), OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK statusBlock{};
    HANDLE handle = nullptr;
    Require("open " + path, NtCreateFile(&handle, how.Access, &attributes, &statusBlock, nullptr, 0, how.Share,
                                         FILE_OPEN, how.Options | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0));
    return File(handle, path);
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
        Require("list " + directory.Path(), status);
        EachRecord(reinterpret_cast<const char*>(buffer.data()), each);
    }
}

std::string TimeText(int64_t time)
{
    if (time == 0) return "-";
    constexpr int64_t SecondsTo1970 = 11644473600;
    const time_t seconds = static_cast<time_t>(time / 10000000 - SecondsTo1970);
    tm parts{};
    gmtime_r(&seconds, &parts);
    char text[32];
    return {text, strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts)};
}

std::string AttributeText(ULONG attributes)
{
    constexpr std::pair<ULONG, char> Letters[] = {
        {FILE_ATTRIBUTE_READONLY, 'R'},  {FILE_ATTRIBUTE_HIDDEN, 'H'},  {FILE_ATTRIBUTE_SYSTEM, 'S'},
        {FILE_ATTRIBUTE_DIRECTORY, 'D'}, {FILE_ATTRIBUTE_ARCHIVE, 'A'}, {FILE_ATTRIBUTE_REPARSE_POINT, 'L'},
    };
    std::string text;
    for (const auto& [bit, letter] : Letters) text += attributes & bit ? letter : '-';
    return text;
}

} // namespace tool
