// Loading and unloading: what is there for the driver, what it may leave behind; the error log, work items and faults.
#include "probe.h"

#include <algorithm>
#include <cstring>

#include <nthost/error_log.h>
#include <nthost/faults.h>
#include <nthost/registry.h>

using namespace probe;

namespace {

using Loader = IoTest;

NTSTATUS LoadSecond(PDRIVER_OBJECT* driver) { return nthost::LoadDriver("second", DriverEntry, driver); }

bool Mentions(const std::vector<std::string>& lines, const std::string& text)
{
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& line) { return line.find(text) != std::string::npos; });
}

TEST_F(Loader, EntryRunsForTheSystemAndItsDevicesAreOpenAfterwards)
{
    PDRIVER_OBJECT second;
    EXPECT_EQ(nthost::LoadDriver("probe", DriverEntry, &second), STATUS_IMAGE_ALREADY_LOADED);
    PDEVICE_OBJECT made = nullptr;
    Driver().Entry = [&](PDRIVER_OBJECT driver) {
        EXPECT_EQ(PsGetCurrentProcess(), PsInitialSystemProcess);
        EXPECT_EQ(ExGetPreviousMode(), KernelMode);
        EXPECT_EQ(Text(&driver->DriverName), "\\Driver\\second");
        Name name(L"\\Device\\Made");
        EXPECT_EQ(IoCreateDevice(driver, 0, name, FILE_DEVICE_UNKNOWN, 0, FALSE, &made), STATUS_SUCCESS);
        EXPECT_EQ(Open({.Path = L"\\Device\\Made"}).Status, STATUS_NO_SUCH_DEVICE);
        return STATUS_SUCCESS;
    };
    Driver().Unload = [&](PDRIVER_OBJECT) { IoDeleteDevice(made); };
    ASSERT_EQ(LoadSecond(&second), STATUS_SUCCESS);
    const Opened opened = Open({.Path = L"\\Device\\Made"});
    EXPECT_EQ(opened.Status, STATUS_SUCCESS);
    nthost::LeakReport leaks;
    EXPECT_EQ(nthost::UnloadDriver(second, &leaks), STATUS_DEVICE_NOT_READY);
    NtClose(opened.Handle);
    EXPECT_EQ(nthost::UnloadDriver(second, &leaks), STATUS_SUCCESS);
    EXPECT_TRUE(leaks.Clean());
    Driver().Unload = nullptr;
}

TEST_F(Loader, DriverWithoutUnloadStaysAndMajorsLeftAloneRefuse)
{
    const PDRIVER_INITIALIZE bare = [](PDRIVER_OBJECT driver, PUNICODE_STRING path) NTAPI -> NTSTATUS {
        EXPECT_EQ(Text(path), "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\bare");
        Name name(L"\\Device\\Bare");
        PDEVICE_OBJECT made;
        return IoCreateDevice(driver, 0, name, FILE_DEVICE_UNKNOWN, 0, FALSE, &made);
    };
    PDRIVER_OBJECT driver;
    ASSERT_EQ(nthost::LoadDriver("bare", bare, &driver), STATUS_SUCCESS);
    EXPECT_EQ(Open({.Path = L"\\Device\\Bare\\x"}).Status, STATUS_INVALID_DEVICE_REQUEST);
    nthost::LeakReport leaks;
    EXPECT_EQ(nthost::UnloadDriver(driver, &leaks), STATUS_INVALID_DEVICE_REQUEST);
    driver->DriverUnload = [](PDRIVER_OBJECT object) NTAPI { IoDeleteDevice(object->DeviceObject); };
    EXPECT_EQ(nthost::UnloadDriver(driver, &leaks), STATUS_SUCCESS);
    EXPECT_TRUE(leaks.Clean());
}

