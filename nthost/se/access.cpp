// Access checks. The question is a subject, a descriptor and the access wanted; tokens and descriptors do not change
// while it is answered, since the caller keeps both.

#include <array>

#include "ke/thread.h"
#include "rtl/acl.h"
#include "rtl/descriptor.h"
#include "se/token.h"

namespace nthost::se {

namespace {

constexpr ULONG kPrivilegeTag = 0x72507253; // "SrPr"

// What privileges gave, and which they were.
struct ByPrivilege {
    ACCESS_MASK Granted = 0;
    std::array<ULONG, 2> Used = {};
    ULONG Count = 0;

    void Take(ACCESS_MASK right, ULONG privilege)
    {
        Granted |= right;
        Used[Count++] = privilege;
    }
};

// The right to the audit list is a matter of privilege alone; that to take ownership is one as well.
[[nodiscard]] NTSTATUS GrantByPrivilege(const Token& token, ACCESS_MASK wanted, ByPrivilege* result)
{
    if (wanted & ACCESS_SYSTEM_SECURITY) {
        if (!HasPrivilege(token, SE_SECURITY_PRIVILEGE)) return STATUS_PRIVILEGE_NOT_HELD;
        result->Take(ACCESS_SYSTEM_SECURITY, SE_SECURITY_PRIVILEGE);
    }
    if ((wanted & WRITE_OWNER) && HasPrivilege(token, SE_TAKE_OWNERSHIP_PRIVILEGE))
        result->Take(WRITE_OWNER, SE_TAKE_OWNERSHIP_PRIVILEGE);
    return STATUS_SUCCESS;
}

bool Applies(const rtl::Ace* ace) { return !(ace->Header.AceFlags & INHERIT_ONLY_ACE); }

// An entry for the owner's rights takes the place of those that an owner has by nature.
ACCESS_MASK RightsOfOwner(PACL dacl, bool isOwner)
{
    if (!isOwner) return 0;
    ACCESS_MASK rights = READ_CONTROL | WRITE_DAC;
    rtl::ForEachAce(dacl, [&](rtl::Ace* ace) {
        if (Applies(ace) && RtlEqualSid(rtl::SidOf(ace), SeExports->SeOwnerRightsSid)) rights = 0;
    });
    return rights;
}

// Everything that the list gives: for each right the first entry that has it decides.
ACCESS_MASK GrantedByList(PACL dacl, const Token& token, bool isOwner)
{
    ACCESS_MASK granted = 0, denied = 0;
    rtl::ForEachAce(dacl, [&](rtl::Ace* ace) {
        if (!Applies(ace)) return;
        const bool allows = ace->Header.AceType == ACCESS_ALLOWED_ACE_TYPE;
        PSID const sid = rtl::SidOf(ace);
        if (!Matches(token, sid, allows ? Entry::Allows : Entry::Denies) &&
            !(isOwner && RtlEqualSid(sid, SeExports->SeOwnerRightsSid)))
            return;
        if (allows)
            granted |= ace->Mask & ~denied;
        else if (ace->Header.AceType == ACCESS_DENIED_ACE_TYPE)
            denied |= ace->Mask & ~granted;
    });
    return granted & ~ACCESS_SYSTEM_SECURITY;
}

struct Question {
    const Token& Asker;
    ACCESS_MASK Desired; // specific rights, perhaps with MAXIMUM_ALLOWED
    ACCESS_MASK Everything;
};

// All that the asker can have of this descriptor, without privileges.
ACCESS_MASK Allowed(const rtl::DescriptorParts& parts, const Question& question)
{
    if (!parts.Dacl) return question.Everything | (question.Desired & ~(MAXIMUM_ALLOWED | ACCESS_SYSTEM_SECURITY));
    const bool isOwner = parts.Owner && Matches(question.Asker, parts.Owner, Entry::Allows);
    return RightsOfOwner(parts.Dacl, isOwner) | GrantedByList(parts.Dacl, question.Asker, isOwner);
}

[[nodiscard]] NTSTATUS Decide(const rtl::DescriptorParts& parts, const Question& question, ByPrivilege* privileges,
                              ACCESS_MASK* granted)
{
    const ACCESS_MASK wanted = question.Desired & ~MAXIMUM_ALLOWED;
    if (const NTSTATUS status = GrantByPrivilege(question.Asker, wanted, privileges); !NT_SUCCESS(status))
        return status;
    const ACCESS_MASK allowed = Allowed(parts, question) | privileges->Granted;
    if (wanted & ~allowed) return STATUS_ACCESS_DENIED;
    *granted = question.Desired & MAXIMUM_ALLOWED ? allowed : wanted;
    return *granted ? STATUS_SUCCESS : STATUS_ACCESS_DENIED;
}

[[nodiscard]] NTSTATUS ReturnPrivileges(const ByPrivilege& privileges, PPRIVILEGE_SET* set)
{
    if (!privileges.Count || !set) return STATUS_SUCCESS;
    const SIZE_T size = sizeof(PRIVILEGE_SET) + sizeof(LUID_AND_ATTRIBUTES) * (privileges.Count - 1);
    auto* const block = static_cast<PPRIVILEGE_SET>(ExAllocatePoolWithTag(PagedPool, size, kPrivilegeTag));
    if (!block) return STATUS_INSUFFICIENT_RESOURCES;
    block->PrivilegeCount = privileges.Count;
    block->Control = PRIVILEGE_SET_ALL_NECESSARY;
    for (ULONG i = 0; i < privileges.Count; ++i)
        block->Privilege[i] = {{privileges.Used[i], 0}, SE_PRIVILEGE_USED_FOR_ACCESS};
    *set = block;
    return STATUS_SUCCESS;
}

ACCESS_MASK GrantKernel(ACCESS_MASK desired, ACCESS_MASK everything)
{
    return desired & MAXIMUM_ALLOWED ? (desired & ~MAXIMUM_ALLOWED) | everything : desired;
}

struct Answer {
    NTSTATUS Status;
    ACCESS_MASK Granted;
};

Answer CheckUser(PSECURITY_DESCRIPTOR descriptor, const SECURITY_SUBJECT_CONTEXT& subject, ACCESS_MASK desired,
                 ACCESS_MASK everything, PPRIVILEGE_SET* set)
{
    if (!descriptor) return {STATUS_ACCESS_DENIED, 0};
    if (subject.ClientToken && subject.ImpersonationLevel < SecurityImpersonation)
        return {STATUS_BAD_IMPERSONATION_LEVEL, 0};
    const auto* const token =
        static_cast<const Token*>(subject.ClientToken ? subject.ClientToken : subject.PrimaryToken);
    ByPrivilege privileges;
    ACCESS_MASK granted = 0;
    NTSTATUS status = Decide(rtl::PartsOf(descriptor), {*token, desired, everything}, &privileges, &granted);
    if (NT_SUCCESS(status)) status = ReturnPrivileges(privileges, set);
    return {status, NT_SUCCESS(status) ? granted : 0};
}

} // namespace

} // namespace nthost::se

