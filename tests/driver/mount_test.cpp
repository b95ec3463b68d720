// Mounting when something fails at each step, and unmounting while others open and close.

#include "open_volume.h"

#include <atomic>

#include <nthost/faults.h>
#include <nthost/process.h>
#include <nthost/registry.h>

#include "volume/volume.h"

namespace opening {
namespace {

// A kernel plugin in miniature: its entry mounts, so that faults are injected into the driver's own calls.
struct Mounter {
    static inline PluginOps* Table;
    static inline PDEVICE_OBJECT Device;
    static inline const GvServices* Services;
    static inline std::string Name; // another one each time: the end of the volume before may still be under way

    static NTSTATUS NTAPI RequestUnmount(PDRIVER_OBJECT, PUNICODE_STRING)
    {
        EXPECT_STATUS(STATUS_SUCCESS, Services->UnmountRequest(Device));
        return STATUS_UNSUCCESSFUL;
    }
    static void NTAPI Unload(PDRIVER_OBJECT) {}
    static NTSTATUS NTAPI Entry(PDRIVER_OBJECT driver, PUNICODE_STRING)
    {
        driver->DriverUnload = Unload;
        return Services->Mount(Text("\\Device\\Null"), Text("\\Device\\" + Name), Text("\\??\\" + Name), nullptr, Table,
                               &Device);
    }
};

class MountFaults : public support::HostFixture {
protected:
    void SetUp() override
    {
        HostFixture::SetUp();
        ASSERT_STATUS(STATUS_SUCCESS, MemFsCreate(nullptr, &memfs_));
        Mounter::Device = nullptr;
    }
    void TearDown() override
    {
        MemFsDestroy(memfs_);
        HostFixture::TearDown();
    }

    // The services too, before faults are counted.
    void Load()
    {
        LoadGvndOrFail();
        Mounter::Services = Host().Services();
    }
    // True if the mount succeeded; it is unmounted again.
    bool MountOnce()
    {
        layer::PluginLayer layer(memfs_);
        Mounter::Table = layer.Table();
        Mounter::Name = "Swept" + std::to_string(++rounds_);
        PDRIVER_OBJECT driver = nullptr;
        const NTSTATUS status = nthost::LoadDriver("mounter", Mounter::Entry, &driver);
        if (!NT_SUCCESS(status)) {
            EXPECT_EQ(Mounter::Device, nullptr);
            EXPECT_EQ(layer.Mounted(), 0u);
            EXPECT_STATUS(STATUS_OBJECT_NAME_NOT_FOUND, support::Open("\\??\\" + Mounter::Name).Status);
            return false;
        }
        EXPECT_EQ(layer.Mounted(), 1u);
        EXPECT_STATUS(STATUS_SUCCESS, Mounter::Services->UnmountRequest(std::exchange(Mounter::Device, nullptr)));
        layer.WaitUntilUnmounted();
        // The rest of the unmount runs on a system worker; the unload of gvnd, which waits for it, holds it to account.
        nthost::LeakReport ignored;
        EXPECT_STATUS(STATUS_SUCCESS, nthost::UnloadDriver(driver, &ignored));
        return true;
    }

