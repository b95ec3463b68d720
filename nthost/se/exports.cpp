// The table of privileges and SIDs that everybody knows. Constant.

#include <ntifs.h>

namespace {

template <size_t N>
struct KnownSid {
    UCHAR Revision;
    UCHAR Count;
    UCHAR Authority[6];
    ULONG SubAuthorities[N ? N : 1];
};

template <typename... Numbers>
constexpr KnownSid<sizeof...(Numbers)> Known(UCHAR authority, Numbers... numbers)
{
    return {SID_REVISION, sizeof...(Numbers), {0, 0, 0, 0, 0, authority}, {static_cast<ULONG>(numbers)...}};
}

constexpr UCHAR kNt = 5;
constexpr UCHAR kMandatoryLabel = 16;
constexpr ULONG kBuiltin = 32; // the domain of the local groups

auto nobody = Known(0, 0);
auto world = Known(1, 0);
auto local = Known(2, 0);
auto creatorOwner = Known(3, 0);
auto creatorGroup = Known(3, 1);
auto ownerRights = Known(3, 4);
auto ntAuthority = Known(kNt);
auto dialup = Known(kNt, 1);
auto network = Known(kNt, 2);
auto batch = Known(kNt, 3);
auto interactive = Known(kNt, 4);
auto anonymous = Known(kNt, 7);
auto authenticated = Known(kNt, 11);
auto restricted = Known(kNt, 12);
auto iUser = Known(kNt, 17);
auto localSystem = Known(kNt, 18);
auto localService = Known(kNt, 19);
auto networkService = Known(kNt, 20);
auto admins = Known(kNt, kBuiltin, 544);
auto users = Known(kNt, kBuiltin, 545);
auto guests = Known(kNt, kBuiltin, 546);
auto powerUsers = Known(kNt, kBuiltin, 547);
auto accountOps = Known(kNt, kBuiltin, 548);
auto systemOps = Known(kNt, kBuiltin, 549);
auto printOps = Known(kNt, kBuiltin, 550);
auto backupOps = Known(kNt, kBuiltin, 551);
auto userModeDrivers = Known(kNt, 84, 0, 0, 0, 0, 0);
auto allAppPackages = Known(15, 2, 1);
auto untrustedMandatory = Known(kMandatoryLabel, 0);
auto lowMandatory = Known(kMandatoryLabel, 0x1000);
auto mediumMandatory = Known(kMandatoryLabel, 0x2000);
auto highMandatory = Known(kMandatoryLabel, 0x3000);
auto systemMandatory = Known(kMandatoryLabel, 0x4000);

SE_EXPORTS table = {
    .SeCreateTokenPrivilege = {2, 0},
    .SeAssignPrimaryTokenPrivilege = {3, 0},
    .SeLockMemoryPrivilege = {4, 0},
    .SeIncreaseQuotaPrivilege = {5, 0},
    .SeUnsolicitedInputPrivilege = {6, 0},
    .SeTcbPrivilege = {7, 0},
    .SeSecurityPrivilege = {SE_SECURITY_PRIVILEGE, 0},
    .SeTakeOwnershipPrivilege = {SE_TAKE_OWNERSHIP_PRIVILEGE, 0},
    .SeLoadDriverPrivilege = {10, 0},
    .SeCreatePagefilePrivilege = {15, 0},
    .SeIncreaseBasePriorityPrivilege = {14, 0},
    .SeSystemProfilePrivilege = {11, 0},
    .SeSystemtimePrivilege = {12, 0},
    .SeProfileSingleProcessPrivilege = {13, 0},
    .SeCreatePermanentPrivilege = {16, 0},
    .SeBackupPrivilege = {17, 0},
    .SeRestorePrivilege = {SE_RESTORE_PRIVILEGE, 0},
    .SeShutdownPrivilege = {19, 0},
    .SeDebugPrivilege = {20, 0},
    .SeAuditPrivilege = {21, 0},
    .SeSystemEnvironmentPrivilege = {22, 0},
    .SeChangeNotifyPrivilege = {SE_CHANGE_NOTIFY_PRIVILEGE, 0},
    .SeRemoteShutdownPrivilege = {24, 0},
    .SeNullSid = &nobody,
    .SeWorldSid = &world,
    .SeLocalSid = &local,
    .SeCreatorOwnerSid = &creatorOwner,
    .SeCreatorGroupSid = &creatorGroup,
    .SeNtAuthoritySid = &ntAuthority,
    .SeDialupSid = &dialup,
    .SeNetworkSid = &network,
    .SeBatchSid = &batch,
    .SeInteractiveSid = &interactive,
    .SeLocalSystemSid = &localSystem,
    .SeAliasAdminsSid = &admins,
    .SeAliasUsersSid = &users,
    .SeAliasGuestsSid = &guests,
    .SeAliasPowerUsersSid = &powerUsers,
    .SeAliasAccountOpsSid = &accountOps,
    .SeAliasSystemOpsSid = &systemOps,
    .SeAliasPrintOpsSid = &printOps,
    .SeAliasBackupOpsSid = &backupOps,
    .SeAuthenticatedUsersSid = &authenticated,
    .SeRestrictedSid = &restricted,
    .SeAnonymousLogonSid = &anonymous,
    .SeUndockPrivilege = {25, 0},
    .SeSyncAgentPrivilege = {26, 0},
    .SeEnableDelegationPrivilege = {27, 0},
    .SeLocalServiceSid = &localService,
    .SeNetworkServiceSid = &networkService,
    .SeManageVolumePrivilege = {28, 0},
    .SeImpersonatePrivilege = {29, 0},
    .SeCreateGlobalPrivilege = {30, 0},
    .SeTrustedCredManAccessPrivilege = {31, 0},
    .SeRelabelPrivilege = {32, 0},
    .SeIncreaseWorkingSetPrivilege = {33, 0},
    .SeTimeZonePrivilege = {34, 0},
    .SeCreateSymbolicLinkPrivilege = {SE_CREATE_SYMBOLIC_LINK_PRIVILEGE, 0},
    .SeIUserSid = &iUser,
    .SeUntrustedMandatorySid = &untrustedMandatory,
    .SeLowMandatorySid = &lowMandatory,
    .SeMediumMandatorySid = &mediumMandatory,
    .SeHighMandatorySid = &highMandatory,
    .SeSystemMandatorySid = &systemMandatory,
    .SeOwnerRightsSid = &ownerRights,
    .SeAllAppPackagesSid = &allAppPackages,
    .SeUserModeDriversSid = &userModeDrivers,
};

} // namespace

PSE_EXPORTS SeExports = &table;
