// The service that sets security descriptors. A user's descriptor is copied part by part before anything is judged,
// since it can change meanwhile.
#include <vector>

#include <nthost/faults.h>

#include "io/device.h"
#include "io/device_security.h"
#include "ob/handle.h"
#include "ob/service.h"
#include "ke/thread.h"
#include "rtl/descriptor.h"
#include "se/token.h"
#include "ob/capture.h"

namespace nthost::zw {

namespace {

// A copy of a caller's descriptor in the absolute form.
class CapturedDescriptor {
public:
    // STATUS_UNKNOWN_REVISION, STATUS_INVALID_SID, STATUS_INVALID_ACL, or what the caller's addresses give.
    [[nodiscard]] NTSTATUS Capture(PSECURITY_DESCRIPTOR from, KPROCESSOR_MODE mode);
    SECURITY_DESCRIPTOR* Get() { return &absolute_; }

private:
    [[nodiscard]] NTSTATUS ReadHeader(PSECURITY_DESCRIPTOR from, KPROCESSOR_MODE mode);
    [[nodiscard]] NTSTATUS CaptureSid(PSID* sid, std::vector<UCHAR>* copy, KPROCESSOR_MODE mode);
    [[nodiscard]] NTSTATUS CaptureAcl(PACL* acl, std::vector<UCHAR>* copy, KPROCESSOR_MODE mode);

