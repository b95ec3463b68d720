// Section, view, and the end of both.

#include "workbench/view.h"

#include <utility>

#include <nthost/debug.h>

namespace workbench {

namespace {

struct Protection {
    ACCESS_MASK Access;
    ULONG Page;
    ULONG Attributes;
};

Protection ProtectionOf(View::Kind kind)
{
    switch (kind) {
    case View::Kind::ReadOnly: return {SECTION_MAP_READ, PAGE_READONLY, SEC_COMMIT};
    case View::Kind::Image: return {SECTION_MAP_READ | SECTION_MAP_EXECUTE, PAGE_EXECUTE_READ, SEC_IMAGE};
    default: return {SECTION_MAP_READ | SECTION_MAP_WRITE, PAGE_READWRITE, SEC_COMMIT};
    }
}

} // namespace

View::View(HANDLE file, Kind kind, LONGLONG size)
{
    const Protection protection = ProtectionOf(kind);
    LARGE_INTEGER maximum;
    maximum.QuadPart = size;
    Handle section;
    status_ = NtCreateSection(section.Out(), protection.Access, nullptr, size ? &maximum : nullptr, protection.Page,
                              protection.Attributes, file);
    hasSection_ = NT_SUCCESS(status_);
    if (!hasSection_) return;
    status_ = NtMapViewOfSection(section.Get(), NtCurrentProcess(), &address_, 0, 0, nullptr, &size_, ViewUnmap, 0,
                                 protection.Page);
}

NTSTATUS View::Get(size_t offset, std::string* text, size_t length) const
{
    text->resize(length);
    return nthost::GuardedCopy(text->data(), Address() + offset, length);
}

NTSTATUS View::Put(size_t offset, const std::string& text) const
{
    return nthost::GuardedCopy(Address() + offset, text.data(), text.size());
}

std::string View::Text(size_t offset, size_t length) const
{
    std::string text;
    const NTSTATUS status = Get(offset, &text, length);
    return NT_SUCCESS(status) ? text : "<" + nthost::StatusName(status) + ">";
}

NTSTATUS View::Flush() const
{
    void* base = address_;
    SIZE_T size = 0;
    IO_STATUS_BLOCK block = {};
    return NtFlushVirtualMemory(NtCurrentProcess(), &base, &size, &block);
}

void View::Unmap()
{
    if (void* const address = std::exchange(address_, nullptr)) NtUnmapViewOfSection(NtCurrentProcess(), address);
}

} // namespace workbench