    PluginOps* memfs_ = nullptr;

private:
    unsigned rounds_ = 0;
};

TEST_F(MountFaults, UnwindsFromEachStep)
{
    ASSERT_STATUS(STATUS_SUCCESS, nthost::SetRegistryDword(support::kServiceKey, "NumVcbWorkers", 3));
    Load();
    for (const char* routine : {"ExAllocatePoolWithTag", "ExInitializeResourceLite", "PsCreateSystemThread",
                                "IoCreateDevice", "IoCreateSymbolicLink", "ZwCreateFile"}) {
        SCOPED_TRACE(routine);
        unsigned failures = 0;
        const unsigned sites = nthost::SweepFaults(routine, [&](unsigned) { failures += !MountOnce(); });
        EXPECT_GT(sites, 0u);
        EXPECT_EQ(failures, sites); // there is no failure that a mount gets over
    }
}

TEST_F(MountFaults, StopsTheThreadsThatHadStarted)
{
    ASSERT_STATUS(STATUS_SUCCESS, nthost::SetRegistryDword(support::kServiceKey, "NumVcbWorkers", 511));
    Load();
    const nthost::FaultPlan fault("PsCreateSystemThread", 300);
    EXPECT_FALSE(MountOnce());
    EXPECT_TRUE(Trace().Contains("PsCreateSystemThread(): 0xc000009a\n"));
    EXPECT_EQ(Trace().Count("worker thread stopping gracefully\n"), 299u);
}

// What they use is freed then, so they are waited for also when no thread object can be had from a handle.
TEST_F(MountFaults, WaitsForThreadsByTheirHandles)
{
    Load();
    const nthost::FaultPlan fault("PsCreateSystemThread", 3);
    const nthost::FaultPlan handles("ObReferenceObjectByHandle", 2, nthost::Repeat::Yes); // the first: what is below
    EXPECT_FALSE(MountOnce());
    EXPECT_EQ(handles.Injected(), 2u);
    EXPECT_EQ(Trace().Count("ObReferenceObjectByHandle(): 0xc000009a\n"), 2u);
    EXPECT_EQ(Trace().Count("worker thread stopping gracefully\n"), 2u);
}

// Nothing is left that could try again, so the volume stays as it is; here the test tries again.
TEST_F(MountFaults, WithoutAWorkItemTheVolumeStays)
{
    Load();
    layer::PluginLayer layer(memfs_);
    ASSERT_STATUS(STATUS_SUCCESS, Host().Mount({.Name = "Stays"}, layer.Table(), &Mounter::Device));
    const PDEVICE_OBJECT device = Mounter::Device;
    // From an entry, since only what a driver calls can be made to fail.
    PDRIVER_OBJECT none = nullptr;
    {
        const nthost::FaultPlan plan("IoAllocateWorkItem", 1);
        EXPECT_STATUS(STATUS_UNSUCCESSFUL, nthost::LoadDriver("requester", Mounter::RequestUnmount, &none));
        EXPECT_EQ(plan.Injected(), 1u);
    }
    EXPECT_TRUE(Trace().Contains("IoAllocateWorkItem(): 0xc000009a\n"));
    EXPECT_EQ(layer.Unmounted(), 0u);
    EXPECT_EQ(GvLoad(GvVcbOf(device)->MountState), ULONG(GvUnmounting));
    EXPECT_STATUS(STATUS_ACCESS_DENIED, support::Open("\\??\\Stays\\file").Status);
    GvStore(GvVcbOf(device)->MountState, GvUnmountRequested);
    EXPECT_STATUS(STATUS_SUCCESS, GvUnmountIfDrained(device));
    layer.WaitUntilUnmounted();
}

class UnmountRace : public VolumeTest {};

// An open that races with the request gets its pin first, and then runs to its end, or is refused; the last close ends
// the volume.
TEST_F(UnmountRace, OpensAreServedOrRefused)
{
    constexpr int kThreads = 3;
    std::atomic<int> opened{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.push_back(nthost::StartThread(nthost::HostProcess(), [&] {
            for (;;) {
                OpenResult result = Open("\\dir\\sub\\deep");
                if (!NT_SUCCESS(result.Status)) {
                    const bool refused =
                        result.Status == STATUS_ACCESS_DENIED || result.Status == STATUS_OBJECT_NAME_NOT_FOUND ||
                        result.Status == STATUS_OBJECT_PATH_NOT_FOUND || result.Status == STATUS_NO_SUCH_DEVICE;
                    EXPECT_TRUE(refused) << std::hex << result.Status;
                    return;
                }
                ++opened;
                EXPECT_STATUS(STATUS_SUCCESS, result.File.Close());
            }
        }));
    }
    while (opened < 50) std::this_thread::yield();
    const PDEVICE_OBJECT device = Device();
    ForgetDevice();
    EXPECT_STATUS(STATUS_SUCCESS, Host().Services()->UnmountRequest(device));
    for (std::thread& thread : threads) thread.join();
    Plugin().WaitUntilUnmounted();
    EXPECT_EQ(Plugin().Unmounted(), 1u);
}

// A call that runs, in a worker, ends as if nothing had been asked; the next one is refused.
TEST_F(UnmountRace, WaitsForTheCallsThatRun)
{
    Handle file = OpenOrFail("\\file", {.Access = FILE_READ_DATA, .Options = 0});
    const auto gate = Plugin().CloseGate("Read");
    support::Request read, late;
    char bytes[2];
    ASSERT_STATUS(STATUS_PENDING, read.StartRead(file.Get(), &bytes[0], 1, 7));
    gate->WaitForArrivals(1);
    const PDEVICE_OBJECT device = Device();
    ForgetDevice();
    EXPECT_STATUS(STATUS_SUCCESS, Host().Services()->UnmountRequest(device));
    ASSERT_STATUS(STATUS_PENDING, late.StartRead(file.Get(), &bytes[1], 1, 7));
    EXPECT_STATUS(STATUS_ACCESS_DENIED, late.Wait());
    EXPECT_EQ(Plugin().Unmounted(), 0u);
    gate->Open();
    EXPECT_STATUS(STATUS_SUCCESS, read.Wait());
    EXPECT_EQ(bytes[0], '7');
    file.Close();
    Plugin().WaitUntilUnmounted();
}

} // namespace
} // namespace opening
