// Building the records of records.h. Stateless.
#include "records.h"

#include "volume.h"

#include <cstddef>
#include <cstring>

namespace posixfs {

NTSTATUS MakeInfo(const Volume& volume, const Facts& facts, PluginFileInfo** info)
{
    auto* const record = AllocateRecord<PluginFileInfo>();
    if (!record) return STATUS_INSUFFICIENT_RESOURCES;
    *record = facts.Info;
    record->FileId = volume.FileIdOf(facts);
    *info = record;
    return STATUS_SUCCESS;
}

NTSTATUS MakeEntry(const Facts& facts, NtTextView name, PluginDirEntry** entry)
{
    const size_t nameBytes = name.size() * sizeof(WCHAR);
    auto* const record = AllocateRecord<PluginDirEntry>(sizeof(PluginDirEntry) + nameBytes);
    if (!record) return STATUS_INSUFFICIENT_RESOURCES;
    *record = {};
    record->CreationTime = facts.Info.CreationTime;
    record->LastAccessTime = facts.Info.LastAccessTime;
    record->LastWriteTime = facts.Info.LastWriteTime;
    record->ChangeTime = facts.Info.ChangeTime;
    record->EndOfFile = facts.Info.EndOfFile;
    record->AllocationSize = facts.Info.AllocationSize;
    record->FileAttributes = facts.Info.FileAttributes;
    record->FileNameLength = static_cast<ULONG>(nameBytes);
    std::memcpy(reinterpret_cast<char*>(record) + offsetof(PluginDirEntry, FileName), name.data(), nameBytes);
    *entry = record;
    return STATUS_SUCCESS;
}

NTSTATUS MakeString(NtTextView text, PUNICODE_STRING* string)
{
    const size_t bytes = text.size() * sizeof(WCHAR);
    if (bytes > MAXUSHORT - 1) return STATUS_NAME_TOO_LONG;
    auto* const record = AllocateRecord<UNICODE_STRING>(sizeof(UNICODE_STRING) + bytes);
    if (!record) return STATUS_INSUFFICIENT_RESOURCES;
    record->Length = record->MaximumLength = static_cast<USHORT>(bytes);
    record->Buffer = reinterpret_cast<PWCH>(record + 1);
    std::memcpy(record->Buffer, text.data(), bytes);
    *string = record;
    return STATUS_SUCCESS;
}

} // namespace posixfs
