// The services behind each call, with their buffers.

#include "support/file.h"

#include <nthost/debug.h>

#include "support/client.h"

namespace support {

namespace {

Outcome Ended(NTSTATUS status, const IO_STATUS_BLOCK& block) { return {status, block.Information}; }

template <typename Info>
NTSTATUS SetAs(HANDLE file, FILE_INFORMATION_CLASS infoClass, const Info& info)
{
    return Set(file, infoClass, &info, sizeof info).Status;
}

// Rounds the list up to the boundary that the next record needs.
void Align(std::string* bytes) { bytes->resize((bytes->size() + 3) & ~size_t(3)); }

void Link(std::string* bytes, size_t previous, size_t next)
{
    const auto distance = static_cast<ULONG>(next - previous);
    std::memcpy(bytes->data() + previous, &distance, sizeof distance);
}

} // namespace

Outcome Write(HANDLE file, std::string_view data, LONGLONG offset)
{
    LARGE_INTEGER position;
    position.QuadPart = offset;
    IO_STATUS_BLOCK block = {};
    const NTSTATUS status =
        NtWriteFile(file, nullptr, nullptr, nullptr, &block, const_cast<char*>(data.data()),
                    static_cast<ULONG>(data.size()), offset == kAtPosition ? nullptr : &position, nullptr);
    return Ended(status, block);
}

Outcome Query(HANDLE file, FILE_INFORMATION_CLASS infoClass, void* buffer, ULONG length)
{
    IO_STATUS_BLOCK block = {};
    return Ended(NtQueryInformationFile(file, &block, buffer, length, infoClass), block);
}

Outcome Set(HANDLE file, FILE_INFORMATION_CLASS infoClass, const void* buffer, ULONG length)
{
    IO_STATUS_BLOCK block = {};
    return Ended(NtSetInformationFile(file, &block, const_cast<void*>(buffer), length, infoClass), block);
}

Outcome QueryVolume(HANDLE file, FS_INFORMATION_CLASS infoClass, void* buffer, ULONG length)
{
    IO_STATUS_BLOCK block = {};
    return Ended(NtQueryVolumeInformationFile(file, &block, buffer, length, infoClass), block);
}

Outcome SetVolume(HANDLE file, FS_INFORMATION_CLASS infoClass, const void* buffer, ULONG length)
{
    IO_STATUS_BLOCK block = {};
    return Ended(NtSetVolumeInformationFile(file, &block, const_cast<void*>(buffer), length, infoClass), block);
}

NTSTATUS Flush(HANDLE file)
{
    IO_STATUS_BLOCK block = {};
    return NtFlushBuffersFile(file, &block);
}

NTSTATUS SetSize(HANDLE file, LONGLONG endOfFile)
{
    FILE_END_OF_FILE_INFORMATION info;
    info.EndOfFile.QuadPart = endOfFile;
    return SetAs(file, FileEndOfFileInformation, info);
}

NTSTATUS SetAllocation(HANDLE file, LONGLONG allocation)
{
    FILE_ALLOCATION_INFORMATION info;
    info.AllocationSize.QuadPart = allocation;
    return SetAs(file, FileAllocationInformation, info);
}

NTSTATUS SetDelete(HANDLE file, bool deleteIt)
{
    FILE_DISPOSITION_INFORMATION info;
    info.DeleteFile = deleteIt;
    return SetAs(file, FileDispositionInformation, info);
}

NTSTATUS SetBasic(HANDLE file, ULONG attributes, LONGLONG creation, LONGLONG access, LONGLONG write, LONGLONG change)
{
    FILE_BASIC_INFORMATION info = {};
    info.CreationTime.QuadPart = creation;
    info.LastAccessTime.QuadPart = access;
    info.LastWriteTime.QuadPart = write;
    info.ChangeTime.QuadPart = change;
    info.FileAttributes = attributes;
    return SetAs(file, FileBasicInformation, info);
}

NTSTATUS Rename(HANDLE file, const std::string& name, bool replace, HANDLE root)
{
    Text text(name);
    const UNICODE_STRING& leaf = *text.Get();
    constexpr size_t kNameOffset = FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName);
    std::vector<uint64_t> buffer((kNameOffset + leaf.Length) / sizeof(uint64_t) + 2);
    auto* const info = reinterpret_cast<PFILE_RENAME_INFORMATION>(buffer.data());
    info->ReplaceIfExists = replace;
    info->RootDirectory = root;
    info->FileNameLength = leaf.Length;
    std::memcpy(info->FileName, leaf.Buffer, leaf.Length);
    const size_t length = std::max(kNameOffset + leaf.Length, sizeof(FILE_RENAME_INFORMATION));
    return Set(file, FileRenameInformation, info, static_cast<ULONG>(length)).Status;
}

