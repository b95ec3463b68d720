// Security descriptors, absolute and self-relative. Works on the caller's memory only, so any IRQL.

#include "rtl/descriptor.h"

#include <cstring>

namespace {

template <typename Part>
Part At(PSECURITY_DESCRIPTOR descriptor, ULONG offset)
{
    return offset ? reinterpret_cast<Part>(static_cast<char*>(descriptor) + offset) : nullptr;
}

bool IsKnown(PSECURITY_DESCRIPTOR descriptor)
{
    return static_cast<SECURITY_DESCRIPTOR*>(descriptor)->Revision == SECURITY_DESCRIPTOR_REVISION;
}

BOOLEAN Flag(SECURITY_DESCRIPTOR_CONTROL control, SECURITY_DESCRIPTOR_CONTROL bit) { return (control & bit) != 0; }

ULONG Padded(ULONG size) { return (size + 3) & ~3u; }
ULONG SizeOf(PSID sid) { return sid ? RtlLengthSid(sid) : 0; }
ULONG SizeOf(PACL acl) { return acl ? acl->AclSize : 0; }

// Copies a part behind what is there and returns its offset; 0 for none.
template <typename Part>
ULONG Append(char* block, ULONG* used, Part part)
{
    if (!part) return 0;
    const ULONG at = *used;
    std::memcpy(block + at, part, SizeOf(part));
    *used += Padded(SizeOf(part));
    return at;
}

NTSTATUS GetOwner(PSECURITY_DESCRIPTOR descriptor, PSID part, SECURITY_DESCRIPTOR_CONTROL defaultedBit, PSID* result,
                  PBOOLEAN defaulted)
{
    *result = part;
    if (part) *defaulted = Flag(static_cast<SECURITY_DESCRIPTOR*>(descriptor)->Control, defaultedBit);
    return STATUS_SUCCESS;
}

} // namespace

namespace nthost::rtl {

DescriptorParts PartsOf(PSECURITY_DESCRIPTOR descriptor)
{
    const auto& absolute = *static_cast<SECURITY_DESCRIPTOR*>(descriptor);
    DescriptorParts parts = {};
    if (absolute.Control & SE_SELF_RELATIVE) {
        const auto& relative = *static_cast<SECURITY_DESCRIPTOR_RELATIVE*>(descriptor);
        parts = {relative.Control, At<PSID>(descriptor, relative.Owner), At<PSID>(descriptor, relative.Group),
                 At<PACL>(descriptor, relative.Sacl), At<PACL>(descriptor, relative.Dacl)};
    } else {
        parts = {absolute.Control, absolute.Owner, absolute.Group, absolute.Sacl, absolute.Dacl};
    }
    if (!(parts.Control & SE_SACL_PRESENT)) parts.Sacl = nullptr;
    if (!(parts.Control & SE_DACL_PRESENT)) parts.Dacl = nullptr;
    return parts;
}

SECURITY_DESCRIPTOR AbsoluteOf(const DescriptorParts& parts)
{
    const auto control = static_cast<SECURITY_DESCRIPTOR_CONTROL>(parts.Control & ~SE_SELF_RELATIVE);
    return {SECURITY_DESCRIPTOR_REVISION, 0, control, parts.Owner, parts.Group, parts.Sacl, parts.Dacl};
}

} // namespace nthost::rtl

using nthost::rtl::PartsOf;

NTSTATUS NTAPI RtlCreateSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, ULONG Revision)
{
    if (Revision != SECURITY_DESCRIPTOR_REVISION) return STATUS_UNKNOWN_REVISION;
    *static_cast<SECURITY_DESCRIPTOR*>(SecurityDescriptor) = {
        SECURITY_DESCRIPTOR_REVISION, 0, 0, nullptr, nullptr, nullptr, nullptr};
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlSetDaclSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, BOOLEAN DaclPresent, PACL Dacl,
                                            BOOLEAN DaclDefaulted)
{
    auto& absolute = *static_cast<SECURITY_DESCRIPTOR*>(SecurityDescriptor);
    if (!IsKnown(SecurityDescriptor)) return STATUS_UNKNOWN_REVISION;
    if (absolute.Control & SE_SELF_RELATIVE) return STATUS_INVALID_SECURITY_DESCR;
    absolute.Control &= static_cast<SECURITY_DESCRIPTOR_CONTROL>(~(SE_DACL_PRESENT | SE_DACL_DEFAULTED));
    if (!DaclPresent) return STATUS_SUCCESS;
    absolute.Dacl = Dacl;
    absolute.Control |= SE_DACL_PRESENT | (DaclDefaulted ? SE_DACL_DEFAULTED : 0);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlGetOwnerSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PSID* Owner,
                                             PBOOLEAN OwnerDefaulted)
{
    if (!IsKnown(SecurityDescriptor)) return STATUS_UNKNOWN_REVISION;
    return GetOwner(SecurityDescriptor, PartsOf(SecurityDescriptor).Owner, SE_OWNER_DEFAULTED, Owner, OwnerDefaulted);
}

