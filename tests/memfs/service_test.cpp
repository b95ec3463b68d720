// The kernel service: what it mounts for which settings, and that it gives everything back when a step fails or it is
// unloaded. A small driver stands in for the one that has the control device.

#include <cstdlib>

#include <nthost/image.h>
#include <nthost/registry.h>
#include <workbench/file.h>

#include "volume.h"

namespace memfs_tests {

namespace {

// What the stand-in was asked to mount, and what it answers.
struct Mounted {
    std::string Backing, Device, Link, Sddl;
    const PluginOps* Ops = nullptr;
    int UnmountRequests = 0;
};
Mounted g_mounted;
NTSTATUS g_mountStatus;
DEVICE_OBJECT g_device;

NTSTATUS NTAPI Mount(PUNICODE_STRING backing, PUNICODE_STRING device, PUNICODE_STRING link, PUNICODE_STRING sddl,
                     const PluginOps* ops, PDEVICE_OBJECT* out)
{
    EXPECT_EQ(*out, nullptr);
    g_mounted = {nthost::ToUtf8(backing),
                 nthost::ToUtf8(device),
                 nthost::ToUtf8(link),
                 sddl ? nthost::ToUtf8(sddl) : "none",
                 ops,
                 0};
    if (NT_SUCCESS(g_mountStatus)) *out = &g_device;
    return g_mountStatus;
}

// No file is open, so the volume goes at once.
NTSTATUS NTAPI UnmountRequest(PDEVICE_OBJECT device)
{
    EXPECT_EQ(device, &g_device);
    ++g_mounted.UnmountRequests;
    g_mounted.Ops->OnUnmounted(g_mounted.Ops->PluginContext);
    return STATUS_SUCCESS;
}

const GvServices kServices = {nullptr, Mount, UnmountRequest};

NTSTATUS NTAPI Dispatch(PDEVICE_OBJECT, PIRP irp)
{
    const IO_STACK_LOCATION* const location = IoGetCurrentIrpStackLocation(irp);
    irp->IoStatus.Status = STATUS_SUCCESS;
    irp->IoStatus.Information = 0;
    if (location->MajorFunction == IRP_MJ_DEVICE_CONTROL) {
        EXPECT_EQ(irp->RequestorMode, KernelMode);
        EXPECT_EQ(location->Parameters.DeviceIoControl.IoControlCode, IOCTL_GVND_GET_SERVICE_TABLE);
        EXPECT_EQ(location->Parameters.DeviceIoControl.OutputBufferLength, sizeof(void*));
        *static_cast<const GvServices**>(irp->AssociatedIrp.SystemBuffer) = &kServices;
        irp->IoStatus.Information = sizeof(void*);
    }
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
}

VOID NTAPI UnloadControl(PDRIVER_OBJECT driver) { IoDeleteDevice(driver->DeviceObject); }

NTSTATUS NTAPI ControlEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, GVND_CONTROL_DEVICE_NAME);
    for (const int major : {IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE, IRP_MJ_DEVICE_CONTROL}) {
        driver->MajorFunction[major] = Dispatch;
    }
    driver->DriverUnload = UnloadControl;
    PDEVICE_OBJECT device = nullptr;
    return IoCreateDevice(driver, 0, &name, FILE_DEVICE_FILE_SYSTEM, FILE_DEVICE_SECURE_OPEN, FALSE, &device);
}

constexpr const char* kServiceKey = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\memfs";

void SetText(const char* name, const std::u16string& text)
{
    const size_t bytes = (text.size() + 1) * sizeof(WCHAR); // with the NUL that most writers store
    EXPECT_EQ(nthost::SetRegistryValue(kServiceKey, name, REG_SZ, text.c_str(), bytes), STATUS_SUCCESS);
}

} // namespace

class ServiceTest : public HostTest {
protected:
    void SetUp() override
    {
        HostTest::SetUp();
        g_mounted = {};
        g_mountStatus = STATUS_SUCCESS;
    }
    void TearDown() override
    {
        if (control) Unload(control);
        HostTest::TearDown();
    }
    // The plugin that is a driver of its own, or its image.
    NTSTATUS LoadService()
    {
        const char* const image = std::getenv("GVND_MEMFS_IMAGE");
        return image ? nthost::LoadImage("memfs", image, &service)
                     : nthost::LoadDriver("memfs", GvMemfsDriverEntry, &service);
    }
    void LoadControl() { ASSERT_EQ(nthost::LoadDriver("control", ControlEntry, &control), STATUS_SUCCESS); }
    static void Unload(PDRIVER_OBJECT driver)
    {
        nthost::LeakReport leaks;
        EXPECT_EQ(nthost::UnloadDriver(driver, &leaks), STATUS_SUCCESS);
        for (const std::string& leak : leaks.Lines) ADD_FAILURE() << leak;
    }
    PDRIVER_OBJECT control = nullptr, service = nullptr;
};

