// Descriptors of devices: who may open the device and what is on it, and how a descriptor gets there.

#include "probe.h"

#include <nthost/user_memory.h>

namespace {

using namespace probe;

// SDDL text as a descriptor in pool.
struct Descriptor {
    PSECURITY_DESCRIPTOR Block = nullptr;
    explicit Descriptor(const wchar_t* sddl)
    {
        EXPECT_EQ(SeConvertStringSecurityDescriptorToSecurityDescriptor(sddl, 1, &Block, nullptr), STATUS_SUCCESS);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { ExFreePoolWithTag(Block, 0); }
};

HANDLE OpenDevice(ACCESS_MASK access)
{
    HANDLE handle = nullptr;
    EXPECT_EQ(
        ObOpenObjectByPointer(device, OBJ_KERNEL_HANDLE, nullptr, access, IoDeviceObjectType, KernelMode, &handle),
        STATUS_SUCCESS);
    return handle;
}

void Protect(const wchar_t* sddl, SECURITY_INFORMATION information = DACL_SECURITY_INFORMATION)
{
    const Descriptor descriptor(sddl);
    HANDLE const handle = OpenDevice(WRITE_DAC | WRITE_OWNER);
    EXPECT_EQ(ZwSetSecurityObject(handle, information, descriptor.Block), STATUS_SUCCESS);
    ZwClose(handle);
}

class SecureOpenTest : public IoTest {};

TEST_F(SecureOpenTest, PathsAreCheckedOnDevicesThatAskForIt)
{
    Protect(L"D:(A;;FR;;;BA)(A;;FR;;;SY)");
    const struct {
        bool SecureOpen;
        const wchar_t* Path;
        ACCESS_MASK Access;
        bool AsAdmin;
        NTSTATUS Status;
    } rows[] = {
        {false, L"\\Device\\Probe", FILE_READ_DATA, false, STATUS_ACCESS_DENIED},
        {false, L"\\Device\\Probe\\x", FILE_READ_DATA, false, STATUS_SUCCESS},
        {true, L"\\Device\\Probe", FILE_READ_DATA, false, STATUS_ACCESS_DENIED},
        {true, L"\\Device\\Probe\\x", FILE_READ_DATA, false, STATUS_ACCESS_DENIED},
        {true, L"\\Device\\Probe", FILE_READ_DATA, true, STATUS_SUCCESS},
        {true, L"\\Device\\Probe\\x", FILE_READ_DATA, true, STATUS_SUCCESS},
        {true, L"\\Device\\Probe\\x", FILE_WRITE_DATA, true, STATUS_ACCESS_DENIED},
        {true, L"\\Device\\Probe\\x", MAXIMUM_ALLOWED, true, STATUS_SUCCESS},
        {true, L"\\Device\\Probe\\x", ACCESS_SYSTEM_SECURITY, true, STATUS_PRIVILEGE_NOT_HELD},
    };
    const nthost::Process admin("admin", {"S-1-5-21-1-2-3-500", {"S-1-5-32-544"}, {}, {}});
    for (const auto& row : rows) {
        device->Characteristics = row.SecureOpen ? FILE_DEVICE_SECURE_OPEN : 0;
        Driver().Seen[IRP_MJ_CREATE] = 0;
        {
            const nthost::ActAs as(row.AsAdmin ? admin.Object() : nthost::HostProcess());
            const Opened opened = Open({.Path = row.Path, .Access = row.Access, .Options = 0});
            EXPECT_EQ(opened.Status, row.Status) << (&row - rows);
            if (opened.Status == STATUS_SUCCESS) NtClose(opened.Handle);
        }
        EXPECT_EQ(Seen(IRP_MJ_CREATE), NT_SUCCESS(row.Status) ? 1u : 0u) << (&row - rows);
        EXPECT_EQ(device->ReferenceCount, 0) << (&row - rows);
    }
}

TEST_F(SecureOpenTest, KernelsAreCheckedOnlyOnRequest)
{
    Protect(L"D:(A;;FR;;;BU)");
    device->Characteristics = FILE_DEVICE_SECURE_OPEN;
    const struct {
        ULONG Attributes;
        ACCESS_MASK Access;
        NTSTATUS Status;
    } rows[] = {
        {0, FILE_WRITE_DATA, STATUS_SUCCESS},
        {OBJ_FORCE_ACCESS_CHECK, FILE_WRITE_DATA, STATUS_ACCESS_DENIED},
        {OBJ_FORCE_ACCESS_CHECK, FILE_READ_DATA, STATUS_SUCCESS},
    };
    for (const auto& row : rows) {
        Name path(L"\\??\\Probe\\x");
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, path, OBJ_KERNEL_HANDLE | row.Attributes, nullptr, nullptr);
        IO_STATUS_BLOCK block;
        HANDLE handle;
        const NTSTATUS status = ZwCreateFile(&handle, row.Access, &attributes, &block, nullptr, 0, FILE_SHARE_READ,
                                             FILE_OPEN, 0, nullptr, 0);
        EXPECT_EQ(status, row.Status) << (&row - rows);
        if (NT_SUCCESS(status)) ZwClose(handle);
    }
}

TEST_F(SecureOpenTest, PartsAreReplacedOneByOne)
{
    Protect(L"O:SYG:BUD:P(A;;GR;;;BU)", DACL_SECURITY_INFORMATION | OWNER_SECURITY_INFORMATION);
    const auto& after = *static_cast<SECURITY_DESCRIPTOR_RELATIVE*>(device->SecurityDescriptor);
    EXPECT_EQ(after.Control, SE_SELF_RELATIVE | SE_DACL_PRESENT | SE_DACL_PROTECTED);
    PSID owner, group;
    BOOLEAN flag;
    ASSERT_EQ(RtlGetOwnerSecurityDescriptor(device->SecurityDescriptor, &owner, &flag), STATUS_SUCCESS);
    ASSERT_EQ(RtlGetGroupSecurityDescriptor(device->SecurityDescriptor, &group, &flag), STATUS_SUCCESS);
    EXPECT_TRUE(RtlEqualSid(owner, SeExports->SeLocalSystemSid));
    EXPECT_TRUE(RtlEqualSid(group, SeExports->SeLocalSystemSid)); // the default's

    const Opened opened = Open({.Path = L"\\Device\\Probe", .Access = MAXIMUM_ALLOWED, .Options = 0});
    ASSERT_EQ(opened.Status, STATUS_SUCCESS);
    OBJECT_HANDLE_INFORMATION information;
    PVOID file;
    ASSERT_EQ(ObReferenceObjectByHandle(opened.Handle, 0, nullptr, UserMode, &file, &information), STATUS_SUCCESS);
    EXPECT_EQ(information.GrantedAccess, FILE_GENERIC_READ); // generic rights of the list became the device's
    ObDereferenceObject(file);
    NtClose(opened.Handle);
}

TEST_F(SecureOpenTest, SettingChecksTheHandleAndTheDescriptor)
{
    HANDLE handle = nullptr;
    ASSERT_EQ(ObOpenObjectByPointer(device, 0, nullptr, WRITE_DAC, IoDeviceObjectType, KernelMode, &handle),
              STATUS_SUCCESS);
    HANDLE full = nullptr;
    ASSERT_EQ(ObOpenObjectByPointer(device, 0, nullptr, WRITE_DAC | WRITE_OWNER, IoDeviceObjectType, KernelMode, &full),
              STATUS_SUCCESS);
    const Descriptor good(L"O:SYD:(A;;FA;;;WD)");
    const auto set = [](HANDLE to, SECURITY_INFORMATION what, PSECURITY_DESCRIPTOR descriptor) {
        return NtSetSecurityObject(to, what, descriptor);
    };
    EXPECT_EQ(set(handle, DACL_SECURITY_INFORMATION, nullptr), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(set(nullptr, DACL_SECURITY_INFORMATION, good.Block), STATUS_INVALID_HANDLE);
    EXPECT_EQ(set(handle, OWNER_SECURITY_INFORMATION, good.Block), STATUS_ACCESS_DENIED);
    EXPECT_EQ(set(full, SACL_SECURITY_INFORMATION, good.Block), STATUS_ACCESS_DENIED);
    EXPECT_EQ(set(full, OWNER_SECURITY_INFORMATION, good.Block), STATUS_INVALID_OWNER); // not the asker
    EXPECT_EQ(set(full, GROUP_SECURITY_INFORMATION, good.Block), STATUS_INVALID_SECURITY_DESCR);
    EXPECT_EQ(set(handle, DACL_SECURITY_INFORMATION, good.Block), STATUS_SUCCESS);

    // Descriptors that go wrong: at the end of memory, of an unknown kind, with lists and SIDs that do not add up.
    nthost::UserMemory memory(4096);
    const auto place = [&](size_t bytes) {
        char* const at = memory.Address() + memory.Size() - bytes;
        memcpy(at, good.Block, bytes);
        return at;
    };
    EXPECT_EQ(set(handle, DACL_SECURITY_INFORMATION, place(8)), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(set(handle, DACL_SECURITY_INFORMATION, place(32)), STATUS_ACCESS_VIOLATION); // the list is cut off
    char* const at = place(20 + 8 + 20 + 12);
    EXPECT_EQ(set(handle, DACL_SECURITY_INFORMATION, at), STATUS_SUCCESS);
    at[20 + 4] = 2; // one entry more than there is
    EXPECT_EQ(set(handle, DACL_SECURITY_INFORMATION, at), STATUS_INVALID_ACL);
    at[20 + 8 + 20] = 7; // the owner's revision comes first
    EXPECT_EQ(set(handle, DACL_SECURITY_INFORMATION, at), STATUS_INVALID_SID);
    at[0] = 2;
    EXPECT_EQ(set(handle, DACL_SECURITY_INFORMATION, at), STATUS_UNKNOWN_REVISION);
    NtClose(handle);
    NtClose(full);

    const Opened file = Open();
    ASSERT_EQ(file.Status, STATUS_SUCCESS);
    EXPECT_EQ(ZwSetSecurityObject(file.Handle, DACL_SECURITY_INFORMATION, good.Block), STATUS_NOT_SUPPORTED);
    NtClose(file.Handle);
}

} // namespace