    SECURITY_DESCRIPTOR absolute_{};
    std::vector<UCHAR> owner_, group_, sacl_, dacl_;
};

template <typename Part>
Part PartAt(PSECURITY_DESCRIPTOR from, ULONG offset)
{
    return offset ? reinterpret_cast<Part>(static_cast<char*>(from) + offset) : nullptr;
}

// The addresses of the parts, still the caller's.
NTSTATUS CapturedDescriptor::ReadHeader(PSECURITY_DESCRIPTOR from, KPROCESSOR_MODE mode)
{
    SECURITY_DESCRIPTOR_RELATIVE relative;
    NTSTATUS status = ob::ReadUser(static_cast<SECURITY_DESCRIPTOR_RELATIVE*>(from), &relative, mode);
    if (!NT_SUCCESS(status)) return status;
    if (relative.Revision != SECURITY_DESCRIPTOR_REVISION) return STATUS_UNKNOWN_REVISION;
    if (relative.Control & SE_SELF_RELATIVE) {
        absolute_ =
            rtl::AbsoluteOf({relative.Control, PartAt<PSID>(from, relative.Owner), PartAt<PSID>(from, relative.Group),
                             PartAt<PACL>(from, relative.Sacl), PartAt<PACL>(from, relative.Dacl)});
        return STATUS_SUCCESS;
    }
    status = ob::ReadUser(static_cast<SECURITY_DESCRIPTOR*>(from), &absolute_, mode);
    absolute_.Control = relative.Control; // read once
    return status;
}

NTSTATUS CapturedDescriptor::CaptureSid(PSID* sid, std::vector<UCHAR>* copy, KPROCESSOR_MODE mode)
{
    if (!*sid) return STATUS_SUCCESS;
    UCHAR head[2]; // revision and count
    NTSTATUS status = ob::CopyFromUser(head, *sid, sizeof head, 1, mode);
    if (!NT_SUCCESS(status)) return status;
    if (head[0] != SID_REVISION || head[1] > SID_MAX_SUB_AUTHORITIES) return STATUS_INVALID_SID;
    copy->resize(FIELD_OFFSET(SID, SubAuthority) + head[1] * sizeof(ULONG));
    status = ob::CopyFromUser(copy->data(), *sid, copy->size(), 1, mode);
    if (!NT_SUCCESS(status)) return status;
    (*copy)[1] = head[1];
    *sid = copy->data();
    return RtlValidSid(*sid) ? STATUS_SUCCESS : STATUS_INVALID_SID;
}

NTSTATUS CapturedDescriptor::CaptureAcl(PACL* acl, std::vector<UCHAR>* copy, KPROCESSOR_MODE mode)
{
    if (!*acl) return STATUS_SUCCESS;
    ACL header;
    NTSTATUS status = ob::CopyFromUser(&header, *acl, sizeof header, alignof(ACL), mode);
    if (!NT_SUCCESS(status)) return status;
    if (header.AclSize < sizeof(ACL)) return STATUS_INVALID_ACL;
    copy->resize(header.AclSize);
    status = ob::CopyFromUser(copy->data(), *acl, header.AclSize, alignof(ACL), mode);
    if (!NT_SUCCESS(status)) return status;
    *acl = reinterpret_cast<PACL>(copy->data());
    (*acl)->AclSize = header.AclSize;
    return RtlValidAcl(*acl) ? STATUS_SUCCESS : STATUS_INVALID_ACL;
}

NTSTATUS CapturedDescriptor::Capture(PSECURITY_DESCRIPTOR from, KPROCESSOR_MODE mode)
{
    NTSTATUS status = ReadHeader(from, mode);
    if (!(absolute_.Control & SE_SACL_PRESENT)) absolute_.Sacl = nullptr;
    if (!(absolute_.Control & SE_DACL_PRESENT)) absolute_.Dacl = nullptr;
    if (NT_SUCCESS(status)) status = CaptureSid(&absolute_.Owner, &owner_, mode);
    if (NT_SUCCESS(status)) status = CaptureSid(&absolute_.Group, &group_, mode);
    if (NT_SUCCESS(status)) status = CaptureAcl(&absolute_.Sacl, &sacl_, mode);
    if (NT_SUCCESS(status)) status = CaptureAcl(&absolute_.Dacl, &dacl_, mode);
    return status;
}

ACCESS_MASK AccessToSet(SECURITY_INFORMATION information)
{
    ACCESS_MASK access = 0;
    if (information & (OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION)) access |= WRITE_OWNER;
    if (information & DACL_SECURITY_INFORMATION) access |= WRITE_DAC;
    if (information & SACL_SECURITY_INFORMATION) access |= ACCESS_SYSTEM_SECURITY;
    return access;
}

bool MayMakeOwner(PSID owner)
{
    const se::Token& token = *ke::CurrentThread()->ActsFor->Token;
    return se::Matches(token, owner, se::Entry::Allows) || se::HasPrivilege(token, SE_RESTORE_PRIVILEGE);
}

[[nodiscard]] NTSTATUS CheckOwners(const SECURITY_DESCRIPTOR& given, SECURITY_INFORMATION information,
                                   KPROCESSOR_MODE mode)
{
    const bool setsOwner = information & OWNER_SECURITY_INFORMATION;
    if (setsOwner && !given.Owner) return STATUS_INVALID_SECURITY_DESCR;
    if ((information & GROUP_SECURITY_INFORMATION) && !given.Group) return STATUS_INVALID_SECURITY_DESCR;
    return setsOwner && mode != KernelMode && !MayMakeOwner(given.Owner) ? STATUS_INVALID_OWNER : STATUS_SUCCESS;
}

NTSTATUS SetOn(void* object, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR descriptor, KPROCESSOR_MODE mode)
{
    CapturedDescriptor given;
    NTSTATUS status = given.Capture(descriptor, mode);
    if (NT_SUCCESS(status)) status = CheckOwners(*given.Get(), information, mode);
    if (!NT_SUCCESS(status)) return status;
    if (ob::TypeOf(object) != &io::DeviceType) return STATUS_NOT_SUPPORTED;
    io::ReplaceDeviceSecurity(static_cast<PDEVICE_OBJECT>(object), information, given.Get());
    return STATUS_SUCCESS;
}

NTSTATUS SetSecurityObject(KPROCESSOR_MODE mode, HANDLE handle, SECURITY_INFORMATION information,
                           PSECURITY_DESCRIPTOR descriptor)
{
    if (mode == KernelMode && FaultInjected("ZwSetSecurityObject")) return STATUS_INSUFFICIENT_RESOURCES;
    if (!descriptor) return STATUS_ACCESS_VIOLATION;
    void* object;
    NTSTATUS status = ob::ReferenceObjectByHandle(handle, AccessToSet(information), nullptr, mode, &object, nullptr);
    if (!NT_SUCCESS(status)) return status;
    status = SetOn(object, information, descriptor, mode);
    ObDereferenceObject(object);
    return status;
}

} // namespace

} // namespace nthost::zw

NTHOST_SERVICE_PAIR(SetSecurityObject, nthost::zw::SetSecurityObject,
                    (HANDLE Handle, SECURITY_INFORMATION SecurityInformation, PSECURITY_DESCRIPTOR SecurityDescriptor),
                    Handle, SecurityInformation, SecurityDescriptor)