TEST_F(Loader, FailedEntryLeavesNoDriverAndWhatItForgotIsFound)
{
    PVOID block = nullptr;
    Driver().Entry = [&](PDRIVER_OBJECT driver) {
        Name name(L"\\Device\\Forgotten");
        PDEVICE_OBJECT made;
        EXPECT_EQ(IoCreateDevice(driver, 0, name, FILE_DEVICE_UNKNOWN, 0, FALSE, &made), STATUS_SUCCESS);
        block = ExAllocatePoolWithTag(NonPagedPool, 32, 'dnoS');
        return STATUS_DEVICE_NOT_READY;
    };
    const nthost::QuietFindings quiet;
    PDRIVER_OBJECT second;
    EXPECT_EQ(LoadSecond(&second), STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(second, nullptr);
    ExpectFindings({"driver-leak", "driver-leak"});
    ExFreePoolWithTag(block, 'dnoS');
    Driver().Entry = [](PDRIVER_OBJECT) { return STATUS_SUCCESS; };
    Driver().Unload = [](PDRIVER_OBJECT) {};
    ASSERT_EQ(LoadSecond(&second), STATUS_SUCCESS); // the name is free again
    nthost::LeakReport leaks;
    EXPECT_EQ(nthost::UnloadDriver(second, &leaks), STATUS_SUCCESS);
    Driver().Unload = nullptr;
}

TEST_F(Loader, UnloadReportsWhatTheDriverLeft)
{
    PVOID block = nullptr;
    PIO_WORKITEM item = nullptr;
    Driver().Unload = [&](PDRIVER_OBJECT) {
        block = ExAllocatePoolWithTag(NonPagedPool, 32, 'tseT');
        item = IoAllocateWorkItem(device);
    };
    PDRIVER_OBJECT const driver = Object();
    ObReferenceObject(driver); // for the work item's sake
    std::vector<std::string> leaks;
    EXPECT_EQ(Unload(&leaks), STATUS_SUCCESS);
    EXPECT_EQ(leaks.size(), 4u);
    for (const char* const part : {"\\Device\\Probe", "??\\Probe", "work items", "Test"})
        EXPECT_TRUE(Mentions(leaks, part)) << part;
    ExFreePoolWithTag(block, 'tseT');
    IoFreeWorkItem(item);
    ObDereferenceObject(driver);
}

#if NTHOST_CHECKS

// And no timer of it comes afterwards.
TEST_F(Loader, UnloadReportsTimersAndLookasideLists)
{
    static KTIMER timer;
    static PAGED_LOOKASIDE_LIST list;
    Driver().Unload = [](PDRIVER_OBJECT) {
        LARGE_INTEGER never;
        never.QuadPart = INT64_MIN;
        KeInitializeTimer(&timer);
        KeSetTimer(&timer, never, nullptr);
        ExInitializePagedLookasideList(&list, nullptr, nullptr, 0, 32, 'tseT', 0);
        DeleteUsualDevice();
    };
    std::vector<std::string> leaks;
    EXPECT_EQ(Unload(&leaks), STATUS_SUCCESS);
    EXPECT_EQ(leaks.size(), 2u);
    for (const char* const part : {"timer", "lookaside list"}) EXPECT_TRUE(Mentions(leaks, part)) << part;
    EXPECT_FALSE(KeCancelTimer(&timer));
}

#endif

// One driver's entry may run another's code, so whose a block is can be said only when nobody is left who may want it.
TEST_F(Loader, WithTwoDriversPoolIsHeldToAccountWithTheLast)
{
    PVOID blocks[2] = {};
    Driver().Entry = [&](PDRIVER_OBJECT) {
        blocks[1] = ExAllocatePoolWithTag(NonPagedPool, 32, 'dnoS');
        return STATUS_SUCCESS;
    };
    Driver().Majors[IRP_MJ_DEVICE_CONTROL] = [&](PDEVICE_OBJECT, PIRP irp) {
        blocks[0] = ExAllocatePoolWithTag(NonPagedPool, 32, 'tsrF');
        return Complete(irp, STATUS_SUCCESS);
    };
    PDRIVER_OBJECT second;
    ASSERT_EQ(LoadSecond(&second), STATUS_SUCCESS);
    const Opened opened = Open();
    IO_STATUS_BLOCK block;
    EXPECT_EQ(Control(opened.Handle, nullptr, &block), STATUS_SUCCESS);
    NtClose(opened.Handle);

    Driver().Unload = [](PDRIVER_OBJECT) {};
    nthost::LeakReport report;
    EXPECT_EQ(nthost::UnloadDriver(second, &report), STATUS_SUCCESS);
    EXPECT_TRUE(report.Clean());
    Driver().Unload = nullptr;
    std::vector<std::string> leaks;
    EXPECT_EQ(Unload(&leaks), STATUS_SUCCESS);
    ASSERT_EQ(leaks.size(), 2u);
    EXPECT_TRUE(Mentions(leaks, "Frst"));
    EXPECT_TRUE(Mentions(leaks, "Sond"));
    ExFreePoolWithTag(blocks[0], 'tsrF');
    ExFreePoolWithTag(blocks[1], 'dnoS');
}

TEST_F(Loader, ShutdownReportsWhatIsStillOpen)
{
    const Opened opened = Open();
    ASSERT_EQ(opened.Status, STATUS_SUCCESS);
    const std::vector<std::string> left = ShutDown();
    EXPECT_TRUE(Mentions(left, "File"));
    EXPECT_TRUE(Mentions(left, "\\Driver\\probe"));
    EXPECT_EQ(Seen(IRP_MJ_CLOSE), 1u); // as at the end of any process
}

TEST_F(Loader, ErrorLogKeepsWhatDriversWrite)
{
    Driver().Majors[IRP_MJ_DEVICE_CONTROL] = [](PDEVICE_OBJECT, PIRP irp) {
        const nthost::FaultPlan plan("IoAllocateErrorLogEntry", 1);
        EXPECT_EQ(IoAllocateErrorLogEntry(device, 64), nullptr);
        return Complete(irp, STATUS_SUCCESS);
    };
    const Opened opened = Open();
    IO_STATUS_BLOCK block;
    EXPECT_EQ(Control(opened.Handle, nullptr, &block), STATUS_SUCCESS);
    NtClose(opened.Handle);
    constexpr UCHAR Size = sizeof(IO_ERROR_LOG_PACKET) + 8;
    EXPECT_EQ(IoAllocateErrorLogEntry(device, sizeof(IO_ERROR_LOG_PACKET) - 1), nullptr);
    EXPECT_EQ(IoAllocateErrorLogEntry(device, ERROR_LOG_MAXIMUM_SIZE + 1), nullptr);
    IoFreeErrorLogEntry(IoAllocateErrorLogEntry(device, ERROR_LOG_MAXIMUM_SIZE));
    for (PVOID object : {static_cast<PVOID>(device), static_cast<PVOID>(Object())}) {
        auto* const packet = static_cast<PIO_ERROR_LOG_PACKET>(IoAllocateErrorLogEntry(object, Size));
        ASSERT_NE(packet, nullptr);
        EXPECT_EQ(packet->DumpData[0], 0u);
        packet->ErrorCode = STATUS_DISK_FULL;
        packet->UniqueErrorValue = 7;
        IoWriteErrorLogEntry(packet);
    }
    const std::vector<nthost::ErrorLogEntry> entries = nthost::TakeErrorLog();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].Driver, "\\Driver\\probe");
    EXPECT_EQ(entries[0].Device, "\\Device\\Probe");
    EXPECT_EQ(entries[1].Device, "");
    EXPECT_EQ(entries[0].Packet.size(), Size);
    EXPECT_EQ(entries[0].Header().ErrorCode, STATUS_DISK_FULL);
    EXPECT_TRUE(nthost::TakeErrorLog().empty());
}

