// Records, strings, names and counts that an operation hands back.
#include "rules.h"

#include <cstring>

#include <nthost/pool.h>

namespace checker {

namespace {

constexpr size_t kEntryName = FIELD_OFFSET(PluginDirEntry, FileName);
constexpr size_t kLabel = FIELD_OFFSET(PluginVolInfo, VolumeLabel);

template <typename T>
void** Untyped(T** pointer)
{
    return reinterpret_cast<void**>(pointer);
}

template <typename T>
void Discard(T** block)
{
    ExFreePoolWithTag(*block, 0);
    *block = nullptr;
}

template <typename Record>
void CheckValues(const Verified& call, const Record& record)
{
    const LONGLONG values[] = {record.CreationTime, record.LastAccessTime, record.LastWriteTime,
                               record.ChangeTime,   record.EndOfFile,      record.AllocationSize};
    const char* const names[] = {"CreationTime", "LastAccessTime", "LastWriteTime",
                                 "ChangeTime",   "EndOfFile",      "AllocationSize"};
    for (size_t i = 0; i < std::size(values); ++i) {
        if (values[i] < 0) call.Break("record.values", std::string(names[i]) + " is " + std::to_string(values[i]));
    }
    if (record.FileAttributes & ~GVND_ATTRIBUTE_MASK) {
        char text[48];
        std::snprintf(text, sizeof text, "attributes 0x%x", record.FileAttributes);
        call.Break("record.attributes", text);
    }
}

const char* NameFault(const WCHAR* name, ULONG bytes)
{
    if (bytes == 0) return "an empty name";
    if (bytes % sizeof(WCHAR)) return "a name of odd length";
    for (ULONG i = 0; i < bytes / sizeof(WCHAR); ++i) {
        if (name[i] == L'\\' || name[i] == L'/') return "a name with a slash in it";
        if (name[i] == 0) return "a name with a NUL in it";
    }
    return nullptr;
}

} // namespace

void Verified::Owed(bool isThere, const char* what) const
{
    if (Succeeded() && !isThere) Break("record.owed", std::string("success without ") + what);
}

bool TakeBlock(const Verified& call, void** block, SIZE_T size)
{
    if (!*block) return false;
    nthost::PoolExtent extent;
    if (!nthost::FindPoolBlock(*block, &extent)) {
        call.Break("record.pool", "an address where no pool block begins");
        *block = nullptr;
        return false;
    }
    if (!extent.Intact) {
        call.Break("record.within", "bytes around the block of " + std::to_string(extent.Size) + " are overwritten");
        *block = nullptr;
        return false;
    }
    if (extent.Size >= size) return true;
    call.Break("record.room",
               "a block of " + std::to_string(extent.Size) + " bytes, and " + std::to_string(size) + " are needed");
    Discard(block);
    return false;
}

void CheckInfo(const Verified& call, PluginFileInfo** info)
{
    call.Owed(*info, "the record");
    if (TakeBlock(call, Untyped(info), sizeof(PluginFileInfo)) && call.Succeeded()) CheckValues(call, **info);
}

void CheckEntry(const Verified& call, PluginDirEntry** entry)
{
    call.Owed(*entry, "the entry");
    if (!TakeBlock(call, Untyped(entry), kEntryName) || !call.Succeeded()) return;
    const ULONG length = (*entry)->FileNameLength;
    if (!TakeBlock(call, Untyped(entry), kEntryName + length)) return;
    CheckValues(call, **entry);
    if (const char* fault = NameFault((*entry)->FileName, length)) call.Break("list.names", fault);
}

void CheckVolume(const Verified& call, PluginVolInfo** info)
{
    call.Owed(*info, "the record");
    if (!TakeBlock(call, Untyped(info), kLabel) || !call.Succeeded()) return;
    if (!TakeBlock(call, Untyped(info), kLabel + (*info)->VolumeLabelLength)) return;
    const PluginVolInfo& volume = **info;
    if (volume.BytesPerSector != 1)
        call.Break("volume.sector", "BytesPerSector is " + std::to_string(volume.BytesPerSector));
    if (volume.AvailableAllocationUnits > volume.TotalAllocationUnits || volume.SectorsPerAllocationUnit == 0)
        call.Break("volume.space", std::to_string(volume.AvailableAllocationUnits) + " of " +
                                       std::to_string(volume.TotalAllocationUnits) + " units of " +
                                       std::to_string(volume.SectorsPerAllocationUnit) + " bytes are free");
    if (volume.VolumeLabelLength % sizeof(WCHAR)) call.Break("volume.label", "a label of odd length");
}

void CheckString(const Verified& call, PUNICODE_STRING* text, bool owed)
{
    if (owed) call.Owed(*text, "the string");
    if (!TakeBlock(call, Untyped(text), sizeof(UNICODE_STRING)) || !call.Succeeded()) return;
    nthost::PoolExtent extent;
    nthost::FindPoolBlock(*text, &extent);
    const auto* const begin = reinterpret_cast<const char*>(*text);
    const auto* const buffer = reinterpret_cast<const char*>((*text)->Buffer);
    const bool isInside =
        (*text)->Length == 0 || (buffer >= begin + sizeof(UNICODE_STRING) && buffer <= begin + extent.Size &&
                                 (*text)->Length <= begin + extent.Size - buffer);
    if (isInside && (*text)->Length % sizeof(WCHAR) == 0) return;
    call.Break("record.room", isInside ? "a string of odd length" : "a string whose text is outside of its block");
    Discard(text);
}

void CheckNames(const Verified& call, char** names, ULONG* count)
{
    if (!TakeBlock(call, Untyped(names), 0) && *count && call.Succeeded())
        call.Break("record.owed", std::to_string(*count) + " names, and no block of them");
    if (!call.Succeeded() || !*names) return;
    nthost::PoolExtent extent;
    nthost::FindPoolBlock(*names, &extent);
    const char* const end = *names + extent.Size;
    const char* at = *names;
    for (ULONG i = 0; i < *count; ++i) {
        const auto* const terminator = static_cast<const char*>(std::memchr(at, 0, end - at));
        if (!terminator || terminator == at) {
            call.Break("ea.names", "name " + std::to_string(i) + " of " + std::to_string(*count) +
                                       (terminator ? " is empty" : " does not end within its block"));
            *count = 0;
            return;
        }
        at = terminator + 1;
    }
}

void CheckValue(const Verified& call, void** value, ULONG* length)
{
    call.Owed(*value || *length == 0, "the value");
    if (*value && !TakeBlock(call, value, call.Succeeded() ? *length : 0)) *length = 0;
    if (!*value) *length = 0;
}

void CheckAccess(const Verified& call, PluginAccessMask* access)
{
    const bool isSet = *access != kAccessNotSet;
    if (call.Succeeded() && (*access & ~GVND_ACCESS_ALL)) {
        char text[48];
        std::snprintf(text, sizeof text, isSet ? "access 0x%x" : "no access is set", *access);
        call.Break("lookup.access", text);
    }
    *access = isSet ? *access & GVND_ACCESS_ALL : 0;
}

void CheckOpened(const Verified& call, PluginFd* fd)
{
    const bool isSet = *fd != kNotSet;
    if (!isSet) *fd = 0;
    if (!call.Succeeded()) {
        if (*fd) call.Break("handle.none-on-failure", "a failure, and the handle " + layer::Describe(*fd));
        *fd = 0;
    } else if (*fd == 0) {
        call.Break("handle.set", isSet ? "the handle 0" : "success, and no handle");
    } else {
        call.Owner.Opened(*fd, call.Call);
    }
}

void CheckCount(const Verified& call, const char* property, ULONG asked, ULONG* length)
{
    if (!call.Succeeded() || *length <= asked) return;
    call.Break(property, std::to_string(*length) + " of " + std::to_string(asked) + " bytes");
    *length = asked;
}

} // namespace checker
