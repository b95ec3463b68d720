// Keeping and judging by the descriptors of devices. Replacements are made one at a time, under a lock for all devices,
// around the short one in each device's state.
#include "io/device_security.h"

#include <mutex>

#include "check/fatal.h"
#include "io/device.h"
#include "rtl/acl.h"
#include "rtl/descriptor.h"

namespace nthost::io {

namespace {

ke::WordLock g_replacing;

constexpr SECURITY_DESCRIPTOR_CONTROL kOwnerBits = SE_OWNER_DEFAULTED;
constexpr SECURITY_DESCRIPTOR_CONTROL kGroupBits = SE_GROUP_DEFAULTED;
constexpr SECURITY_DESCRIPTOR_CONTROL kSaclBits =
    SE_SACL_PRESENT | SE_SACL_DEFAULTED | SE_SACL_AUTO_INHERITED | SE_SACL_PROTECTED;
constexpr SECURITY_DESCRIPTOR_CONTROL kDaclBits =
    SE_DACL_PRESENT | SE_DACL_DEFAULTED | SE_DACL_AUTO_INHERITED | SE_DACL_PROTECTED;

DescriptorBlock SecurityOf(PDEVICE_OBJECT device)
{
    const std::lock_guard hold(StateOf(device)->Lock);
    return StateOf(device)->Security;
}

void SetSecurity(PDEVICE_OBJECT device, DescriptorBlock security)
{
    const std::lock_guard hold(StateOf(device)->Lock);
    device->SecurityDescriptor = const_cast<UCHAR*>(security->data());
    StateOf(device)->Security.swap(security);
}

// Access is checked for specific rights only.
void MapGenericRights(PACL acl)
{
    rtl::ForEachAce(acl, [](rtl::Ace* ace) {
        if (!(ace->Header.AceFlags & INHERIT_ONLY_ACE)) RtlMapGenericMask(&ace->Mask, &DeviceType.Mapping);
    });
}

DescriptorBlock ToBlock(const rtl::DescriptorParts& parts)
{
    SECURITY_DESCRIPTOR absolute = rtl::AbsoluteOf(parts);
    ULONG size = 0;
    (void)RtlAbsoluteToSelfRelativeSD(&absolute, nullptr, &size);
    auto block = std::make_shared<std::vector<UCHAR>>(size);
    if (!NT_SUCCESS(RtlAbsoluteToSelfRelativeSD(&absolute, block->data(), &size))) Fatal("a descriptor grew");
    const rtl::DescriptorParts copied = rtl::PartsOf(block->data());
    MapGenericRights(copied.Dacl);
    MapGenericRights(copied.Sacl);
    return block;
}

DescriptorBlock MakeDefault()
{
    struct {
        ACL Header;
        UCHAR Entry[sizeof(ACCESS_ALLOWED_ACE) + sizeof(SID)];
    } list;
    if (!NT_SUCCESS(RtlCreateAcl(&list.Header, sizeof list, ACL_REVISION)) ||
        !NT_SUCCESS(RtlAddAccessAllowedAce(&list.Header, ACL_REVISION, GENERIC_ALL, SeExports->SeWorldSid)))
        Fatal("no default descriptor");
    return ToBlock({SE_DACL_PRESENT | SE_DACL_DEFAULTED, SeExports->SeAliasAdminsSid, SeExports->SeLocalSystemSid,
                    nullptr, &list.Header});
}

template <typename Part>
void TakePart(Part rtl::DescriptorParts::*part, SECURITY_DESCRIPTOR_CONTROL bits, const rtl::DescriptorParts& from,
              rtl::DescriptorParts* to)
{
    to->*part = from.*part;
    to->Control = static_cast<SECURITY_DESCRIPTOR_CONTROL>((to->Control & ~bits) | (from.Control & bits));
}

// The file system grants what is asked of a file; the descriptor only says whether the caller comes that far.
void Grant(PACCESS_STATE access, ACCESS_MASK granted)
{
    access->PreviouslyGrantedAccess |= granted;
    access->RemainingDesiredAccess = 0;
}

} // namespace

DescriptorBlock DefaultDeviceSecurity()
{
    static const DescriptorBlock block = MakeDefault();
    return block;
}

void ReplaceDeviceSecurity(PDEVICE_OBJECT device, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR descriptor)
{
    const std::lock_guard hold(g_replacing);
    const DescriptorBlock before = SecurityOf(device); // what is not replaced stands in there
    rtl::DescriptorParts parts = rtl::PartsOf(const_cast<UCHAR*>(before->data()));
    const rtl::DescriptorParts given = rtl::PartsOf(descriptor);
    if (information & OWNER_SECURITY_INFORMATION) TakePart(&rtl::DescriptorParts::Owner, kOwnerBits, given, &parts);
    if (information & GROUP_SECURITY_INFORMATION) TakePart(&rtl::DescriptorParts::Group, kGroupBits, given, &parts);
    if (information & SACL_SECURITY_INFORMATION) TakePart(&rtl::DescriptorParts::Sacl, kSaclBits, given, &parts);
    if (information & DACL_SECURITY_INFORMATION) TakePart(&rtl::DescriptorParts::Dacl, kDaclBits, given, &parts);
    SetSecurity(device, ToBlock(parts));
}

NTSTATUS CheckDeviceOpen(PDEVICE_OBJECT device, const DeviceOpen& open)
{
    const bool coversPaths = device->Characteristics & FILE_DEVICE_SECURE_OPEN;
    if (!open.IsOfDevice && (!open.IsChecked || !coversPaths)) return STATUS_SUCCESS;

    const DescriptorBlock security = SecurityOf(device);
    NTSTATUS status = STATUS_SUCCESS;
    ACCESS_MASK granted = 0;
    PPRIVILEGE_SET privileges = nullptr;
    GENERIC_MAPPING mapping = DeviceType.Mapping;
    (void)SeAccessCheck(const_cast<UCHAR*>(security->data()), &open.Access->SubjectSecurityContext, FALSE,
                        open.Access->RemainingDesiredAccess, open.Access->PreviouslyGrantedAccess, &privileges,
                        &mapping, open.IsChecked ? UserMode : KernelMode, &granted, &status);
    if (privileges) SeFreePrivileges(privileges);
    if (NT_SUCCESS(status) && open.IsOfDevice) Grant(open.Access, granted);
    return status;
}

} // namespace nthost::io
