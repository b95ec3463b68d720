// Lists of extended attributes.
#include "workbench/ea.h"

#include <cstring>

namespace workbench {

namespace {

// Rounds the list up to the boundary that the next record needs.
void Align(std::string* bytes) { bytes->resize((bytes->size() + 3) & ~size_t(3)); }

void Link(std::string* bytes, size_t previous, size_t next)
{
    const auto distance = static_cast<ULONG>(next - previous);
    std::memcpy(bytes->data() + previous, &distance, sizeof distance);
}

} // namespace

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
    const NTSTATUS status = NtSetEaFile(file, &block, buffer.data(), static_cast<ULONG>(list.size()));
    return {status, block.Information};
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

} // namespace workbench
