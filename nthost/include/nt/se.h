// Security: SIDs, ACLs, descriptors, access checks. Descriptors come in two forms: absolute (SECURITY_DESCRIPTOR, with
// addresses) and self-relative (SECURITY_DESCRIPTOR_RELATIVE, one block, with offsets). Routines that only read take
// both.
#pragma once

#include "base.h"
#include "io.h"
#include "status.h"

NT_EXTERN_C_BEGIN

typedef struct _LUID {
    ULONG LowPart;
    LONG HighPart;
} LUID, *PLUID;

typedef struct _LUID_AND_ATTRIBUTES {
    LUID Luid;
    ULONG Attributes;
} LUID_AND_ATTRIBUTES, *PLUID_AND_ATTRIBUTES;

typedef struct _PRIVILEGE_SET {
    ULONG PrivilegeCount;
    ULONG Control;
    LUID_AND_ATTRIBUTES Privilege[ANYSIZE_ARRAY];
} PRIVILEGE_SET, *PPRIVILEGE_SET;
#define PRIVILEGE_SET_ALL_NECESSARY       1
#define SE_PRIVILEGE_USED_FOR_ACCESS      0x80000000u
#define SE_SECURITY_PRIVILEGE             8
#define SE_TAKE_OWNERSHIP_PRIVILEGE       9
#define SE_RESTORE_PRIVILEGE              18
#define SE_CHANGE_NOTIFY_PRIVILEGE        23
#define SE_CREATE_SYMBOLIC_LINK_PRIVILEGE 35

#define SID_REVISION            1
#define SID_MAX_SUB_AUTHORITIES 15

typedef struct _SID_IDENTIFIER_AUTHORITY {
    UCHAR Value[6]; // most significant first
} SID_IDENTIFIER_AUTHORITY, *PSID_IDENTIFIER_AUTHORITY;

typedef struct _SID {
    UCHAR Revision;
    UCHAR SubAuthorityCount;
    SID_IDENTIFIER_AUTHORITY IdentifierAuthority;
    ULONG SubAuthority[ANYSIZE_ARRAY];
} SID, *PISID;

#define ACL_REVISION    2
#define ACL_REVISION_DS 4

typedef struct _ACL {
    UCHAR AclRevision;
    UCHAR Sbz1;
    USHORT AclSize;
    USHORT AceCount;
    USHORT Sbz2;
} ACL, *PACL;

typedef struct _ACE_HEADER {
    UCHAR AceType;
    UCHAR AceFlags;
    USHORT AceSize;
} ACE_HEADER, *PACE_HEADER;

#define ACCESS_ALLOWED_ACE_TYPE 0
#define ACCESS_DENIED_ACE_TYPE  1
#define SYSTEM_AUDIT_ACE_TYPE   2

#define OBJECT_INHERIT_ACE         0x01
#define CONTAINER_INHERIT_ACE      0x02
#define NO_PROPAGATE_INHERIT_ACE   0x04
#define INHERIT_ONLY_ACE           0x08
#define INHERITED_ACE              0x10
#define VALID_INHERIT_FLAGS        0x1f
#define SUCCESSFUL_ACCESS_ACE_FLAG 0x40
#define FAILED_ACCESS_ACE_FLAG     0x80

// The denied and the audit entry have the same layout.
typedef struct _ACCESS_ALLOWED_ACE {
    ACE_HEADER Header;
    ACCESS_MASK Mask;
    ULONG SidStart;
} ACCESS_ALLOWED_ACE, *PACCESS_ALLOWED_ACE;

typedef USHORT SECURITY_DESCRIPTOR_CONTROL, *PSECURITY_DESCRIPTOR_CONTROL;
#define SE_OWNER_DEFAULTED       0x0001
#define SE_GROUP_DEFAULTED       0x0002
#define SE_DACL_PRESENT          0x0004
#define SE_DACL_DEFAULTED        0x0008
#define SE_SACL_PRESENT          0x0010
#define SE_SACL_DEFAULTED        0x0020
#define SE_DACL_AUTO_INHERIT_REQ 0x0100
#define SE_SACL_AUTO_INHERIT_REQ 0x0200
#define SE_DACL_AUTO_INHERITED   0x0400
#define SE_SACL_AUTO_INHERITED   0x0800
#define SE_DACL_PROTECTED        0x1000
#define SE_SACL_PROTECTED        0x2000
#define SE_SELF_RELATIVE         0x8000

#define SECURITY_DESCRIPTOR_REVISION 1

typedef struct _SECURITY_DESCRIPTOR {
    UCHAR Revision;
    UCHAR Sbz1;
    SECURITY_DESCRIPTOR_CONTROL Control;
    PSID Owner;
    PSID Group;
    PACL Sacl;
    PACL Dacl;
} SECURITY_DESCRIPTOR, *PISECURITY_DESCRIPTOR;