using namespace nthost::se;

BOOLEAN NTAPI SeAccessCheck(PSECURITY_DESCRIPTOR SecurityDescriptor, PSECURITY_SUBJECT_CONTEXT SubjectSecurityContext,
                            BOOLEAN, ACCESS_MASK DesiredAccess, ACCESS_MASK PreviouslyGrantedAccess,
                            PPRIVILEGE_SET* Privileges, PGENERIC_MAPPING GenericMapping, KPROCESSOR_MODE AccessMode,
                            PACCESS_MASK GrantedAccess, PNTSTATUS AccessStatus)
{
    if (Privileges) *Privileges = nullptr;
    ACCESS_MASK desired = DesiredAccess;
    RtlMapGenericMask(&desired, GenericMapping);

    Answer answer = {STATUS_SUCCESS, 0};
    if (AccessMode == KernelMode)
        answer.Granted = GrantKernel(desired, GenericMapping->GenericAll);
    else if (desired || !PreviouslyGrantedAccess) // else nothing is left to ask for
        answer =
            CheckUser(SecurityDescriptor, *SubjectSecurityContext, desired, GenericMapping->GenericAll, Privileges);
    *AccessStatus = answer.Status;
    *GrantedAccess = NT_SUCCESS(answer.Status) ? answer.Granted | PreviouslyGrantedAccess : 0;
    return NT_SUCCESS(answer.Status);
}

VOID NTAPI SeFreePrivileges(PPRIVILEGE_SET Privileges) { ExFreePoolWithTag(Privileges, 0); }