NTSTATUS NTAPI RtlGetGroupSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PSID* Group,
                                             PBOOLEAN GroupDefaulted)
{
    if (!IsKnown(SecurityDescriptor)) return STATUS_UNKNOWN_REVISION;
    return GetOwner(SecurityDescriptor, PartsOf(SecurityDescriptor).Group, SE_GROUP_DEFAULTED, Group, GroupDefaulted);
}

NTSTATUS NTAPI RtlGetSaclSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PBOOLEAN SaclPresent, PACL* Sacl,
                                            PBOOLEAN SaclDefaulted)
{
    if (!IsKnown(SecurityDescriptor)) return STATUS_UNKNOWN_REVISION;
    const nthost::rtl::DescriptorParts parts = PartsOf(SecurityDescriptor);
    *SaclPresent = Flag(parts.Control, SE_SACL_PRESENT);
    if (!*SaclPresent) return STATUS_SUCCESS;
    *Sacl = parts.Sacl;
    *SaclDefaulted = Flag(parts.Control, SE_SACL_DEFAULTED);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlGetDaclSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PBOOLEAN DaclPresent, PACL* Dacl,
                                            PBOOLEAN DaclDefaulted)
{
    if (!IsKnown(SecurityDescriptor)) return STATUS_UNKNOWN_REVISION;
    const nthost::rtl::DescriptorParts parts = PartsOf(SecurityDescriptor);
    *DaclPresent = Flag(parts.Control, SE_DACL_PRESENT);
    if (!*DaclPresent) return STATUS_SUCCESS;
    *Dacl = parts.Dacl;
    *DaclDefaulted = Flag(parts.Control, SE_DACL_DEFAULTED);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI RtlAbsoluteToSelfRelativeSD(PSECURITY_DESCRIPTOR AbsoluteSecurityDescriptor,
                                           PSECURITY_DESCRIPTOR SelfRelativeSecurityDescriptor, PULONG BufferLength)
{
    const nthost::rtl::DescriptorParts parts = PartsOf(AbsoluteSecurityDescriptor);
    if (parts.Control & SE_SELF_RELATIVE) return STATUS_BAD_DESCRIPTOR_FORMAT;
    const ULONG room = *BufferLength;
    *BufferLength = static_cast<ULONG>(sizeof(SECURITY_DESCRIPTOR_RELATIVE)) + Padded(SizeOf(parts.Owner)) +
                    Padded(SizeOf(parts.Group)) + Padded(SizeOf(parts.Sacl)) + Padded(SizeOf(parts.Dacl));
    if (room < *BufferLength) return STATUS_BUFFER_TOO_SMALL;

    auto* const block = static_cast<char*>(SelfRelativeSecurityDescriptor);
    std::memset(block, 0, *BufferLength);
    auto& relative = *static_cast<SECURITY_DESCRIPTOR_RELATIVE*>(SelfRelativeSecurityDescriptor);
    relative.Revision = SECURITY_DESCRIPTOR_REVISION;
    relative.Control = parts.Control | SE_SELF_RELATIVE;
    ULONG used = sizeof(SECURITY_DESCRIPTOR_RELATIVE);
    relative.Sacl = Append(block, &used, parts.Sacl);
    relative.Dacl = Append(block, &used, parts.Dacl);
    relative.Owner = Append(block, &used, parts.Owner);
    relative.Group = Append(block, &used, parts.Group);
    return STATUS_SUCCESS;
}