std::string NameOf(HANDLE file)
{
    std::vector<uint64_t> buffer(0x2000);
    auto* const info = reinterpret_cast<PFILE_NAME_INFORMATION>(buffer.data());
    const NTSTATUS status =
        Query(file, FileNameInformation, info, static_cast<ULONG>(buffer.size() * sizeof(uint64_t))).Status;
    if (!NT_SUCCESS(status)) return "<" + nthost::StatusName(status) + ">";
    return nthost::ToUtf8(info->FileName, info->FileNameLength / sizeof(WCHAR));
}

EaList& EaList::Add(std::string_view name, std::string_view value, UCHAR flags)
{
    const size_t previous = last_;
    const bool first = bytes_.empty();
    Align(&bytes_);
    last_ = bytes_.size();
    FILE_FULL_EA_INFORMATION header = {};
    header.Flags = flags;
    header.EaNameLength = static_cast<UCHAR>(name.size());
    header.EaValueLength = static_cast<USHORT>(value.size());
    bytes_.append(reinterpret_cast<const char*>(&header), FIELD_OFFSET(FILE_FULL_EA_INFORMATION, EaName));
    bytes_.append(name).append(1, '\0').append(value);
    if (!first) Link(&bytes_, previous, last_);
    return *this;
}

std::vector<std::string> EaTexts(const void* list, size_t length)
{
    std::vector<std::string> texts;
    const auto* record = static_cast<const char*>(list);
    while (length) {
        FILE_FULL_EA_INFORMATION header;
        constexpr size_t kNameOffset = FIELD_OFFSET(FILE_FULL_EA_INFORMATION, EaName);
        std::memcpy(&header, record, kNameOffset);
        const std::string name(record + kNameOffset, header.EaNameLength);
        texts.push_back(name + "=" + std::string(record + kNameOffset + name.size() + 1, header.EaValueLength));
        if (header.NextEntryOffset == 0) break;
        record += header.NextEntryOffset;
    }
    return texts;
}

Outcome SetEas(HANDLE file, const std::string& list)
{
    std::vector<uint64_t> buffer(list.size() / sizeof(uint64_t) + 1); // aligned
    std::memcpy(buffer.data(), list.data(), list.size());
    IO_STATUS_BLOCK block = {};
    return Ended(NtSetEaFile(file, &block, buffer.data(), static_cast<ULONG>(list.size())), block);
}

std::string EaNameList(const std::vector<std::string>& names)
{
    std::string bytes;
    size_t last = 0;
    for (const std::string& name : names) {
        const size_t previous = last;
        const bool first = bytes.empty();
        Align(&bytes);
        last = bytes.size();
        bytes.append(sizeof(ULONG), '\0').append(1, static_cast<char>(name.size())).append(name).append(1, '\0');
        if (!first) Link(&bytes, previous, last);
    }
    return bytes;
}

EaAnswer QueryEas(HANDLE file, const EaQuery& query)
{
    std::vector<uint64_t> buffer(query.Length / sizeof(uint64_t) + 1);
    std::string names = EaNameList(query.Names);
    ULONG index = query.Index;
    IO_STATUS_BLOCK block = {};
    const NTSTATUS status =
        NtQueryEaFile(file, &block, buffer.data(), query.Length, query.Single, names.empty() ? nullptr : names.data(),
                      static_cast<ULONG>(names.size()), index ? &index : nullptr, query.Restart);
    const bool hasRecords = NT_SUCCESS(status) || status == STATUS_BUFFER_OVERFLOW;
    return {status, block.Information,
            hasRecords ? EaTexts(buffer.data(), block.Information) : std::vector<std::string>{}};
}

} // namespace support
