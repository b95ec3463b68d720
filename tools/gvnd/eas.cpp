// Building and reading lists of extended attributes.
#include "gvnd/eas.h"

#include <algorithm>
#include <cstring>

#include <fmt/format.h>

#include "gvnd/status.h"

namespace tool {

namespace {

constexpr size_t kHeader = FIELD_OFFSET(FILE_FULL_EA_INFORMATION, EaName);

size_t RecordSize(const std::string& name, const std::string& value)
{
    return kHeader + name.size() + 1 + value.size();
}

// Behind the last record; its offset to the next stays 0.
void AppendRecord(std::vector<char>* list, const std::string& name, const std::string& value)
{
    if (name.empty() || name.size() > 0xff) throw Usage("a name of an extended attribute has 1 to 255 bytes");
    if (value.size() > 0xffff) throw Usage("a value of an extended attribute has at most 65535 bytes");
    const size_t at = list->size();
    list->resize(at + RecordSize(name, value));
    auto* const record = reinterpret_cast<FILE_FULL_EA_INFORMATION*>(list->data() + at);
    record->EaNameLength = static_cast<UCHAR>(name.size());
    record->EaValueLength = static_cast<USHORT>(value.size());
    std::memcpy(record->EaName, name.c_str(), name.size() + 1);
    std::memcpy(record->EaName + name.size() + 1, value.data(), value.size());
}

EaMap MapOf(const char* buffer)
{
    EaMap eas;
    for (;;) {
        const auto* const record = reinterpret_cast<const FILE_FULL_EA_INFORMATION*>(buffer);
        const char* const value = record->EaName + record->EaNameLength + 1;
        eas[std::string(record->EaName, record->EaNameLength)] = std::string(value, record->EaValueLength);
        if (record->NextEntryOffset == 0) return eas;
        buffer += record->NextEntryOffset;
    }
}

bool MeansNone(NTSTATUS status)
{
    return status == STATUS_NO_EAS_ON_FILE || status == STATUS_NO_MORE_EAS || status == STATUS_EAS_NOT_SUPPORTED ||
           status == STATUS_NOT_SUPPORTED;
}

} // namespace

std::vector<uint64_t> EaList(const EaMap& eas)
{
    std::vector<char> list;
    size_t last = 0;
    for (const auto& [name, value] : eas) {
        const size_t at = (list.size() + 3) / 4 * 4;
        if (at != 0) reinterpret_cast<FILE_FULL_EA_INFORMATION*>(list.data() + last)->NextEntryOffset = at - last;
        list.resize(at);
        last = at;
        AppendRecord(&list, name, value);
    }
    std::vector<uint64_t> words((list.size() + 7) / 8);
    std::memcpy(words.data(), list.data(), list.size());
    return words;
}

EaMap ReadEas(const File& file)
{
    if (file.Query<FILE_EA_INFORMATION>(FileEaInformation, "EA size").EaSize == 0) return {};
    for (std::vector<uint64_t> buffer(8192);; buffer.resize(buffer.size() * 4)) {
        IO_STATUS_BLOCK statusBlock{};
        const NTSTATUS status = NtQueryEaFile(file.Handle(), &statusBlock, buffer.data(),
                                              static_cast<ULONG>(buffer.size() * 8), FALSE, nullptr, 0, nullptr, TRUE);
        if (MeansNone(status)) return {};
        if (status == STATUS_BUFFER_OVERFLOW || status == STATUS_BUFFER_TOO_SMALL) continue;
        Require("list extended attributes of " + ShownPath(file.Path()), status);
        return statusBlock.Information == 0 ? EaMap() : MapOf(reinterpret_cast<const char*>(buffer.data()));
    }
}

std::string ReadEa(const File& file, const std::string& name)
{
    if (name.empty() || name.size() > 0xff) throw Usage("a name of an extended attribute has 1 to 255 bytes");
    std::vector<uint64_t> list((FIELD_OFFSET(FILE_GET_EA_INFORMATION, EaName) + name.size() + 1 + 7) / 8);
    auto* const wanted = reinterpret_cast<FILE_GET_EA_INFORMATION*>(list.data());
    wanted->EaNameLength = static_cast<UCHAR>(name.size());
    std::memcpy(wanted->EaName, name.c_str(), name.size() + 1);

    std::vector<uint64_t> buffer(9 * 1024); // more than one value can take
    IO_STATUS_BLOCK statusBlock{};
    const std::string request = fmt::format("get extended attribute {} of {}", name, ShownPath(file.Path()));
    Require(request, NtQueryEaFile(file.Handle(), &statusBlock, buffer.data(), static_cast<ULONG>(buffer.size() * 8),
                                   FALSE, list.data(), static_cast<ULONG>(list.size() * 8), nullptr, TRUE));
    // A name that is not there comes back with an empty value.
    const EaMap found = MapOf(reinterpret_cast<const char*>(buffer.data()));
    if (found.empty() || found.begin()->second.empty()) throw Failure(request, STATUS_NONEXISTENT_EA_ENTRY);
    return found.begin()->second;
}

void WriteEas(const File& file, const EaMap& eas)
{
    if (eas.empty()) return;
    std::vector<uint64_t> list = EaList(eas);
    IO_STATUS_BLOCK statusBlock{};
    Require("set extended attributes of " + ShownPath(file.Path()),
            NtSetEaFile(file.Handle(), &statusBlock, list.data(), static_cast<ULONG>(list.size() * 8)));
}

} // namespace tool
