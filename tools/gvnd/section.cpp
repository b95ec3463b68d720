// Sections and views by the native services.
#include "gvnd/section.h"

#include <fmt/format.h>

#include <nthost/sections.h>

#include "gvnd/status.h"

namespace tool {

MappedView::MappedView(const File& file, Mode mode) : path_(ShownPath(file.Path()))
{
    const bool writes = mode == Mode::Write;
    const ULONG protection = writes ? PAGE_READWRITE : PAGE_READONLY;
    size_ = static_cast<uint64_t>(
        file.Query<FILE_STANDARD_INFORMATION>(FileStandardInformation, "size").EndOfFile.QuadPart);
    Require("make a section of " + path_,
            NtCreateSection(&section_, SECTION_MAP_READ | (writes ? SECTION_MAP_WRITE : 0), nullptr, nullptr,
                            protection, SEC_COMMIT, file.Handle()));
    SIZE_T viewSize = 0;
    const NTSTATUS status =
        NtMapViewOfSection(section_, NtCurrentProcess(), &base_, 0, 0, nullptr, &viewSize, ViewUnmap, 0, protection);
    if (!NT_SUCCESS(status)) NtClose(section_);
    Require("map " + path_, status);
}

MappedView::~MappedView()
{
    NtUnmapViewOfSection(NtCurrentProcess(), base_);
    NtClose(section_);
}

void MappedView::CheckRange(uint64_t offset, size_t length) const
{
    if (offset > size_ || length > size_ - offset) {
        throw Usage(fmt::format("the file has {} bytes, and a view does not make it longer", size_));
    }
}

std::string MappedView::Read(uint64_t offset, size_t length) const
{
    CheckRange(offset, length);
    std::string bytes(length, '\0');
    Require(fmt::format("read {} in its view at {}", path_, offset),
            nthost::GuardedCopy(bytes.data(), static_cast<char*>(base_) + offset, length));
    return bytes;
}

void MappedView::Write(uint64_t offset, const std::string& bytes)
{
    CheckRange(offset, bytes.size());
    Require(fmt::format("change {} in its view at {}", path_, offset),
            nthost::GuardedCopy(static_cast<char*>(base_) + offset, bytes.data(), bytes.size()));
}

void MappedView::Flush()
{
    PVOID base = base_;
    SIZE_T length = 0;
    IO_STATUS_BLOCK statusBlock{};
    Require("flush the view of " + path_, NtFlushVirtualMemory(NtCurrentProcess(), &base, &length, &statusBlock));
}

} // namespace tool
