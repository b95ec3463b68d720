// Services only; no state but the handles.

#include "namespace_driver.h"

#include <cstring>

#include <nthost/debug.h>
#include <nthost/sections.h>

#include "volume.h"

namespace model {
namespace {

template <typename Record>
Record* As(std::vector<uint64_t>& buffer)
{
    return reinterpret_cast<Record*>(buffer.data());
}

constexpr ULONG kQueryBytes = 1024;

std::string TextOf(Verb verb, std::vector<uint64_t>& buffer)
{
    if (verb == Verb::QueryName) {
        const auto* const name = As<FILE_NAME_INFORMATION>(buffer);
        return nthost::ToUtf8(name->FileName, name->FileNameLength / sizeof(WCHAR));
    }
    if (verb == Verb::QueryAttributes) return std::to_string(As<FILE_BASIC_INFORMATION>(buffer)->FileAttributes);
    const auto* const standard = As<FILE_STANDARD_INFORMATION>(buffer);
    // One name, and no word of a deletion to come: whatever else appears there is worth a line.
    const bool asEver = standard->NumberOfLinks == 1 && !standard->DeletePending;
    return std::string(standard->Directory ? "directory, " : "file, ") + std::to_string(standard->EndOfFile.QuadPart) +
           (asEver ? "" : ", links or deletion");
}

} // namespace

Outcome NamespaceDriver::Open(const Operation& operation)
{
    support::OpenRequest request;
    request.Access = operation.Access;
    request.Share = operation.Share;
    request.Disposition = operation.Disposition;
    request.Options = operation.Options | FILE_SYNCHRONOUS_IO_NONALERT;
    request.Attributes = operation.Attributes;
    std::string path = operation.Path;
    if (operation.Root == kNoRoot) {
        path = kVolume + path;
    } else {
        request.Root = slots_[operation.Root].Get();
    }
    support::OpenResult opened = support::Open(path, request);
    slots_[operation.Slot] = std::move(opened.File);
    return {opened.Status, NT_SUCCESS(opened.Status) ? opened.Information : 0, {}};
}

Outcome NamespaceDriver::Set(const Operation& operation, FILE_INFORMATION_CLASS infoClass, void* buffer, ULONG length)
{
    IO_STATUS_BLOCK statusBlock = {};
    const NTSTATUS status = NtSetInformationFile(slots_[operation.Slot].Get(), &statusBlock, buffer, length, infoClass);
    return {status, NT_SUCCESS(status) ? statusBlock.Information : 0, {}};
}

Outcome NamespaceDriver::Rename(const Operation& operation)
{
    const bool isPath = operation.Root == kNoRoot && operation.Path.starts_with('\\');
    support::Text name(isPath ? kVolume + operation.Path : operation.Path);
    const ULONG bytes = name.Get()->Length;
    std::vector<uint64_t> buffer((sizeof(FILE_RENAME_INFORMATION) + bytes) / sizeof(uint64_t) + 1);
    auto* const rename = As<FILE_RENAME_INFORMATION>(buffer);
    rename->ReplaceIfExists = operation.Flag;
    rename->RootDirectory = operation.Root == kNoRoot ? nullptr : slots_[operation.Root].Get();
    rename->FileNameLength = bytes;
    memcpy(rename->FileName, name.Get()->Buffer, bytes);
    return Set(operation, FileRenameInformation, rename, static_cast<ULONG>(sizeof(*rename)) + bytes);
}

Outcome NamespaceDriver::Query(const Operation& operation)
{
    const FILE_INFORMATION_CLASS infoClass = operation.Verb == Verb::QueryName         ? FileNameInformation
                                             : operation.Verb == Verb::QueryAttributes ? FileBasicInformation
                                                                                       : FileStandardInformation;
    std::vector<uint64_t> buffer(kQueryBytes / sizeof(uint64_t));
    IO_STATUS_BLOCK statusBlock = {};
    const NTSTATUS status =
        NtQueryInformationFile(slots_[operation.Slot].Get(), &statusBlock, buffer.data(), kQueryBytes, infoClass);
    if (!NT_SUCCESS(status)) return {status, 0, {}};
    return {status, statusBlock.Information, TextOf(operation.Verb, buffer)};
}

Outcome NamespaceDriver::List(const Operation& operation)
{
    const support::Listing listing = support::List(slots_[operation.Slot].Get());
    std::string names;
    for (const std::string& name : listing.Names) names += name + " ";
    return {listing.Status, 0, names};
}

Outcome NamespaceDriver::Touch(const Operation& operation)
{
    support::Handle section;
    NTSTATUS status = NtCreateSection(section.Out(), SECTION_MAP_READ, nullptr, nullptr, PAGE_READONLY, SEC_COMMIT,
                                      slots_[operation.Slot].Get());
    if (!NT_SUCCESS(status)) return {status, 0, {}};
    PVOID base = nullptr;
    SIZE_T size = 0;
    status =
        NtMapViewOfSection(section.Get(), NtCurrentProcess(), &base, 0, 0, nullptr, &size, ViewUnmap, 0, PAGE_READONLY);
    if (!NT_SUCCESS(status)) return {status, 0, {}};
    char byte;
    status = nthost::GuardedCopy(&byte, base, sizeof(byte));
    const NTSTATUS unmapped = NtUnmapViewOfSection(NtCurrentProcess(), base);
    return {NT_SUCCESS(status) ? unmapped : status, 0, {}};
}

Outcome NamespaceDriver::Apply(const Operation& operation)
{
    switch (operation.Verb) {
    case Verb::Open: return Open(operation);
    case Verb::Close: return {slots_[operation.Slot].Close(), 0, {}};
    case Verb::Rename: return Rename(operation);
    case Verb::List: return List(operation);
    case Verb::SetDisposition: {
        FILE_DISPOSITION_INFORMATION disposition{operation.Flag};
        return Set(operation, FileDispositionInformation, &disposition, sizeof(disposition));
    }
    case Verb::SetAttributes: {
        FILE_BASIC_INFORMATION basic{};
        basic.FileAttributes = operation.Attributes;
        return Set(operation, FileBasicInformation, &basic, sizeof(basic));
    }
    case Verb::SetEndOfFile: {
        FILE_END_OF_FILE_INFORMATION end{};
        end.EndOfFile.QuadPart = operation.Size;
        return Set(operation, FileEndOfFileInformation, &end, sizeof(end));
    }
    case Verb::Touch: return Touch(operation);
    case Verb::Flush: {
        IO_STATUS_BLOCK statusBlock = {};
        return {NtFlushBuffersFile(slots_[operation.Slot].Get(), &statusBlock), 0, {}};
    }
    case Verb::Trim: (void)nthost::TrimSections(); return {};
    default: return Query(operation);
    }
}

void NamespaceDriver::CloseAll()
{
    for (support::Handle& slot : slots_) (void)slot.Close();
    (void)nthost::TrimSections();
}

} // namespace model
