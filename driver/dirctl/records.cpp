// Laying out directory records. Times, sizes and attributes are the plugin's, unchanged.

#include "dirctl/records.h"

namespace {

constexpr ULONG kSymlinkTag = 0xa000000c; // IO_REPARSE_TAG_SYMLINK

// The EA size field carries the reparse tag; no class reports a real EA size.
ULONG TagOf(const PluginDirEntry* entry)
{
    return entry->FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT ? kSymlinkTag : 0;
}

// The fields that all classes but the name-only one share, in one order.
template <typename Record>
Record* FillCommon(void* destination, const PluginDirEntry* entry)
{
    auto* const record = static_cast<Record*>(destination);
    record->CreationTime.QuadPart = entry->CreationTime;
    record->LastAccessTime.QuadPart = entry->LastAccessTime;
    record->LastWriteTime.QuadPart = entry->LastWriteTime;
    record->ChangeTime.QuadPart = entry->ChangeTime;
    record->EndOfFile.QuadPart = entry->EndOfFile;
    record->AllocationSize.QuadPart = entry->AllocationSize;
    record->FileAttributes = entry->FileAttributes;
    record->FileNameLength = entry->FileNameLength;
    return record;
}

void FillDirectory(void* destination, const PluginDirEntry* entry)
{
    FillCommon<FILE_DIRECTORY_INFORMATION>(destination, entry);
}

void FillFull(void* destination, const PluginDirEntry* entry)
{
    FillCommon<FILE_FULL_DIR_INFORMATION>(destination, entry)->EaSize = TagOf(entry);
}

void FillBoth(void* destination, const PluginDirEntry* entry)
{
    auto* const record = FillCommon<FILE_BOTH_DIR_INFORMATION>(destination, entry);
    record->EaSize = TagOf(entry);
    record->ShortNameLength = 0;
}

void FillNames(void* destination, const PluginDirEntry* entry)
{
    static_cast<FILE_NAMES_INFORMATION*>(destination)->FileNameLength = entry->FileNameLength;
}

void FillIdBoth(void* destination, const PluginDirEntry* entry)
{
    auto* const record = FillCommon<FILE_ID_BOTH_DIR_INFORMATION>(destination, entry);
    record->EaSize = TagOf(entry);
    record->ShortNameLength = 0;
    record->FileId.QuadPart = 0;
}

void FillIdFull(void* destination, const PluginDirEntry* entry)
{
    auto* const record = FillCommon<FILE_ID_FULL_DIR_INFORMATION>(destination, entry);
    record->EaSize = TagOf(entry);
    record->FileId.QuadPart = 0;
}

template <typename Record>
constexpr DirectoryClass Row(FILE_INFORMATION_CLASS infoClass, void (*fill)(void*, const PluginDirEntry*))
{
    static_assert(sizeof(Record) % 8 == 0);
    return {infoClass, sizeof(Record), offsetof(Record, FileName), fill};
}

constexpr DirectoryClass kClasses[] = {
    Row<FILE_DIRECTORY_INFORMATION>(FileDirectoryInformation, FillDirectory),
    Row<FILE_FULL_DIR_INFORMATION>(FileFullDirectoryInformation, FillFull),
    Row<FILE_BOTH_DIR_INFORMATION>(FileBothDirectoryInformation, FillBoth),
    Row<FILE_NAMES_INFORMATION>(FileNamesInformation, FillNames),
    Row<FILE_ID_BOTH_DIR_INFORMATION>(FileIdBothDirectoryInformation, FillIdBoth),
    Row<FILE_ID_FULL_DIR_INFORMATION>(FileIdFullDirectoryInformation, FillIdFull),
};

// Every class begins like this one.
static_assert(offsetof(FILE_NAMES_INFORMATION, NextEntryOffset) == 0 &&
              offsetof(FILE_NAMES_INFORMATION, FileIndex) == 4);

} // namespace

const DirectoryClass* GvDirectoryClassOf(FILE_INFORMATION_CLASS infoClass)
{
    for (const DirectoryClass& row : kClasses) {
        if (row.Class == infoClass) return &row;
    }
    return nullptr;
}

ULONGLONG GvDirEntrySize(const DirectoryClass* infoClass, const PluginDirEntry* entry)
{
    return (ULONGLONG{infoClass->FixedSize} + entry->FileNameLength + 7) & ~ULONGLONG{7};
}

void GvFillDirEntryInfo(const DirectoryClass* infoClass, const PluginDirEntry* entry, ULONG index, UCHAR* previous,
                        UCHAR* destination)
{
    if (previous) {
        reinterpret_cast<FILE_NAMES_INFORMATION*>(previous)->NextEntryOffset =
            static_cast<ULONG>(destination - previous);
    }
    auto* const head = reinterpret_cast<FILE_NAMES_INFORMATION*>(destination);
    head->NextEntryOffset = 0;
    head->FileIndex = index;
    infoClass->FillFixed(destination, entry);
    RtlCopyMemory(destination + infoClass->NameOffset, entry->FileName, entry->FileNameLength);
}