// Offsets from its own start; 0 for a part that is absent or null.
typedef struct _SECURITY_DESCRIPTOR_RELATIVE {
    UCHAR Revision;
    UCHAR Sbz1;
    SECURITY_DESCRIPTOR_CONTROL Control;
    ULONG Owner;
    ULONG Group;
    ULONG Sacl;
    ULONG Dacl;
} SECURITY_DESCRIPTOR_RELATIVE, *PISECURITY_DESCRIPTOR_RELATIVE;

typedef ULONG SECURITY_INFORMATION, *PSECURITY_INFORMATION;
#define OWNER_SECURITY_INFORMATION 0x1u
#define GROUP_SECURITY_INFORMATION 0x2u
#define DACL_SECURITY_INFORMATION  0x4u
#define SACL_SECURITY_INFORMATION  0x8u

// Privileges and SIDs that everybody knows.
typedef struct _SE_EXPORTS {
    LUID SeCreateTokenPrivilege;
    LUID SeAssignPrimaryTokenPrivilege;
    LUID SeLockMemoryPrivilege;
    LUID SeIncreaseQuotaPrivilege;
    LUID SeUnsolicitedInputPrivilege;
    LUID SeTcbPrivilege;
    LUID SeSecurityPrivilege;
    LUID SeTakeOwnershipPrivilege;
    LUID SeLoadDriverPrivilege;
    LUID SeCreatePagefilePrivilege;
    LUID SeIncreaseBasePriorityPrivilege;
    LUID SeSystemProfilePrivilege;
    LUID SeSystemtimePrivilege;
    LUID SeProfileSingleProcessPrivilege;
    LUID SeCreatePermanentPrivilege;
    LUID SeBackupPrivilege;
    LUID SeRestorePrivilege;
    LUID SeShutdownPrivilege;
    LUID SeDebugPrivilege;
    LUID SeAuditPrivilege;
    LUID SeSystemEnvironmentPrivilege;
    LUID SeChangeNotifyPrivilege;
    LUID SeRemoteShutdownPrivilege;
    PSID SeNullSid;
    PSID SeWorldSid;
    PSID SeLocalSid;
    PSID SeCreatorOwnerSid;
    PSID SeCreatorGroupSid;
    PSID SeNtAuthoritySid;
    PSID SeDialupSid;
    PSID SeNetworkSid;
    PSID SeBatchSid;
    PSID SeInteractiveSid;
    PSID SeLocalSystemSid;
    PSID SeAliasAdminsSid;
    PSID SeAliasUsersSid;
    PSID SeAliasGuestsSid;
    PSID SeAliasPowerUsersSid;
    PSID SeAliasAccountOpsSid;
    PSID SeAliasSystemOpsSid;
    PSID SeAliasPrintOpsSid;
    PSID SeAliasBackupOpsSid;
    PSID SeAuthenticatedUsersSid;
    PSID SeRestrictedSid;
    PSID SeAnonymousLogonSid;
    LUID SeUndockPrivilege;
    LUID SeSyncAgentPrivilege;
    LUID SeEnableDelegationPrivilege;
    PSID SeLocalServiceSid;
    PSID SeNetworkServiceSid;
    LUID SeManageVolumePrivilege;
    LUID SeImpersonatePrivilege;
    LUID SeCreateGlobalPrivilege;
    LUID SeTrustedCredManAccessPrivilege;
    LUID SeRelabelPrivilege;
    LUID SeIncreaseWorkingSetPrivilege;
    LUID SeTimeZonePrivilege;
    LUID SeCreateSymbolicLinkPrivilege;
    PSID SeIUserSid;
    PSID SeUntrustedMandatorySid;
    PSID SeLowMandatorySid;
    PSID SeMediumMandatorySid;
    PSID SeHighMandatorySid;
    PSID SeSystemMandatorySid;
    PSID SeOwnerRightsSid;
    PSID SeAllAppPackagesSid;
    PSID SeUserModeDriversSid;
} SE_EXPORTS, *PSE_EXPORTS;

extern PSE_EXPORTS SeExports;

NTSYSAPI BOOLEAN NTAPI RtlValidSid(PSID Sid);
NTSYSAPI BOOLEAN NTAPI RtlEqualSid(PSID Sid1, PSID Sid2);
NTSYSAPI ULONG NTAPI RtlLengthSid(PSID Sid);

// Generic rights become the specific ones of the mapping.
NTSYSAPI VOID NTAPI RtlMapGenericMask(PACCESS_MASK AccessMask, const GENERIC_MAPPING* GenericMapping);

// An empty list in a block of that many bytes. STATUS_BUFFER_TOO_SMALL, STATUS_INVALID_PARAMETER.
NTSYSAPI NTSTATUS NTAPI RtlCreateAcl(PACL Acl, ULONG AclLength, ULONG AclRevision);
// The list's header and entries lie within its size, each with a valid SID.
NTSYSAPI BOOLEAN NTAPI RtlValidAcl(PACL Acl);
// Entries go to the end of the list. STATUS_REVISION_MISMATCH, STATUS_INVALID_SID, STATUS_INVALID_ACL,
// STATUS_ALLOTTED_SPACE_EXCEEDED when the list has no room.
NTSYSAPI NTSTATUS NTAPI RtlAddAccessAllowedAce(PACL Acl, ULONG AceRevision, ACCESS_MASK AccessMask, PSID Sid);