TEST_F(ServiceTest, MountsUnderItsDefaultNames)
{
    LoadControl();
    ASSERT_EQ(LoadService(), STATUS_SUCCESS);
    EXPECT_EQ(g_mounted.Device, "\\Device\\Gvmemfs");
    EXPECT_EQ(g_mounted.Link, "\\??\\memfs");
    EXPECT_EQ(g_mounted.Backing, "\\Device\\Null");
    EXPECT_EQ(g_mounted.Sddl, "none");
    Unload(service);
    EXPECT_EQ(g_mounted.UnmountRequests, 1);
}

TEST_F(ServiceTest, FollowsItsServiceKey)
{
    LoadControl();
    SetText("DeviceName", u"\\Device\\Other");
    SetText("LinkName", u"\\??\\Other");
    SetText("BackingPath", u"\\Device\\Backing");
    SetText("Sddl", u"D:P(A;;GA;;;SY)");
    SetText("Arguments", u"capacity=28K,label=Scratch \u00fc \U0001f600");
    ASSERT_EQ(LoadService(), STATUS_SUCCESS);
    EXPECT_EQ(g_mounted.Device, "\\Device\\Other");
    EXPECT_EQ(g_mounted.Link, "\\??\\Other");
    EXPECT_EQ(g_mounted.Backing, "\\Device\\Backing");
    EXPECT_EQ(g_mounted.Sddl, "D:P(A;;GA;;;SY)");

    KEVENT cancel;
    KeInitializeEvent(&cancel, SynchronizationEvent, FALSE);
    PluginVolInfo* block = nullptr;
    ASSERT_EQ(g_mounted.Ops->GetVolInfo(g_mounted.Ops->PluginContext, &cancel, &block), STATUS_SUCCESS);
    const Owned<PluginVolInfo> info(block);
    EXPECT_EQ(info->TotalAllocationUnits, 7u);
    EXPECT_EQ(nthost::ToUtf8(info->VolumeLabel, info->VolumeLabelLength / sizeof(WCHAR)), "Scratch \u00fc \U0001f600");
    Unload(service);
}

// With the driver that it is made for; on the images, both are what is shipped.
TEST_F(ServiceTest, ServesFilesThroughTheDriver)
{
    ASSERT_EQ(Host().LoadGvnd(), STATUS_SUCCESS);
    ASSERT_EQ(LoadService(), STATUS_SUCCESS);
    {
        const workbench::File file =
            workbench::OpenFile("\\??\\Memfs\\file",
                                {.Access = FILE_READ_DATA | FILE_WRITE_DATA | SYNCHRONIZE, .Disposition = FILE_CREATE});
        file.Write(0, "content", 7);
        char back[16] = {};
        EXPECT_EQ(file.Read(3, back, sizeof back), 4u);
        EXPECT_STREQ(back, "tent");
    }
    Unload(service);
    EXPECT_TRUE(Host().UnloadDrivers().Clean());
}

// The host reports whatever a failed entry leaves behind.
TEST_F(ServiceTest, AFailedStartLeavesNothing)
{
    EXPECT_FALSE(NT_SUCCESS(LoadService())); // no control device

    LoadControl();
    g_mountStatus = STATUS_OBJECT_NAME_COLLISION;
    EXPECT_EQ(LoadService(), STATUS_OBJECT_NAME_COLLISION);

    g_mountStatus = STATUS_SUCCESS;
    for (const char16_t* bad :
         {u"capacity=", u"capacity=7Q", u"capacity=99999999999999999999", u"size=7", u"capacity=4K;"}) {
        SetText("Arguments", bad);
        EXPECT_EQ(LoadService(), STATUS_INVALID_PARAMETER);
    }
    SetText("Arguments", u"label=123456789012345678901234567890123");
    EXPECT_EQ(LoadService(), STATUS_INVALID_VOLUME_LABEL);
    const ULONG number = 7;
    ASSERT_EQ(nthost::SetRegistryValue(kServiceKey, "Arguments", REG_DWORD, &number, sizeof number), STATUS_SUCCESS);
    EXPECT_EQ(LoadService(), STATUS_OBJECT_TYPE_MISMATCH);
    EXPECT_EQ(g_mounted.UnmountRequests, 0);
}

} // namespace memfs_tests
