// SDDL text to descriptors, and the descriptors and lists themselves.

#include <cstring>

#include <gtest/gtest.h>

#include <nthost/debug.h>

#include "rtl/acl.h"
#include "rtl/descriptor.h"
#include "se/sid.h"
#include "support/host.h"

namespace nthost_se {
namespace {

using nthost::rtl::PartsOf;

using SddlTest = support::BootedTest;

std::string Text(PSID sid)
{
    const auto* const bytes = static_cast<const UCHAR*>(sid);
    std::string text = "S-1-" + std::to_string(bytes[7]);
    for (UCHAR i = 0; i < bytes[1]; ++i) {
        ULONG number;
        std::memcpy(&number, bytes + 8 + 4 * i, sizeof number);
        text += "-" + std::to_string(number);
    }
    return text;
}

std::string Text(PACL acl)
{
    std::string text;
    nthost::rtl::ForEachAce(acl, [&](nthost::rtl::Ace* ace) {
        char line[40];
        snprintf(line, sizeof line, "(%d %x %x ", ace->Header.AceType, ace->Header.AceFlags, ace->Mask);
        text += line + Text(nthost::rtl::SidOf(ace)) + ")";
    });
    return text;
}

// "control O:owner G:group D:list S:list", or the status.
std::string Convert(const std::string& sddl)
{
    const std::u16string text = nthost::FromUtf8(sddl);
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ULONG size = 0;
    const NTSTATUS status = SeConvertStringSecurityDescriptorToSecurityDescriptor(
        reinterpret_cast<PCWSTR>(text.c_str()), SECURITY_DESCRIPTOR_REVISION, &descriptor, &size);
    if (!NT_SUCCESS(status)) return nthost::StatusName(status);
    const nthost::rtl::DescriptorParts parts = PartsOf(descriptor);
    char control[8];
    snprintf(control, sizeof control, "%x", parts.Control);
    std::string result = control;
    if (parts.Owner) result += " O:" + Text(parts.Owner);
    if (parts.Group) result += " G:" + Text(parts.Group);
    if (parts.Dacl) result += " D:" + Text(parts.Dacl);
    if (parts.Sacl) result += " S:" + Text(parts.Sacl);
    ExFreePoolWithTag(descriptor, 0);
    return result;
}

TEST_F(SddlTest, Conversions)
{
    const struct {
        const char* Sddl;
        const char* Result;
    } rows[] = {
        {"", "8000"},
        {"D:", "8004 D:"},
        {"D:P(A;;GA;;;SY)(A;;GA;;;BA)", "9004 D:(0 0 10000000 S-1-5-18)(0 0 10000000 S-1-5-32-544)"},
        {"O:BAG:SYD:PAI(D;OICI;FA;;;AN)(A;ID;FRFX;;;BU)S:AR(AU;SAFA;SD;;;WD)",
         "9614 O:S-1-5-32-544 G:S-1-5-18 D:(1 3 1f01ff S-1-5-7)(0 10 1200a9 S-1-5-32-545) S:(2 c0 10000 S-1-1-0)"},
        {"d:( a ; ; gr gw ; ; ; wd ) o:sy", "8004 O:S-1-5-18 D:(0 0 c0000000 S-1-1-0)"},
        {"D:(A;;0x1F;;;S-1-5-21-1-2-3)(A;;010;;;UD)(A;;10;;;AC)",
         "8004 D:(0 0 1f S-1-5-21-1-2-3)(0 0 8 S-1-5-84-0-0-0-0-0)(0 0 a S-1-15-2-1)"},
        {"D:(A;;;;;WD)", "8004 D:(0 0 0 S-1-1-0)"},
        {"D:NO_ACCESS_CONTROL", "8004"},
        {"D:D:", "STATUS_INVALID_PARAMETER"},
        {"O:BAO:BA", "STATUS_INVALID_PARAMETER"},
        {"O:", "STATUS_NONE_MAPPED"},
        {"x", "STATUS_INVALID_PARAMETER"},
        {"D:(A;;GA;;;XX)", "STATUS_NONE_MAPPED"},
        {"D:(A;;GA;;;S-1-5-4294967296)", "STATUS_NONE_MAPPED"},
        {"D:(A;;GA;;;SY", "STATUS_INVALID_ACL"},
        {"D:(A;;GA;;SY)", "STATUS_INVALID_ACL"},
        {"D:(A;XX;GA;;;SY)", "STATUS_INVALID_ACL"},
        {"D:(A;;XX;;;SY)", "STATUS_INVALID_ACL"},
        {"D:(A;;0x100000000;;;SY)", "STATUS_INVALID_ACL"},
        {"D:(AU;;GA;;;SY)", "STATUS_INVALID_ACL"}, // audits stand in the other list
        {"S:(A;;GA;;;SY)", "STATUS_INVALID_ACL"},
    };
    for (const auto& row : rows) EXPECT_EQ(Convert(row.Sddl), row.Result) << row.Sddl;
}

TEST_F(SddlTest, EntriesStayWithinTheirList)
{
    alignas(ACL) UCHAR memory[60];
    auto* const acl = reinterpret_cast<PACL>(memory);
    EXPECT_EQ(RtlCreateAcl(acl, 7, ACL_REVISION), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(RtlCreateAcl(acl, 8, 1), STATUS_INVALID_PARAMETER);
    ASSERT_EQ(RtlCreateAcl(acl, 8 + 2 * 20, ACL_REVISION), STATUS_SUCCESS);
    nthost::se::Sid bad = nthost::se::SidFromText("S-1-5-18");
    bad.Words[0] ^= 2; // the revision
    EXPECT_EQ(RtlAddAccessAllowedAce(acl, 1, 1, SeExports->SeWorldSid), STATUS_REVISION_MISMATCH);
    EXPECT_EQ(RtlAddAccessAllowedAce(acl, ACL_REVISION, 1, bad.Get()), STATUS_INVALID_SID);
    EXPECT_EQ(RtlAddAccessAllowedAce(acl, ACL_REVISION, 1, SeExports->SeWorldSid), STATUS_SUCCESS);
    EXPECT_EQ(RtlAddAccessAllowedAce(acl, ACL_REVISION, 2, SeExports->SeAliasAdminsSid),
              STATUS_ALLOTTED_SPACE_EXCEEDED);
    EXPECT_EQ(RtlAddAccessAllowedAce(acl, ACL_REVISION, 2, SeExports->SeLocalSystemSid), STATUS_SUCCESS);
    EXPECT_EQ(Text(acl), "(0 0 1 S-1-1-0)(0 0 2 S-1-5-18)");
    EXPECT_TRUE(RtlValidAcl(acl));
    acl->AceCount = 3;
    EXPECT_FALSE(RtlValidAcl(acl));
    EXPECT_EQ(RtlAddAccessAllowedAce(acl, ACL_REVISION, 1, SeExports->SeWorldSid), STATUS_INVALID_ACL);
}

TEST_F(SddlTest, DescriptorsOfBothFormsTellTheirParts)
{
    ACL empty = {ACL_REVISION, 0, sizeof(ACL), 0, 0};
    SECURITY_DESCRIPTOR absolute;
    ASSERT_EQ(RtlCreateSecurityDescriptor(&absolute, 2), STATUS_UNKNOWN_REVISION);
    ASSERT_EQ(RtlCreateSecurityDescriptor(&absolute, SECURITY_DESCRIPTOR_REVISION), STATUS_SUCCESS);
    ASSERT_EQ(RtlSetDaclSecurityDescriptor(&absolute, TRUE, &empty, TRUE), STATUS_SUCCESS);
    absolute.Owner = SeExports->SeAliasAdminsSid;
    absolute.Sacl = &empty; // not present, whatever stands there

    alignas(8) UCHAR relative[20 + 8 + 16];
    ULONG size = sizeof relative - 1;
    EXPECT_EQ(RtlAbsoluteToSelfRelativeSD(&absolute, relative, &size), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, sizeof relative);
    ASSERT_EQ(RtlAbsoluteToSelfRelativeSD(&absolute, relative, &size), STATUS_SUCCESS);
    EXPECT_EQ(RtlAbsoluteToSelfRelativeSD(relative, nullptr, &size), STATUS_BAD_DESCRIPTOR_FORMAT);
    EXPECT_EQ(RtlSetDaclSecurityDescriptor(relative, TRUE, nullptr, FALSE), STATUS_INVALID_SECURITY_DESCR);

    for (PSECURITY_DESCRIPTOR descriptor : {static_cast<void*>(&absolute), static_cast<void*>(relative)}) {
        PSID owner = nullptr, group = &empty;
        PACL list = nullptr;
        BOOLEAN present = FALSE, defaulted = FALSE;
        EXPECT_EQ(RtlGetOwnerSecurityDescriptor(descriptor, &owner, &defaulted), STATUS_SUCCESS);
        ASSERT_NE(owner, nullptr);
        EXPECT_EQ(Text(owner), "S-1-5-32-544");
        EXPECT_EQ(RtlGetGroupSecurityDescriptor(descriptor, &group, &defaulted), STATUS_SUCCESS);
        EXPECT_EQ(group, nullptr);
        EXPECT_EQ(RtlGetSaclSecurityDescriptor(descriptor, &present, &list, &defaulted), STATUS_SUCCESS);
        EXPECT_FALSE(present);
        EXPECT_EQ(RtlGetDaclSecurityDescriptor(descriptor, &present, &list, &defaulted), STATUS_SUCCESS);
        EXPECT_TRUE(present && defaulted && list);
    }
    relative[0] = 2;
    BOOLEAN flag;
    PSID owner;
    EXPECT_EQ(RtlGetOwnerSecurityDescriptor(relative, &owner, &flag), STATUS_UNKNOWN_REVISION);
}

} // namespace
} // namespace nthost_se
