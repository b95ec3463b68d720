// Volumes under a security string: the text that is parsed here, the roads over routines that a kernel may export, who
// then gets in, and what is left after each failure.

#include "open_volume.h"

#include <functional>
#include <optional>

#include <nthost/debug.h>
#include <nthost/faults.h>
#include <nthost/pool.h>
#include <nthost/process.h>
#include <nthost/routines.h>

#include "entry/entry.h"
#include "frame/driver.h"
#include "secure/parse.h"
#include "volume/volume.h"

namespace opening {
namespace {

constexpr char kCreateRoutine[] = "IoCreateDeviceSecure";
constexpr char kConvertRoutine[] = "SeConvertStringSecurityDescriptorToSecurityDescriptor";

std::string SidText(PSID sid)
{
    const auto* const bytes = static_cast<const UCHAR*>(sid);
    std::string text = "S-1-" + std::to_string(bytes[7]);
    for (UCHAR i = 0; i < bytes[1]; ++i) {
        ULONG number;
        RtlCopyMemory(&number, bytes + 8 + 4 * i, sizeof(number));
        text += "-" + std::to_string(number);
    }
    return text;
}

// "P(mask sid)(mask sid)": of a self-relative descriptor; P for a protected list.
std::string DaclText(PSECURITY_DESCRIPTOR descriptor)
{
    const auto* const relative = static_cast<const SECURITY_DESCRIPTOR_RELATIVE*>(descriptor);
    auto* const acl = reinterpret_cast<PACL>(static_cast<char*>(descriptor) + relative->Dacl);
    std::string text = relative->Control & SE_DACL_PROTECTED ? "P" : "";
    EXPECT_TRUE(relative->Dacl && RtlValidAcl(acl));
    auto* ace = reinterpret_cast<ACCESS_ALLOWED_ACE*>(acl + 1);
    ULONG used = sizeof(ACL);
    for (USHORT i = 0; i < acl->AceCount; ++i) {
        char mask[12];
        snprintf(mask, sizeof(mask), "(%x ", ace->Mask);
        text += mask + SidText(&ace->SidStart) + ")";
        EXPECT_EQ(ace->Header.AceType, ACCESS_ALLOWED_ACE_TYPE);
        used += ace->Header.AceSize;
        ace = reinterpret_cast<ACCESS_ALLOWED_ACE*>(reinterpret_cast<char*>(ace) + ace->Header.AceSize);
    }
    EXPECT_EQ(acl->AclSize, used);
    return text;
}

std::string ConvertedText(PCUNICODE_STRING sddl, SecDefaulted defaulted)
{
    GvBlock<void> descriptor;
    const NTSTATUS status = SecSddlToSecurityDescriptor(sddl, defaulted, descriptor.Out());
    if (!NT_SUCCESS(status)) {
        EXPECT_FALSE(descriptor);
        return nthost::StatusName(status);
    }
    const auto* const relative = static_cast<const SECURITY_DESCRIPTOR_RELATIVE*>(descriptor.Get());
    EXPECT_EQ((relative->Control & SE_DACL_DEFAULTED) != 0, defaulted == SecDefaulted::Yes);
    return DaclText(descriptor.Get());
}

// On a kernel that cannot convert, so the driver does.
class LocalParse : public support::HostFixture {
protected:
    std::string Convert(const std::string& sddl, SecDefaulted defaulted = SecDefaulted::No)
    {
        return ConvertedText(Text(sddl), defaulted);
    }

private:
    nthost::HiddenRoutine hidden_{kConvertRoutine};
};

TEST_F(LocalParse, Texts)
{
    const struct {
        const char* Sddl;
        const char* Result;
    } rows[] = {
        {"D:P(A;;GA;;;SY)(A;;GA;;;BA)", "P(10000000 S-1-5-18)(10000000 S-1-5-32-544)"},
        {"D:", ""},
        {"  D:P  ", "P"},
        // Numbers, by what they begin with.
        {"D:(A;;0x10;;;WD)", "(10 S-1-1-0)"},
        {"D:(A;;10;;;WD)", "(a S-1-1-0)"},
        {"D:(A;;010;;;WD)", "(a S-1-1-0)"},
        {"D:(A;;FA;;;WD)", "(fa S-1-1-0)"},
        {"D:(A;;0XfFfFfFfF;;;WD)", "(ffffffff S-1-1-0)"},
        {"D:(A;;4294967295;;;WD)", "(ffffffff S-1-1-0)"},
        {"D:(A;;RCWDWOSDGAGRGWGX;;;WD)", "(f00f0000 S-1-1-0)"},
        {"D:(A;;gr0x1GX2sd;;;ba)", "(a0010003 S-1-5-32-544)"},
        {"D:(A;;;;;WD)", "(0 S-1-1-0)"},
        {"D:A;;GA;;;SY)a;;GR;;;BU)", "(10000000 S-1-5-18)(80000000 S-1-5-32-545)"}, // no opening parenthesis
        {" D: ( A ; ; GR GW ; ; ; BU ) ( A;;1;;;SY)  ", "(c0000000 S-1-5-32-545)(1 S-1-5-18)"},
        // Not this, and not here.
        {"", "STATUS_INVALID_PARAMETER"},
        {"D", "STATUS_INVALID_PARAMETER"},
        {"d:", "STATUS_INVALID_PARAMETER"},
        {"D::", "STATUS_INVALID_PARAMETER"},
        {"D:P:", "STATUS_INVALID_PARAMETER"},
        {"D:x", "STATUS_INVALID_PARAMETER"},
        {"D: P", "STATUS_INVALID_PARAMETER"},
        {"O:SYD:(A;;GA;;;SY)", "STATUS_INVALID_PARAMETER"},
        {"D:(A;;GA;;;SY)S:", "STATUS_INVALID_PARAMETER"},
        {"D:(A;;GA;;;SY)  :", "STATUS_INVALID_PARAMETER"},
        {"D:S:(AU;SA;GA;;;WD)", "STATUS_INVALID_PARAMETER"},
        {"D:(D;;GA;;;SY)", "STATUS_INVALID_PARAMETER"},
        {"D:(A;CI;GA;;;SY)", "STATUS_INVALID_PARAMETER"},
        {"D:(A;;GA;;SY)", "STATUS_INVALID_PARAMETER"}, // a semicolon short
        {"D:(A;;GA;;;;SY)", "STATUS_INVALID_PARAMETER"},
        {"D:(A;;GA;x;;SY)", "STATUS_INVALID_PARAMETER"},
        {"D:(A;;XX;;;SY)", "STATUS_INVALID_PARAMETER"},
        {"D:(A;;0x;;;SY)", "STATUS_INVALID_PARAMETER"},
        {"D:(A;;0x100000000;;;SY)", "STATUS_INVALID_PARAMETER"},
        {"D:(A;;4294967296;;;SY)", "STATUS_INVALID_PARAMETER"},
        {"D:(A;;GA;;;SY)(B;;GA;;;SY)", "STATUS_INVALID_PARAMETER"},
        {"D:(A;;GA;;;XX)", "STATUS_NONE_MAPPED"},
        {"D:(A;;GA;;;S", "STATUS_NONE_MAPPED"},
        {"D:(A;;GA;;;S-1-1-0)", "STATUS_NONE_MAPPED"}, // only names
        {"D:(A;;GA;;;SY", "STATUS_INVALID_ACL"},
        {"D:(A;;GA;;;SY(A;;GA;;;BA)", "STATUS_INVALID_ACL"},
    };
    for (const auto& row : rows) EXPECT_EQ(Convert(row.Sddl), row.Result) << row.Sddl;
    EXPECT_EQ(Convert("D:(A;;GA;;;SY)", SecDefaulted::Yes), "(10000000 S-1-5-18)");
}

TEST_F(LocalParse, EverySidByItsName)
{
    const struct {
        const char* Name;
        const char* Sid;
    } rows[] = {
        {"WD", "S-1-1-0"},      {"BA", "S-1-5-32-544"},       {"SY", "S-1-5-18"}, {"IU", "S-1-5-4"},
        {"RC", "S-1-5-12"},     {"AU", "S-1-5-11"},           {"NU", "S-1-5-2"},  {"AN", "S-1-5-7"},
        {"BG", "S-1-5-32-546"}, {"BU", "S-1-5-32-545"},       {"LS", "S-1-5-19"}, {"NS", "S-1-5-20"},
        {"AC", "S-1-15-2-1"},   {"UD", "S-1-5-84-0-0-0-0-0"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Convert(std::string("D:(A;;1;;;") + row.Name + ")"), std::string("(1 ") + row.Sid + ")");
}

// Only a string of exactly its text and a terminator is used where it stands.
TEST_F(LocalParse, TextsAreTerminatedBeforeTheyAreRead)
{
    const std::u16string text = u"D:(A;;1;;;WD)";
    const auto length = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    const struct {
        int Room;        // MaximumLength beyond Length
        char16_t Behind; // what stands there
        uint64_t Blocks; // taken from pool: list and descriptor, and a copy
    } rows[] = {{2, u'\0', 2}, {2, u'x', 3}, {0, u'x', 3}, {0, u'\0', 3}, {4, u'\0', 3}};
    for (const auto& row : rows) {
        std::u16string buffer = text + row.Behind + u"zz";
        UNICODE_STRING sddl = {length, static_cast<USHORT>(length + row.Room), reinterpret_cast<PWCH>(buffer.data())};
        const uint64_t before = nthost::PoolAllocations();
        EXPECT_EQ(ConvertedText(&sddl, SecDefaulted::No), "(1 S-1-1-0)");
        EXPECT_EQ(nthost::PoolAllocations() - before, row.Blocks) << (&row - rows);
    }
}

TEST_F(LocalParse, ListsGrowUpToWhatTheirSizeCanTell)
{
    const auto entries = [](unsigned count) {
        std::string text = "D:";
        while (count--) text += "A;;1;;;UD)"; // the longest: 40 bytes
        return text;
    };
    EXPECT_EQ(Convert(entries(1638)).substr(0, 3), "(1 "); // beyond what one entry is expected to take
    EXPECT_EQ(Convert(entries(1639)), "STATUS_ALLOTTED_SPACE_EXCEEDED");

    // A SID longer than any that has a name.
    struct {
        SID Head;
        ULONG More[14];
    } longSid = {{SID_REVISION, SID_MAX_SUB_AUTHORITIES, {{0, 0, 0, 0, 0, 5}}, {1}}, {}};
    GvBlock<ACL> acl(static_cast<PACL>(GvAllocate(PagedPool, sizeof(ACL), SecAclTag)));
    *acl = {ACL_REVISION, 0, sizeof(ACL), 0, 0};
    ULONG used = sizeof(ACL);
    const ULONG size = 8 + RtlLengthSid(&longSid);
    const uint64_t before = nthost::PoolAllocations();
    EXPECT_STATUS(STATUS_SUCCESS, SecAddAllowedAce(&acl, &used, 1, 3, &longSid));
    EXPECT_EQ(acl->AclSize, sizeof(ACL) + 3 * size); // room for the two that follow
    EXPECT_STATUS(STATUS_SUCCESS, SecAddAllowedAce(&acl, &used, 2, 2, &longSid));
    EXPECT_STATUS(STATUS_SUCCESS, SecAddAllowedAce(&acl, &used, 3, 1, &longSid));
    EXPECT_EQ(used, acl->AclSize);
    EXPECT_EQ(acl->AceCount, 3);
    EXPECT_TRUE(RtlValidAcl(acl.Get()));
    EXPECT_EQ(nthost::PoolAllocations() - before, 1u);
}

// Runs a body as the entry of a driver, so that faults count its calls.
struct Runner {
    static inline std::function<NTSTATUS()> Body;

    static void NTAPI Unload(PDRIVER_OBJECT) {}
    static NTSTATUS NTAPI Entry(PDRIVER_OBJECT driver, PUNICODE_STRING)
    {
        driver->DriverUnload = Unload;
        return Body();
    }
    static NTSTATUS Run(std::function<NTSTATUS()> body)
    {
        Body = std::move(body);
        PDRIVER_OBJECT driver = nullptr;
        const NTSTATUS status = nthost::LoadDriver("runner", Entry, &driver);
        if (!NT_SUCCESS(status)) return status;
        nthost::LeakReport ignored; // what a mount leaves, gvnd's unload judges
        EXPECT_STATUS(STATUS_SUCCESS, nthost::UnloadDriver(driver, &ignored));
        return status;
    }
};

TEST_F(LocalParse, OlderKernelsLackSomeSids)
{
    const nthost::FaultPlan older("IoIsWdmVersionAvailable", 1, nthost::Repeat::Yes);
    EXPECT_STATUS(STATUS_SUCCESS, Runner::Run([this] {
                      EXPECT_EQ(Convert("D:(A;;1;;;LS)(A;;2;;;WD)(A;;3;;;AC)"), "(2 S-1-1-0)");
                      EXPECT_EQ(Convert("D:(A;;1;;;UD)"), "");
                      return STATUS_SUCCESS;
                  }));
}

// How much the kernel does: all, the conversion, or nothing of it.
enum class Road { Kernel, Convert, Local };

class SecureMount : public support::HostFixture, public testing::WithParamInterface<Road> {
protected:
    void SetUp() override
    {
        HostFixture::SetUp();
        if (GetParam() != Road::Kernel) create_.emplace(kCreateRoutine);
        if (GetParam() == Road::Local) convert_.emplace(kConvertRoutine);
        ASSERT_STATUS(STATUS_SUCCESS, MemFsCreate(nullptr, &memfs_));
        LoadGvndOrFail();
    }
    void TearDown() override
    {
        // A resource that stays would be held against the driver that goes last.
        if (memfs_) MemFsDestroy(memfs_);
        HostFixture::TearDown();
    }

    NTSTATUS Mount(const std::string& sddl)
    {
        name_ = "Secure" + std::to_string(++rounds_); // the end of the volume before may still be under way
        layer_ = std::make_unique<layer::PluginLayer>(memfs_);
        Text text(sddl);
        device_ = nullptr;
        return Host().Services()->Mount(Text("\\Device\\Null"), Text("\\Device\\" + name_), Text(Link()), text,
                                        layer_->Table(), &device_);
    }
    void Unmount()
    {
        EXPECT_STATUS(STATUS_SUCCESS, Host().Services()->UnmountRequest(std::exchange(device_, nullptr)));
        layer_->WaitUntilUnmounted();
        layers_.push_back(std::move(layer_)); // its table is read until the last of the unmount
    }
    std::string Link() const { return "\\??\\" + name_; }
    PDEVICE_OBJECT Device() const { return device_; }
    bool NameIsFree() const
    {
        return support::Open("\\Device\\" + name_, {.Kernel = true}).Status == STATUS_OBJECT_NAME_NOT_FOUND;
    }

private:
    std::optional<nthost::HiddenRoutine> create_, convert_;
    PluginOps* memfs_ = nullptr;
    std::unique_ptr<layer::PluginLayer> layer_;
    std::vector<std::unique_ptr<layer::PluginLayer>> layers_;
    PDEVICE_OBJECT device_ = nullptr;
    std::string name_;
    unsigned rounds_ = 0;
};

NTSTATUS OpenAs(const nthost::Process& process, const std::string& path, ACCESS_MASK access)
{
    const nthost::ActAs as(process.Object());
    return support::Open(path, {.Access = access | SYNCHRONIZE, .Options = kSynchronous}).Status;
}

TEST_P(SecureMount, LetsInWhomTheStringNames)
{
    const nthost::Process admin("admin", {"S-1-5-21-1-2-3-500", {"S-1-5-32-544"}, {}, {}});
    const nthost::Process user("user");
    ASSERT_STATUS(STATUS_SUCCESS, Mount("D:P(A;;GA;;;SY)(A;;GA;;;BA)(A;;GR;;;BU)"));
    EXPECT_EQ(DaclText(Device()->SecurityDescriptor), "P(1f01ff S-1-5-18)(1f01ff S-1-5-32-544)(120089 S-1-5-32-545)");
    EXPECT_TRUE(static_cast<SECURITY_DESCRIPTOR_RELATIVE*>(Device()->SecurityDescriptor)->Control & SE_DACL_DEFAULTED);

    for (const char* path : {"", "\\"}) { // the volume itself, and a path on it
        EXPECT_STATUS(STATUS_SUCCESS, OpenAs(admin, Link() + path, FILE_READ_DATA | FILE_WRITE_DATA)) << path;
        EXPECT_STATUS(STATUS_SUCCESS, OpenAs(user, Link() + path, FILE_READ_DATA)) << path;
        EXPECT_STATUS(STATUS_ACCESS_DENIED, OpenAs(user, Link() + path, FILE_WRITE_DATA)) << path;
    }
    EXPECT_STATUS(STATUS_OBJECT_NAME_NOT_FOUND, OpenAs(admin, Link() + "\\none", FILE_WRITE_DATA));
    EXPECT_STATUS(STATUS_ACCESS_DENIED, OpenAs(user, Link() + "\\none", FILE_WRITE_DATA)); // before it is looked for
    EXPECT_STATUS(STATUS_SUCCESS,
                  support::Open(Link() + "\\", {.Access = FILE_WRITE_DATA | SYNCHRONIZE, .Kernel = true}).Status);
    Unmount();

    ASSERT_STATUS(STATUS_SUCCESS, Mount("D:")); // nobody
    EXPECT_STATUS(STATUS_ACCESS_DENIED, OpenAs(admin, Link() + "\\", FILE_READ_DATA));
    EXPECT_STATUS(STATUS_SUCCESS, support::Open(Link() + "\\", {.Kernel = true}).Status);
    Unmount();
}

TEST_P(SecureMount, FailsWithoutADevice)
{
    for (const char* sddl : {"", "x", "D:(A;;GA;;;XX)", "D:(A;;GA;;;SY", "D:(A;;XX;;;SY)"}) {
        Trace().Clear();
        const NTSTATUS status = Mount(sddl);
        // A text without parts is a descriptor for the kernel, and none here.
        if (!*sddl && GetParam() != Road::Local) {
            EXPECT_STATUS(STATUS_SUCCESS, status);
            Unmount();
            continue;
        }
        EXPECT_FALSE(NT_SUCCESS(status)) << sddl;
        char line[48];
        snprintf(line, sizeof(line), "IoCreateDeviceSecure(): 0x%x\n", status);
        EXPECT_EQ(Trace().Count(line), 1u) << sddl;
        EXPECT_EQ(Device(), nullptr);
        EXPECT_TRUE(NameIsFree());
    }
}

// The choice of the road is made once and then kept.
TEST_P(SecureMount, LooksForTheRoutineOnce)
{
    ASSERT_STATUS(STATUS_SUCCESS, Mount("D:(A;;GA;;;WD)"));
    Unmount();
    const SecCreateDevice chosen = SecIoCreateDeviceSecure;
    EXPECT_EQ(chosen == SecCreateDeviceFallback, GetParam() != Road::Kernel);
    const nthost::HiddenRoutine gone(kCreateRoutine);
    ASSERT_STATUS(STATUS_SUCCESS, Mount("D:(A;;GA;;;WD)"));
    Unmount();
    EXPECT_EQ(SecIoCreateDeviceSecure, chosen);
}

TEST_P(SecureMount, UnwindsFromEachStep)
{
    for (const char* routine : {"ExAllocatePoolWithTag", "IoCreateDevice", "ObOpenObjectByPointer",
                                "ZwSetSecurityObject", kCreateRoutine, kConvertRoutine, "IoCreateSymbolicLink"}) {
        SCOPED_TRACE(routine);
        unsigned failures = 0;
        const unsigned sites = nthost::SweepFaults(routine, [&](unsigned) {
            const NTSTATUS status = Runner::Run([this] { return Mount("D:P(A;;GA;;;SY)(A;;0x1;;;WD)"); });
            if (NT_SUCCESS(status)) return Unmount();
            ++failures;
            EXPECT_STATUS(STATUS_INSUFFICIENT_RESOURCES, status);
            EXPECT_EQ(Device(), nullptr);
            EXPECT_TRUE(NameIsFree());
        });
        EXPECT_EQ(failures, sites); // there is no failure that a mount gets over
    }
}

std::string NameOf(const testing::TestParamInfo<Road>& road)
{
    constexpr const char* names[] = {"Kernel", "Convert", "Local"};
    return names[static_cast<int>(road.param)];
}

INSTANTIATE_TEST_SUITE_P(Roads, SecureMount, testing::Values(Road::Kernel, Road::Convert, Road::Local), NameOf);

// What no mount does: a device without a name.
TEST_F(LocalParse, DevicesNeedANameToBeProtected)
{
    LoadGvndOrFail();
    Text sddl("D:(A;;GA;;;WD)");
    PDEVICE_OBJECT device = reinterpret_cast<PDEVICE_OBJECT>(1);
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, SecCreateDeviceFallback(GvDriverObject, 0, nullptr, FILE_DEVICE_UNKNOWN, 0,
                                                                    FALSE, sddl, nullptr, &device));
    EXPECT_EQ(device, nullptr);
    ASSERT_STATUS(STATUS_SUCCESS,
                  SecCreateDeviceFallback(GvDriverObject, 0, nullptr, FILE_DEVICE_UNKNOWN,
                                          FILE_AUTOGENERATED_DEVICE_NAME, FALSE, sddl, nullptr, &device));
    EXPECT_EQ(DaclText(device->SecurityDescriptor), "(1f01ff S-1-1-0)");
    IoDeleteDevice(device);
}

} // namespace
} // namespace opening
