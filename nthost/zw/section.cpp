// Making sections. The file system's lock for it is held while the size is asked for and the file's control area found,
// so that no two sections of a file start with different sizes; the area itself is guarded by sectionLock.
#include "zw/section.h"

#include <nthost/faults.h>

#include "fsrtl/acquire.h"
#include "io/paging.h"
#include "ob/service.h"
#include "mm/protection.h"
#include "ob/handle.h"
#include "ob/named.h"

namespace nthost::zw {

namespace {

struct SectionRequest {
    ACCESS_MASK DesiredAccess;
    ULONG Protection;
    ULONG Attributes; // SEC_...
    LONGLONG MaximumSize;
    HANDLE File;

    mm::AreaKind Kind() const { return Attributes & SEC_IMAGE ? mm::AreaKind::Image : mm::AreaKind::Data; }
};

void DeleteSection(void* body)
{
    auto* const section = static_cast<SectionBody*>(body);
    if (section->Area) mm::ReleaseSection(section->Area);
}

[[nodiscard]] NTSTATUS CheckKind(ULONG attributes, ULONG protection)
{
    constexpr ULONG Kinds = SEC_IMAGE | SEC_RESERVE | SEC_COMMIT;
    const ULONG kind = attributes & Kinds;
    if ((attributes & ~Kinds) || !kind || (kind & (kind - 1))) return STATUS_INVALID_PARAMETER_6;
    if (protection == PAGE_NOACCESS || !mm::FindProtection(protection)) return STATUS_INVALID_PAGE_PROTECTION;
    return STATUS_SUCCESS;
}

// A data section of a file that is to be longer makes it longer, if the section's views can write there.
[[nodiscard]] NTSTATUS AgreeOnSize(PFILE_OBJECT file, const SectionRequest& request, LONGLONG* fileSize,
                                   LONGLONG* sectionSize)
{
    const NTSTATUS status = io::QueryFileSize(file, fileSize);
    if (status == STATUS_FILE_IS_A_DIRECTORY) return STATUS_INVALID_FILE_FOR_SECTION;
    if (!NT_SUCCESS(status)) return status;
    *sectionSize = request.MaximumSize ? request.MaximumSize : *fileSize;
    if (*sectionSize == 0) return STATUS_MAPPED_FILE_SIZE_ZERO;
    if (*sectionSize < 0) return STATUS_SECTION_TOO_BIG;
    if (*sectionSize <= *fileSize) return STATUS_SUCCESS;
    const bool mayExtend = request.Kind() == mm::AreaKind::Data && mm::FindProtection(request.Protection)->Writable;
    if (!mayExtend || !mm::CanBeMapped(*sectionSize)) return STATUS_SECTION_TOO_BIG;
    *fileSize = *sectionSize;
    return io::SetFileSize(file, *sectionSize);
}

[[nodiscard]] NTSTATUS FillSection(SectionBody* section, PFILE_OBJECT file, const SectionRequest& request)
{
    const fsrtl::SectionAcquisition acquisition(file);
    LONGLONG fileSize;
    const NTSTATUS status = AgreeOnSize(file, request, &fileSize, &section->Size);
    if (!NT_SUCCESS(status)) return status;
    section->Protection = request.Protection;
    mm::ControlArea* area;
    const NTSTATUS referenced = mm::ReferenceArea(file, request.Kind(), fileSize, &area);
    if (NT_SUCCESS(referenced)) section->Area = area;
    return referenced;
}

[[nodiscard]] NTSTATUS NewSection(const SectionRequest& request, KPROCESSOR_MODE mode, void** body)
{
    void* object;
    NTSTATUS status = ob::ReferenceObjectByHandle(request.File, mm::FindProtection(request.Protection)->File,
                                                  IoFileObjectType, mode, &object, nullptr);
    if (!NT_SUCCESS(status)) return status;
    auto* const file = static_cast<PFILE_OBJECT>(object);
    *body = FaultInjected("NtCreateSection") ? nullptr : ob::CreateObject(&SectionType, sizeof(SectionBody));
    if (!file->SectionObjectPointer)
        status = STATUS_INVALID_FILE_FOR_SECTION;
    else if (!*body)
        status = STATUS_INSUFFICIENT_RESOURCES;
    else
        status = FillSection(static_cast<SectionBody*>(*body), file, request);
    if (!NT_SUCCESS(status) && *body) ObDereferenceObject(*body);
    ObDereferenceObject(file);
    return status;
}

NTSTATUS CreateSection(KPROCESSOR_MODE mode, PHANDLE handle, ACCESS_MASK desired, POBJECT_ATTRIBUTES objectAttributes,
                       PLARGE_INTEGER maximumSize, ULONG protection, ULONG kind, HANDLE file)
{
    NTSTATUS status = CheckKind(kind, protection);
    if (!NT_SUCCESS(status)) return status;
    status = ob::ProbeUser(handle, mode);
    if (!NT_SUCCESS(status)) return status;
    LARGE_INTEGER size{};
    if (maximumSize && !NT_SUCCESS(status = ob::ReadUser(maximumSize, &size, mode))) return status;
    ob::CapturedAttributes attributes;
    status = ob::CaptureObjectAttributes(objectAttributes, mode, &attributes);
    if (!NT_SUCCESS(status)) return status;
    // Handles on directories are not given out, so no name can be relative to one.
    if (attributes.RootDirectory) return STATUS_OBJECT_TYPE_MISMATCH;
    const ACCESS_MASK granted = ob::MapAccess(desired, &SectionType, SECTION_ALL_ACCESS);
    if (granted & ~SectionType.ValidAccess) return STATUS_ACCESS_DENIED;
    if (!file) return size.QuadPart ? STATUS_NOT_SUPPORTED : STATUS_INVALID_PARAMETER_4; // no paging file

    void* body;
    status = NewSection({desired, protection, kind, size.QuadPart, file}, mode, &body);
    return NT_SUCCESS(status) ? ob::NameAndReturn(body, attributes, granted, mode, handle) : status;
}

} // namespace

OBJECT_TYPE SectionType{.Name = "Section",
                        .Mapping = {STANDARD_RIGHTS_READ | SECTION_QUERY | SECTION_MAP_READ,
                                    STANDARD_RIGHTS_WRITE | SECTION_MAP_WRITE,
                                    STANDARD_RIGHTS_EXECUTE | SECTION_MAP_EXECUTE, SECTION_ALL_ACCESS},
                        .ValidAccess = SECTION_ALL_ACCESS | SYNCHRONIZE,
                        .UsesDispatcherHeader = false,
                        .WaitOffset = 0,
                        .Close = ob::RemoveNameWithLastHandle,
                        .Delete = DeleteSection,
                        .Live = {}};

} // namespace nthost::zw

NTHOST_SERVICE_PAIR(CreateSection, nthost::zw::CreateSection,
                    (PHANDLE SectionHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                     PLARGE_INTEGER MaximumSize, ULONG SectionPageProtection, ULONG AllocationAttributes,
                     HANDLE FileHandle),
                    SectionHandle, DesiredAccess, ObjectAttributes, MaximumSize, SectionPageProtection,
                    AllocationAttributes, FileHandle)