// An absolute descriptor without parts.
NTSYSAPI NTSTATUS NTAPI RtlCreateSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, ULONG Revision);
// Of an absolute descriptor, which keeps the address it is given. STATUS_INVALID_SECURITY_DESCR for the other
// form.
NTSYSAPI NTSTATUS NTAPI RtlSetDaclSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, BOOLEAN DaclPresent,
                                                     PACL Dacl, BOOLEAN DaclDefaulted);
// An absent owner or group is null; an absent list leaves Dacl and the like untouched.
NTSYSAPI NTSTATUS NTAPI RtlGetOwnerSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PSID* Owner,
                                                      PBOOLEAN OwnerDefaulted);
NTSYSAPI NTSTATUS NTAPI RtlGetGroupSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PSID* Group,
                                                      PBOOLEAN GroupDefaulted);
NTSYSAPI NTSTATUS NTAPI RtlGetSaclSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PBOOLEAN SaclPresent,
                                                     PACL* Sacl, PBOOLEAN SaclDefaulted);
NTSYSAPI NTSTATUS NTAPI RtlGetDaclSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PBOOLEAN DaclPresent,
                                                     PACL* Dacl, PBOOLEAN DaclDefaulted);
// BufferLength: the room, then the length that is needed. STATUS_BUFFER_TOO_SMALL, STATUS_BAD_DESCRIPTOR_FORMAT for a
// descriptor that is self-relative already.
NTSYSAPI NTSTATUS NTAPI RtlAbsoluteToSelfRelativeSD(PSECURITY_DESCRIPTOR AbsoluteSecurityDescriptor,
                                                    PSECURITY_DESCRIPTOR SelfRelativeSecurityDescriptor,
                                                    PULONG BufferLength);

// The context holds its tokens until it is released.
NTKERNELAPI VOID NTAPI SeCaptureSubjectContext(PSECURITY_SUBJECT_CONTEXT SubjectContext);
// Between these two the tokens do not change.
NTKERNELAPI VOID NTAPI SeLockSubjectContext(PSECURITY_SUBJECT_CONTEXT SubjectContext);
NTKERNELAPI VOID NTAPI SeUnlockSubjectContext(PSECURITY_SUBJECT_CONTEXT SubjectContext);
NTKERNELAPI VOID NTAPI SeReleaseSubjectContext(PSECURITY_SUBJECT_CONTEXT SubjectContext);

// Whether the subject gets all that it asks for, and what it then has. KernelMode gets everything. Without a
// descriptor nobody gets anything; with a null DACL everybody gets everything. *Privileges receives those that were
// needed, to be freed with SeFreePrivileges, or null.
NTKERNELAPI BOOLEAN NTAPI SeAccessCheck(PSECURITY_DESCRIPTOR SecurityDescriptor,
                                        PSECURITY_SUBJECT_CONTEXT SubjectSecurityContext, BOOLEAN SubjectContextLocked,
                                        ACCESS_MASK DesiredAccess, ACCESS_MASK PreviouslyGrantedAccess,
                                        PPRIVILEGE_SET* Privileges, PGENERIC_MAPPING GenericMapping,
                                        KPROCESSOR_MODE AccessMode, PACCESS_MASK GrantedAccess, PNTSTATUS AccessStatus);
NTKERNELAPI VOID NTAPI SeFreePrivileges(PPRIVILEGE_SET Privileges);

// SDDL text to a self-relative descriptor in paged pool, the caller's to free; Length may be null. Owner, group and
// both lists, entries of types A, D and AU. STATUS_UNKNOWN_REVISION, STATUS_INVALID_PARAMETER, STATUS_INVALID_ACL,
// STATUS_INVALID_SID, STATUS_NONE_MAPPED.
NTKERNELAPI NTSTATUS NTAPI SeConvertStringSecurityDescriptorToSecurityDescriptor(
    PCWSTR StringSecurityDescriptor, ULONG StringSDRevision, PSECURITY_DESCRIPTOR* SecurityDescriptor,
    PULONG SecurityDescriptorSize);

// IoCreateDevice with the text's descriptor. A device without a name must have FILE_AUTOGENERATED_DEVICE_NAME. The
// class is not looked up.
NTKERNELAPI NTSTATUS NTAPI IoCreateDeviceSecure(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize,
                                                PUNICODE_STRING DeviceName, DEVICE_TYPE DeviceType,
                                                ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                                                PCUNICODE_STRING DefaultSDDLString, LPCGUID DeviceClassGuid,
                                                PDEVICE_OBJECT* DeviceObject);

NT_EXTERN_C_END
