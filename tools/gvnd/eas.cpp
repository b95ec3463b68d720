// Building and reading lists of extended attributes.
#include "gvnd/eas.h"

#include <fmt/format.h>
#include <workbench/ea.h>

#include "gvnd/status.h"

namespace tool {

namespace {

void CheckRecord(const std::string& name, const std::string& value)
{
    if (name.empty() || name.size() > 0xff) throw Usage("a name of an extended attribute has 1 to 255 bytes");
    if (value.size() > 0xffff) throw Usage("a value of an extended attribute has at most 65535 bytes");
}

EaMap MapOf(const void* records)
{
    EaMap eas;
    workbench::EachRecord<FILE_FULL_EA_INFORMATION>(records, [&](const FILE_FULL_EA_INFORMATION& record) {
        const char* const value = record.EaName + record.EaNameLength + 1;
        eas[std::string(record.EaName, record.EaNameLength)] = std::string(value, record.EaValueLength);
    });
    return eas;
}

bool MeansNone(NTSTATUS status)
{
    return status == STATUS_NO_EAS_ON_FILE || status == STATUS_NO_MORE_EAS || status == STATUS_EAS_NOT_SUPPORTED ||
           status == STATUS_NOT_SUPPORTED;
}

} // namespace

std::string EaList(const EaMap& eas)
{
    workbench::EaList list;
    for (const auto& [name, value] : eas) {
        CheckRecord(name, value);
        list.Add(name, value);
    }
    return list.Bytes();
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
        return statusBlock.Information == 0 ? EaMap() : MapOf(buffer.data());
    }
}

std::string ReadEa(const File& file, const std::string& name)
{
    CheckRecord(name, {});
    std::string list = workbench::EaNameList({name});
    std::vector<uint64_t> buffer(9 * 1024); // more than one value can take
    IO_STATUS_BLOCK statusBlock{};
    const std::string request = fmt::format("get extended attribute {} of {}", name, ShownPath(file.Path()));
    Require(request, NtQueryEaFile(file.Handle(), &statusBlock, buffer.data(), static_cast<ULONG>(buffer.size() * 8),
                                   FALSE, list.data(), static_cast<ULONG>(list.size()), nullptr, TRUE));
    // A name that is not there comes back with an empty value.
    const EaMap found = MapOf(buffer.data());
    if (found.empty() || found.begin()->second.empty()) throw Failure(request, STATUS_NONEXISTENT_EA_ENTRY);
    return found.begin()->second;
}

void WriteEas(const File& file, const EaMap& eas)
{
    if (eas.empty()) return;
    Require("set extended attributes of " + ShownPath(file.Path()),
            workbench::SetEas(file.Handle(), EaList(eas)).Status);
}

} // namespace tool
