// Which requests a file object's life sends, and how long devices stay for it.
#include "probe.h"

#include <nthost/user_memory.h>

#include "ob/object.h"

using namespace probe;

namespace {

using Lifecycle = IoTest;

HANDLE Duplicate(HANDLE handle, HANDLE process = NtCurrentProcess())
{
    HANDLE copy = nullptr;
    EXPECT_EQ(NtDuplicateObject(NtCurrentProcess(), handle, process, &copy, 0, 0, DUPLICATE_SAME_ACCESS),
              STATUS_SUCCESS);
    return copy;
}

TEST_F(Lifecycle, CleanupComesWithTheLastHandleAndCloseWithTheLastReference)
{
    const Opened opened = Open();
    ASSERT_EQ(opened.Status, STATUS_SUCCESS);
    const HANDLE second = Duplicate(opened.Handle);
    PFILE_OBJECT const file = FileOf(opened.Handle);
    ObReferenceObject(file);

    NtClose(opened.Handle);
    EXPECT_EQ(Seen(IRP_MJ_CLEANUP), 0u);
    NtClose(second);
    EXPECT_EQ(Seen(IRP_MJ_CLEANUP), 1u);
    EXPECT_TRUE(file->Flags & FO_CLEANUP_COMPLETE);
    EXPECT_EQ(Seen(IRP_MJ_CLOSE), 0u);
    ObDereferenceObject(file);
    EXPECT_EQ(Seen(IRP_MJ_CLOSE), 1u);
}

TEST_F(Lifecycle, ProcessExitClosesItsHandles)
{
    {
        nthost::Process process("guest");
        nthost::ActAs guest(process.Object());
        EXPECT_EQ(Open().Status, STATUS_SUCCESS);
    }
    EXPECT_EQ(Seen(IRP_MJ_CLEANUP), 1u);
    EXPECT_EQ(Seen(IRP_MJ_CLOSE), 1u);
}

// The name's memory is pool, which a driver may take over, or replace by its own.
TEST_F(Lifecycle, NamesAreTheDriversToFreeAndReplace)
{
    for (const char* what : {"freed", "replaced", "replaced, then renamed by the kernel"}) {
        Driver().Majors[IRP_MJ_CREATE] = [&](PDEVICE_OBJECT, PIRP irp) {
            PFILE_OBJECT const file = IoGetCurrentIrpStackLocation(irp)->FileObject;
            ExFreePoolWithTag(file->FileName.Buffer, 0);
            file->FileName = {};
            if (what == std::string("freed")) return Complete(irp, STATUS_SUCCESS);
            file->FileName.Buffer = static_cast<PWCH>(ExAllocatePoolWithTag(PagedPool, 8, 'eman'));
            file->FileName.MaximumLength = 8;
            if (what != std::string("replaced"))
                EXPECT_EQ(IoReplaceFileObjectName(file, const_cast<PWSTR>(L"\\longer"), 14), STATUS_SUCCESS);
            return Complete(irp, STATUS_SUCCESS);
        };
        const Opened opened = Open();
        ASSERT_EQ(opened.Status, STATUS_SUCCESS);
        if (what == std::string("replaced, then renamed by the kernel"))
            EXPECT_EQ(Text(&FileOf(opened.Handle)->FileName), "\\longer");
        NtClose(opened.Handle);
    }
}

TEST_F(Lifecycle, FailedCreateSendsNeitherCleanupNorClose)
{
    Driver().Majors[IRP_MJ_CREATE] = [](PDEVICE_OBJECT, PIRP irp) { return Complete(irp, STATUS_ACCESS_DENIED, 3); };
    const Opened opened = Open();
    EXPECT_EQ(opened.Status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(opened.Block.Information, 77u); // untouched on an error
    EXPECT_EQ(Seen(IRP_MJ_CLEANUP) + Seen(IRP_MJ_CLOSE), 0u);
    EXPECT_EQ(device->ReferenceCount, 0);
}

TEST_F(Lifecycle, OpenThatGetsNoHandleIsClosedAgain)
{
    Name path(L"\\??\\Probe\\file");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, path, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK block;
    // Bad from the start: seen before anything is opened.
    nthost::UserMemory memory(PAGE_SIZE);
    auto* const handle = reinterpret_cast<PHANDLE>(memory.Address());
    const auto open = [&] {
        return NtCreateFile(handle, FILE_READ_DATA, &attributes, &block, nullptr, 0, 0, FILE_OPEN, 0, nullptr, 0);
    };
    memory.Protect(true, false);
    EXPECT_EQ(open(), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(Seen(IRP_MJ_CREATE), 0u);
    // Gone bad while the driver works: the file is closed like any other.
    memory.Protect(true, true);
    Driver().Majors[IRP_MJ_CREATE] = [&](PDEVICE_OBJECT, PIRP irp) {
        memory.Protect(false, false);
        return Complete(irp, STATUS_SUCCESS, FILE_OPENED);
    };
    EXPECT_EQ(open(), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(Seen(IRP_MJ_CLEANUP), 1u);
    EXPECT_EQ(Seen(IRP_MJ_CLOSE), 1u);
}

TEST_F(Lifecycle, PendedCreateCleanupAndCloseAreWaitedFor)
{
    for (const UCHAR major : {IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}) {
        Parked parked;
        Driver().Majors[major] = parked.Routine();
        parked.CompleteOnOtherThread(STATUS_SUCCESS);
        const Opened opened = Open();
        ASSERT_EQ(opened.Status, STATUS_SUCCESS);
        NtClose(opened.Handle);
        Driver().Majors[major] = nullptr;
    }
    EXPECT_EQ(Seen(IRP_MJ_CLOSE), 3u);
    EXPECT_EQ(device->ReferenceCount, 0);
}

TEST_F(Lifecycle, DeletedDeviceLosesItsNameAtOnceAndItsMemoryAtTheEnd)
{
    Name name(L"\\Device\\Second");
    PDEVICE_OBJECT second;
    ASSERT_EQ(IoCreateDevice(Object(), 0, name, FILE_DEVICE_UNKNOWN, 0, FALSE, &second), STATUS_SUCCESS);
    EXPECT_EQ(IoCreateDevice(Object(), 0, name, FILE_DEVICE_UNKNOWN, 0, FALSE, &second), STATUS_OBJECT_NAME_COLLISION);
    second = Object()->DeviceObject;
    second->Flags &= ~DO_DEVICE_INITIALIZING;
    const Opened opened = Open({.Path = L"\\Device\\Second\\x"});
    ASSERT_EQ(opened.Status, STATUS_SUCCESS);
    ObReferenceObject(second);

    IoDeleteDevice(second);
    EXPECT_EQ(Open({.Path = L"\\Device\\Second\\x"}).Status, STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Open({.Path = L"x", .Root = opened.Handle}).Status, STATUS_NO_SUCH_DEVICE);
    EXPECT_EQ(Object()->DeviceObject, second); // still the driver's: a file stands on it
    IO_STATUS_BLOCK block;
    EXPECT_EQ(Control(opened.Handle, nullptr, &block), STATUS_SUCCESS);
    NtClose(opened.Handle);
    EXPECT_EQ(Object()->DeviceObject, device);
    EXPECT_EQ(nthost::ob::PointerCount(second), 1);
    ObDereferenceObject(second);
}

TEST_F(Lifecycle, DeviceRefusesOpensWhileItInitialises)
{
    PDEVICE_OBJECT second;
    Name name(L"\\Device\\Second");
    ASSERT_EQ(IoCreateDevice(Object(), 8, name, FILE_DEVICE_UNKNOWN, 0, TRUE, &second), STATUS_SUCCESS);
    EXPECT_EQ(*static_cast<ULONGLONG*>(second->DeviceExtension), 0u);
    EXPECT_EQ(second->DeviceExtension, second + 1);
    EXPECT_EQ(Open({.Path = L"\\Device\\Second"}).Status, STATUS_NO_SUCH_DEVICE);
    second->Flags &= ~DO_DEVICE_INITIALIZING;
    const Opened opened = Open({.Path = L"\\Device\\Second"});
    ASSERT_EQ(opened.Status, STATUS_SUCCESS);
    // Exclusive: one open, and those relative to it.
    EXPECT_EQ(Open({.Path = L"\\Device\\Second"}).Status, STATUS_ACCESS_DENIED);
    const Opened relative = Open({.Path = L"x", .Root = opened.Handle});
    EXPECT_EQ(relative.Status, STATUS_SUCCESS);
    NtClose(relative.Handle);
    NtClose(opened.Handle);
    IoDeleteDevice(second);
}

TEST_F(Lifecycle, SynchronousFileObjectTakesOneRequestAtATime)
{
    const Opened opened = Open();
    std::atomic<int> inside{0}, most{0};
    Driver().Majors[IRP_MJ_DEVICE_CONTROL] = [&](PDEVICE_OBJECT, PIRP irp) {
        most = std::max<int>(most, ++inside);
        std::this_thread::yield();
        --inside;
        return Complete(irp, STATUS_SUCCESS);
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.push_back(nthost::StartThread(nthost::HostProcess(), [&] {
            for (int n = 0; n < 200; ++n) {
                IO_STATUS_BLOCK block;
                EXPECT_EQ(Control(opened.Handle, nullptr, &block), STATUS_SUCCESS);
            }
        }));
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(most, 1);
    NtClose(opened.Handle);
}

} // namespace
