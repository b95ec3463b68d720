// Access checks by rule: descriptor as text, subject, question, answer.

#include <gtest/gtest.h>

#include <nthost/debug.h>
#include <nthost/process.h>

#include "se/token.h"
#include "support/host.h"

namespace nthost_se {
namespace {

using nthost::se::Token;

constexpr char kUser[] = "S-1-5-21-1-2-3-500";
constexpr ACCESS_MASK kRead = FILE_GENERIC_READ;
constexpr ACCESS_MASK kAll = FILE_ALL_ACCESS;

GENERIC_MAPPING mapping = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS};

using AccessTest = support::BootedTest;

// A descriptor in pool. "" is none at all.
class Descriptor {
public:
    explicit Descriptor(const char* sddl)
    {
        if (!*sddl) return;
        const std::u16string text = nthost::FromUtf8(sddl);
        const NTSTATUS status = SeConvertStringSecurityDescriptorToSecurityDescriptor(
            reinterpret_cast<PCWSTR>(text.c_str()), SECURITY_DESCRIPTOR_REVISION, &block_, nullptr);
        EXPECT_EQ(status, STATUS_SUCCESS) << sddl;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor()
    {
        if (block_) ExFreePoolWithTag(block_, 0);
    }
    PSECURITY_DESCRIPTOR Get() const { return block_; }

private:
    PSECURITY_DESCRIPTOR block_ = nullptr;
};

struct Answer {
    NTSTATUS Status;
    ACCESS_MASK Granted;
    ULONG Privileges; // how many were needed
};

Answer Check(const char* sddl, SECURITY_SUBJECT_CONTEXT& subject, ACCESS_MASK desired, ACCESS_MASK previous = 0,
             KPROCESSOR_MODE mode = UserMode)
{
    const Descriptor descriptor(sddl);
    Answer answer = {STATUS_UNSUCCESSFUL, 77, 0};
    PPRIVILEGE_SET privileges = nullptr;
    const BOOLEAN granted = SeAccessCheck(descriptor.Get(), &subject, FALSE, desired, previous, &privileges, &mapping,
                                          mode, &answer.Granted, &answer.Status);
    EXPECT_EQ(granted, NT_SUCCESS(answer.Status)) << sddl;
    if (privileges) {
        answer.Privileges = privileges->PrivilegeCount;
        SeFreePrivileges(privileges);
    }
    return answer;
}

TEST_F(AccessTest, FirstEntryForARightDecides)
{
    Token token = nthost::se::TokenFor({kUser, {"S-1-5-32-545"}, {"S-1-5-32-544"}, {}});
    SECURITY_SUBJECT_CONTEXT subject = {nullptr, SecurityAnonymous, &token, nullptr};
    constexpr ACCESS_MASK max = MAXIMUM_ALLOWED;
    const struct {
        const char* Sddl;
        ACCESS_MASK Desired;
        ACCESS_MASK Granted; // 0: STATUS_ACCESS_DENIED
    } rows[] = {
        {"", kRead, 0}, // no descriptor, no access
        {"O:SY", FILE_READ_DATA, FILE_READ_DATA},
        {"D:NO_ACCESS_CONTROL", WRITE_DAC | FILE_READ_DATA, WRITE_DAC | FILE_READ_DATA},
        {"D:NO_ACCESS_CONTROL", max, kAll},
        {"D:", FILE_READ_DATA, 0},
        {"D:", max, 0},
        {"D:(A;;FA;;;WD)", 0, 0}, // nothing is wanted, so nothing is granted
        {"D:(A;;FR;;;WD)", GENERIC_READ, kRead},
        {"D:(A;;FR;;;WD)", GENERIC_READ | FILE_WRITE_DATA, 0},
        {"D:(A;;GR;;;WD)", kRead, 0}, // generic rights in a list are no rights
        {"D:(A;;FA;;;S-1-5-21-1-2-3-500)", kAll, kAll},
        {"D:(A;;FA;;;S-1-5-21-1-2-3-501)", FILE_READ_DATA, 0},
        {"D:(A;;FR;;;BU)(A;;FW;;;WD)", FILE_READ_DATA | FILE_WRITE_DATA, FILE_READ_DATA | FILE_WRITE_DATA},
        {"D:(D;;0x2;;;BU)(A;;FA;;;WD)", FILE_WRITE_DATA, 0},
        {"D:(D;;0x2;;;BU)(A;;FA;;;WD)", FILE_READ_DATA, FILE_READ_DATA},
        {"D:(D;;0x2;;;BU)(A;;FA;;;WD)", max, kAll & ~FILE_WRITE_DATA},
        {"D:(A;;FA;;;WD)(D;;0x2;;;BU)", FILE_WRITE_DATA, FILE_WRITE_DATA}, // the order is what counts
        {"D:(A;;FR;;;WD)", max | FILE_WRITE_DATA, 0},
        {"D:(A;;FR;;;WD)", max | FILE_READ_DATA, kRead},
        {"D:(A;;FA;;;BA)", FILE_READ_DATA, 0},              // a deny-only group gives nothing,
        {"D:(D;;0x1;;;BA)(A;;FA;;;WD)", FILE_READ_DATA, 0}, // and takes
        {"D:(A;IO;FA;;;WD)", FILE_READ_DATA, 0},            // for children only
        {"D:(D;IO;FA;;;WD)(A;;FR;;;WD)", FILE_READ_DATA, FILE_READ_DATA},
        {"O:S-1-5-21-1-2-3-500D:", READ_CONTROL | WRITE_DAC, READ_CONTROL | WRITE_DAC}, // an owner's own
        {"O:S-1-5-21-1-2-3-500D:", WRITE_OWNER, 0},
        {"O:S-1-5-21-1-2-3-500D:(D;;WD;;;WD)", WRITE_DAC, WRITE_DAC},
        {"O:S-1-5-21-1-2-3-500D:(A;;FR;;;OW)", WRITE_DAC, 0}, // but for an entry that says otherwise
        {"O:S-1-5-21-1-2-3-500D:(A;;FR;;;OW)", FILE_READ_DATA, FILE_READ_DATA},
        {"O:BAD:", READ_CONTROL, 0}, // no owner through a deny-only group
        {"D:(A;;FA;;;WD)S:(AU;SAFA;FA;;;WD)", FILE_READ_DATA, FILE_READ_DATA},
    };
    for (const auto& row : rows) {
        const Answer answer = Check(row.Sddl, subject, row.Desired);
        EXPECT_EQ(answer.Granted, row.Granted) << row.Sddl << " " << std::hex << row.Desired;
        EXPECT_EQ(answer.Status, row.Granted ? STATUS_SUCCESS : STATUS_ACCESS_DENIED) << row.Sddl;
    }
}

TEST_F(AccessTest, PrivilegesGiveWhatNoListCan)
{
    const struct {
        std::vector<ULONG> Privileges;
        ACCESS_MASK Desired;
        NTSTATUS Status;
        ULONG Used;
    } rows[] = {
        {{}, ACCESS_SYSTEM_SECURITY, STATUS_PRIVILEGE_NOT_HELD, 0},
        {{SE_SECURITY_PRIVILEGE}, ACCESS_SYSTEM_SECURITY, STATUS_SUCCESS, 1},
        {{SE_SECURITY_PRIVILEGE}, ACCESS_SYSTEM_SECURITY | WRITE_OWNER, STATUS_ACCESS_DENIED, 0},
        {{SE_TAKE_OWNERSHIP_PRIVILEGE}, WRITE_OWNER, STATUS_SUCCESS, 1},
        {{SE_TAKE_OWNERSHIP_PRIVILEGE, SE_SECURITY_PRIVILEGE}, WRITE_OWNER | ACCESS_SYSTEM_SECURITY, STATUS_SUCCESS, 2},
        {{SE_TAKE_OWNERSHIP_PRIVILEGE}, FILE_READ_DATA, STATUS_SUCCESS, 0},
    };
    for (const auto& row : rows) {
        Token token = nthost::se::TokenFor({kUser, {}, {}, row.Privileges});
        SECURITY_SUBJECT_CONTEXT subject = {nullptr, SecurityAnonymous, &token, nullptr};
        const Answer answer = Check("D:(A;;0x01000001;;;WD)", subject, row.Desired);
        EXPECT_EQ(answer.Status, row.Status) << (&row - rows);
        EXPECT_EQ(answer.Privileges, row.Used) << (&row - rows);
        EXPECT_EQ(answer.Granted, NT_SUCCESS(row.Status) ? row.Desired : 0) << (&row - rows);
    }
}

TEST_F(AccessTest, WhoAsksAndWhatIsThereAlready)
{
    Token nobody = nthost::se::TokenFor({"S-1-5-7", {}, {}, {}});
    Token admin = nthost::se::TokenFor({kUser, {"S-1-5-32-544"}, {}, {}});
    constexpr char onlyAdmins[] = "D:(A;;FA;;;BA)";
    const struct {
        SECURITY_SUBJECT_CONTEXT Subject;
        ACCESS_MASK Desired, Previous;
        KPROCESSOR_MODE Mode;
        NTSTATUS Status;
        ACCESS_MASK Granted;
    } rows[] = {
        {{nullptr, SecurityAnonymous, &nobody, nullptr}, 1, 0, UserMode, STATUS_ACCESS_DENIED, 0},
        {{nullptr, SecurityAnonymous, &nobody, nullptr}, 1, 0, KernelMode, STATUS_SUCCESS, 1},
        {{nullptr, SecurityAnonymous, &nobody, nullptr}, MAXIMUM_ALLOWED, 0, KernelMode, STATUS_SUCCESS, kAll},
        {{nullptr, SecurityAnonymous, &nobody, nullptr}, 0, 2, UserMode, STATUS_SUCCESS, 2},
        {{nullptr, SecurityAnonymous, &nobody, nullptr}, 1, 2, UserMode, STATUS_ACCESS_DENIED, 0},
        {{nullptr, SecurityAnonymous, &admin, nullptr}, 1, 2, UserMode, STATUS_SUCCESS, 3},
        // A client stands in for the process, if it allows that much.
        {{&admin, SecurityImpersonation, &nobody, nullptr}, 1, 0, UserMode, STATUS_SUCCESS, 1},
        {{&nobody, SecurityDelegation, &admin, nullptr}, 1, 0, UserMode, STATUS_ACCESS_DENIED, 0},
        {{&admin, SecurityIdentification, &admin, nullptr}, 1, 0, UserMode, STATUS_BAD_IMPERSONATION_LEVEL, 0},
    };
    for (const auto& row : rows) {
        SECURITY_SUBJECT_CONTEXT subject = row.Subject;
        const Answer answer = Check(onlyAdmins, subject, row.Desired, row.Previous, row.Mode);
        EXPECT_EQ(answer.Status, row.Status) << (&row - rows);
        EXPECT_EQ(answer.Granted, row.Granted) << (&row - rows);
    }
}

} // namespace
} // namespace nthost_se
