// The services on views: mapping, unmapping, and flushing a range of one. What the caller's pointers hold is taken
// once, at the start, and given back at the end.
#include "ob/handle.h"
#include "ob/service.h"
#include "mm/pages.h"
#include "mm/view.h"
#include "mm/protection.h"
#include "ob/capture.h"
#include "zw/section.h"

namespace nthost::zw {

namespace {

constexpr ULONG_PTR Granularity = 0x10000;
constexpr ULONG_PTR MaximumZeroBits = 53;

// The caller's variables, and what they held.
struct Placement {
    PVOID* BaseAddress;
    PLARGE_INTEGER SectionOffset; // may be null
    PSIZE_T ViewSize;

    PVOID Base = nullptr;
    LARGE_INTEGER Offset{};
    SIZE_T Size = 0;
};

template <typename T>
NTSTATUS Take(T* from, T* value, KPROCESSOR_MODE mode)
{
    const NTSTATUS status = ob::ProbeUser(from, mode);
    return NT_SUCCESS(status) ? ob::ReadUser(from, value, mode) : status;
}

[[nodiscard]] NTSTATUS Capture(Placement* placement, KPROCESSOR_MODE mode)
{
    NTSTATUS status = Take(placement->BaseAddress, &placement->Base, mode);
    if (NT_SUCCESS(status)) status = Take(placement->ViewSize, &placement->Size, mode);
    if (NT_SUCCESS(status) && placement->SectionOffset)
        status = Take(placement->SectionOffset, &placement->Offset, mode);
    return status;
}

[[nodiscard]] NTSTATUS GiveBack(const Placement& placement, KPROCESSOR_MODE mode)
{
    NTSTATUS status = ob::WriteUser(placement.ViewSize, placement.Size, mode);
    if (NT_SUCCESS(status)) status = ob::WriteUser(placement.BaseAddress, placement.Base, mode);
    if (NT_SUCCESS(status) && placement.SectionOffset)
        status = ob::WriteUser(placement.SectionOffset, placement.Offset, mode);
    return status;
}

bool LiesInUserSpace(const void* base, SIZE_T size)
{
    const auto start = reinterpret_cast<ULONG_PTR>(base);
    return start < MM_USER_PROBE_ADDRESS && size <= MM_USER_PROBE_ADDRESS - start;
}

[[nodiscard]] NTSTATUS CheckPlacement(const Placement& placement, ULONG_PTR zeroBits)
{
    if (!LiesInUserSpace(placement.Base, placement.Size)) return STATUS_INVALID_PARAMETER_3;
    if (zeroBits > MaximumZeroBits) return STATUS_INVALID_PARAMETER_4;
    return zeroBits ? STATUS_NOT_SUPPORTED : STATUS_SUCCESS; // addresses are as Linux gives them
}

bool IsMisaligned(const Placement& placement)
{
    return (reinterpret_cast<ULONG_PTR>(placement.Base) | placement.Offset.LowPart) & (Granularity - 1);
}

// Within the section, to the byte; the view itself is whole pages.
[[nodiscard]] NTSTATUS FitToSection(const SectionBody* section, Placement* placement)
{
    const auto size = static_cast<ULONGLONG>(section->Size);
    const auto offset = static_cast<ULONGLONG>(placement->Offset.QuadPart);
    if (offset >= size) return STATUS_INVALID_VIEW_SIZE;
    if (placement->Size == 0) placement->Size = size - offset;
    if (placement->Size > size - offset) return STATUS_INVALID_VIEW_SIZE;
    placement->Size = mm::PagesFor(static_cast<LONGLONG>(placement->Size)) * PAGE_SIZE;
    return STATUS_SUCCESS;
}

[[nodiscard]] NTSTATUS MapInto(PEPROCESS process, const SectionBody* section, const mm::Protection& protection,
                               Placement* placement)
{
    if (IsMisaligned(*placement)) return STATUS_MAPPED_ALIGNMENT;
    if (!(mm::FindProtection(section->Protection)->AllowedInViews & protection.Value)) return STATUS_SECTION_PROTECTION;
    if (const NTSTATUS status = FitToSection(section, placement); !NT_SUCCESS(status)) return status;
    // An image's pages would be copied by their first change.
    const bool copies = protection.CopiesOnWrite || (protection.Writable && section->Area->Kind == mm::AreaKind::Image);
    if (copies) return STATUS_NOT_SUPPORTED;
    return mm::MapView({section->Area, process, placement->Base, placement->Offset.QuadPart, placement->Size,
                        protection.Readable, protection.Writable},
                       &placement->Base);
}

[[nodiscard]] NTSTATUS MapReferenced(PEPROCESS process, const SectionBody* section, const mm::Protection& protection,
                                     Placement* placement, KPROCESSOR_MODE mode)
{
    NTSTATUS status = MapInto(process, section, protection, placement);
    if (!NT_SUCCESS(status)) return status;
    status = GiveBack(*placement, mode);
    if (!NT_SUCCESS(status)) (void)mm::UnmapView(process, placement->Base);
    return status;
}

[[nodiscard]] NTSTATUS ReferenceProcess(HANDLE handle, KPROCESSOR_MODE mode, PEPROCESS* process)
{
    return ob::ReferenceObjectByHandle(handle, PROCESS_VM_OPERATION, PsProcessType, mode,
                                       reinterpret_cast<PVOID*>(process), nullptr);
}

struct ViewKind {
    SECTION_INHERIT Inherit;
    ULONG AllocationType;
    ULONG Protect;
};

[[nodiscard]] NTSTATUS CheckKind(const ViewKind& kind)
{
    if (kind.Inherit != ViewShare && kind.Inherit != ViewUnmap) return STATUS_INVALID_PARAMETER_8;
    if (kind.AllocationType & ~(MEM_RESERVE | MEM_TOP_DOWN)) return STATUS_INVALID_PARAMETER_9;
    return mm::FindProtection(kind.Protect) ? STATUS_SUCCESS : STATUS_INVALID_PAGE_PROTECTION;
}

NTSTATUS MapViewOfSection(KPROCESSOR_MODE mode, HANDLE sectionHandle, HANDLE processHandle, Placement placement,
                          ULONG_PTR zeroBits, const ViewKind& kind)
{
    NTSTATUS status = CheckKind(kind);
    if (NT_SUCCESS(status)) status = Capture(&placement, mode);
    if (NT_SUCCESS(status)) status = CheckPlacement(placement, zeroBits);
    if (!NT_SUCCESS(status)) return status;

    PEPROCESS process;
    status = ReferenceProcess(processHandle, mode, &process);
    if (!NT_SUCCESS(status)) return status;
    const mm::Protection& protection = *mm::FindProtection(kind.Protect);
    void* section;
    status = ob::ReferenceObjectByHandle(sectionHandle, protection.Section, &SectionType, mode, &section, nullptr);
    if (NT_SUCCESS(status)) {
        status = MapReferenced(process, static_cast<SectionBody*>(section), protection, &placement, mode);
        ObDereferenceObject(section);
    }
    ObDereferenceObject(process);
    return status;
}

NTSTATUS UnmapViewOfSection(KPROCESSOR_MODE mode, HANDLE processHandle, PVOID address)
{
    PEPROCESS process;
    const NTSTATUS status = ReferenceProcess(processHandle, mode, &process);
    if (!NT_SUCCESS(status)) return status;
    const NTSTATUS unmapped = mm::UnmapView(process, address);
    ObDereferenceObject(process);
    return unmapped;
}

// A range of a view, as pages of its area.
struct FlushTarget {
    mm::ControlArea* Area; // held, on success
    mm::PageRange Pages;
};

// Also makes the range whole pages.
[[nodiscard]] NTSTATUS FindTarget(PEPROCESS process, PVOID* base, SIZE_T* size, FlushTarget* target)
{
    const mm::SectionGuard hold(mm::sectionLock);
    const mm::View* const view = mm::FindView(process, *base);
    if (!view) return STATUS_NOT_MAPPED_VIEW;
    if (view->Area->Kind == mm::AreaKind::Image) return STATUS_NOT_MAPPED_DATA;
    const ULONG_PTR start = reinterpret_cast<ULONG_PTR>(PAGE_ALIGN(*base));
    const ULONG_PTR viewEnd = view->Base + view->PageCount * PAGE_SIZE;
    const ULONG_PTR last = *size ? reinterpret_cast<ULONG_PTR>(*base) + *size - 1 : viewEnd - 1;
    if (last >= viewEnd) return STATUS_INVALID_PARAMETER_2;
    *base = reinterpret_cast<PVOID>(start);
    *size = (last | (PAGE_SIZE - 1)) + 1 - start;
    const size_t first = view->FirstPage + (start - view->Base) / PAGE_SIZE;
    ++view->Area->Holds;
    *target = {view->Area, {first, first + *size / PAGE_SIZE}};
    return STATUS_SUCCESS;
}

NTSTATUS FlushView(PEPROCESS process, PVOID* base, SIZE_T* size, IO_STATUS_BLOCK* result)
{
    FlushTarget target;
    const NTSTATUS status = FindTarget(process, base, size, &target);
    if (!NT_SUCCESS(status)) return status;
    const mm::AreaHold area(target.Area);
    mm::FlushRange(area.Get(), target.Pages, result);
    return result->Status;
}

NTSTATUS FlushVirtualMemory(KPROCESSOR_MODE mode, HANDLE processHandle, PVOID* baseAddress, PSIZE_T regionSize,
                            PIO_STATUS_BLOCK statusBlock)
{
    PVOID base;
    SIZE_T size;
    NTSTATUS status = Take(baseAddress, &base, mode);
    if (NT_SUCCESS(status)) status = Take(regionSize, &size, mode);
    if (NT_SUCCESS(status)) status = ob::ProbeUser(statusBlock, mode);
    if (!NT_SUCCESS(status)) return status;
    if (!LiesInUserSpace(base, size)) return STATUS_INVALID_PARAMETER_2;

    PEPROCESS process;
    status = ReferenceProcess(processHandle, mode, &process);
    if (!NT_SUCCESS(status)) return status;
    IO_STATUS_BLOCK result = {{STATUS_SUCCESS}, 0};
    const NTSTATUS flushed = FlushView(process, &base, &size, &result);
    result.Status = flushed;
    ObDereferenceObject(process);

    status = ob::WriteUser(regionSize, size, mode);
    if (NT_SUCCESS(status)) status = ob::WriteUser(baseAddress, base, mode);
    if (NT_SUCCESS(status)) status = ob::WriteUser(statusBlock, result, mode);
    return NT_SUCCESS(status) ? flushed : status;
}

} // namespace

} // namespace nthost::zw

NTHOST_SERVICE_PAIR(MapViewOfSection, nthost::zw::MapViewOfSection,
                    (HANDLE SectionHandle, HANDLE ProcessHandle, PVOID* BaseAddress, ULONG_PTR ZeroBits, SIZE_T,
                     PLARGE_INTEGER SectionOffset, PSIZE_T ViewSize, SECTION_INHERIT InheritDisposition,
                     ULONG AllocationType, ULONG Win32Protect),
                    SectionHandle, ProcessHandle, {BaseAddress, SectionOffset, ViewSize}, ZeroBits,
                    {InheritDisposition, AllocationType, Win32Protect})
NTHOST_SERVICE_PAIR(UnmapViewOfSection, nthost::zw::UnmapViewOfSection, (HANDLE ProcessHandle, PVOID BaseAddress),
                    ProcessHandle, BaseAddress)
NTHOST_SERVICE_PAIR(FlushVirtualMemory, nthost::zw::FlushVirtualMemory,
                    (HANDLE ProcessHandle, PVOID* BaseAddress, PSIZE_T RegionSize, PIO_STATUS_BLOCK IoStatus),
                    ProcessHandle, BaseAddress, RegionSize, IoStatus)