// The routine frees its own item and deletes the device that it runs for, which stays until it has returned.
TEST_F(Loader, WorkItemKeepsItsDevice)
{
    PDEVICE_OBJECT nameless;
    ASSERT_EQ(IoCreateDevice(Object(), 8, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &nameless), STATUS_SUCCESS);
    struct Job {
        PIO_WORKITEM Item;
        std::binary_semaphore Queued{0};
        bool IsSystem = false;
    } job;
    job.Item = IoAllocateWorkItem(nameless);
    const PIO_WORKITEM_ROUTINE routine = [](PDEVICE_OBJECT target, PVOID context) NTAPI {
        auto* const self = static_cast<Job*>(context);
        self->Queued.acquire();
        IoFreeWorkItem(self->Item);
        self->IsSystem = PsGetCurrentProcess() == PsInitialSystemProcess;
        EXPECT_EQ(*static_cast<ULONGLONG*>(target->DeviceExtension), 0u);
    };
    IoQueueWorkItem(job.Item, routine, DelayedWorkQueue, &job);
    IoDeleteDevice(nameless);
    job.Queued.release();
    std::vector<std::string> leaks;
    EXPECT_EQ(Unload(&leaks), STATUS_SUCCESS); // waits for the device's end
    EXPECT_EQ(leaks, std::vector<std::string>());
    EXPECT_TRUE(job.IsSystem);
}

} // namespace
