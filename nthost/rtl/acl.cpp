// SIDs and access-control lists as blocks of bytes: measuring, comparing, checking, building. Works on the caller's
// memory only, so any IRQL.

#include "rtl/acl.h"

#include <cstring>

namespace {

// The valid revisions of a list.
bool IsRevision(ULONG revision) { return revision >= ACL_REVISION && revision <= ACL_REVISION_DS; }

// Whether the entry lies in the list's remaining bytes, with the SID that it says it has.
bool IsWithin(nthost::rtl::Ace* ace, size_t remaining)
{
    if (remaining < sizeof(ACE_HEADER)) return false;
    const size_t size = ace->Header.AceSize;
    if (size < sizeof(ACE_HEADER) || size % sizeof(ULONG) || size > remaining) return false;
    if (ace->Header.AceType > SYSTEM_AUDIT_ACE_TYPE) return true;
    constexpr size_t fixed = FIELD_OFFSET(nthost::rtl::Ace, SidStart);
    if (size < fixed + FIELD_OFFSET(SID, SubAuthority)) return false;
    PSID const sid = nthost::rtl::SidOf(ace);
    return RtlValidSid(sid) && size >= fixed + RtlLengthSid(sid);
}

// Where the next entry goes; null if the entries do not add up.
char* EndOfEntries(PACL acl)
{
    if (!RtlValidAcl(acl)) return nullptr;
    nthost::rtl::Ace* ace = nthost::rtl::FirstAce(acl);
    for (USHORT i = 0; i < acl->AceCount; ++i) ace = nthost::rtl::NextAce(ace);
    return reinterpret_cast<char*>(ace);
}

} // namespace

namespace nthost::rtl {

NTSTATUS AddAce(PACL acl, ULONG revision, const NewAce& entry)
{
    if (!IsRevision(revision) || !IsRevision(acl->AclRevision)) return STATUS_REVISION_MISMATCH;
    if (!RtlValidSid(entry.Sid)) return STATUS_INVALID_SID;
    char* const end = EndOfEntries(acl);
    if (!end) return STATUS_INVALID_ACL;

    const ULONG sidLength = RtlLengthSid(entry.Sid);
    const size_t size = FIELD_OFFSET(Ace, SidStart) + sidLength;
    if (static_cast<size_t>(end - reinterpret_cast<char*>(acl)) + size > acl->AclSize)
        return STATUS_ALLOTTED_SPACE_EXCEEDED;
    auto* const ace = reinterpret_cast<Ace*>(end);
    ace->Header = {entry.Type, entry.Flags, static_cast<USHORT>(size)};
    ace->Mask = entry.Mask;
    std::memcpy(SidOf(ace), entry.Sid, sidLength);
    ++acl->AceCount;
    if (revision > acl->AclRevision) acl->AclRevision = static_cast<UCHAR>(revision);
    return STATUS_SUCCESS;
}

} // namespace nthost::rtl

BOOLEAN NTAPI RtlValidSid(PSID Sid)
{
    const auto* const sid = static_cast<const SID*>(Sid);
    return sid && sid->Revision == SID_REVISION && sid->SubAuthorityCount <= SID_MAX_SUB_AUTHORITIES;
}

ULONG NTAPI RtlLengthSid(PSID Sid)
{
    const auto* const sid = static_cast<const SID*>(Sid);
    return FIELD_OFFSET(SID, SubAuthority) + sid->SubAuthorityCount * static_cast<ULONG>(sizeof(ULONG));
}

BOOLEAN NTAPI RtlEqualSid(PSID Sid1, PSID Sid2)
{
    const ULONG length = RtlLengthSid(Sid1);
    return length == RtlLengthSid(Sid2) && std::memcmp(Sid1, Sid2, length) == 0;
}

VOID NTAPI RtlMapGenericMask(PACCESS_MASK AccessMask, const GENERIC_MAPPING* GenericMapping)
{
    ACCESS_MASK mask = *AccessMask & ~(GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL);
    if (*AccessMask & GENERIC_READ) mask |= GenericMapping->GenericRead;
    if (*AccessMask & GENERIC_WRITE) mask |= GenericMapping->GenericWrite;
    if (*AccessMask & GENERIC_EXECUTE) mask |= GenericMapping->GenericExecute;
    if (*AccessMask & GENERIC_ALL) mask |= GenericMapping->GenericAll;
    *AccessMask = mask;
}

NTSTATUS NTAPI RtlCreateAcl(PACL Acl, ULONG AclLength, ULONG AclRevision)
{
    if (AclLength < sizeof(ACL)) return STATUS_BUFFER_TOO_SMALL;
    if (!IsRevision(AclRevision) || AclLength > MAXUSHORT) return STATUS_INVALID_PARAMETER;
    *Acl = {};
    Acl->AclRevision = static_cast<UCHAR>(AclRevision);
    Acl->AclSize = static_cast<USHORT>(AclLength & ~3u);
    return STATUS_SUCCESS;
}

BOOLEAN NTAPI RtlValidAcl(PACL Acl)
{
    if (!IsRevision(Acl->AclRevision) || Acl->AclSize < sizeof(ACL)) return FALSE;
    size_t remaining = Acl->AclSize - sizeof(ACL);
    nthost::rtl::Ace* ace = nthost::rtl::FirstAce(Acl);
    for (USHORT i = 0; i < Acl->AceCount; ++i) {
        if (!IsWithin(ace, remaining)) return FALSE;
        remaining -= ace->Header.AceSize;
        ace = nthost::rtl::NextAce(ace);
    }
    return TRUE;
}

NTSTATUS NTAPI RtlAddAccessAllowedAce(PACL Acl, ULONG AceRevision, ACCESS_MASK AccessMask, PSID Sid)
{
    return nthost::rtl::AddAce(Acl, AceRevision, {ACCESS_ALLOWED_ACE_TYPE, 0, AccessMask, Sid});
}
