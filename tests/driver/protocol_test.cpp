// The plugin call protocol as a request meets it: exceptions, empty slots, the gate, a volume that is on its way out;
// and that each of them leaves the volume's counts and lists as they were.

#include "open_volume.h"

#include <optional>

#include "frame/context.h"
#include "entry/entry.h"
#include "frame/driver.h"
#include "support/handmade.h"
#include "volume/volume.h"

namespace opening {
namespace {

class Protocol : public VolumeTest {
protected:
    NTSTATUS ReadOne(HANDLE file)
    {
        char byte = 0;
        LARGE_INTEGER offset = {};
        IO_STATUS_BLOCK statusBlock = {};
        return NtReadFile(file, nullptr, nullptr, nullptr, &statusBlock, &byte, 1, &offset, nullptr);
    }

    void ExpectQuiet() GV_NO_ANALYSIS
    {
        Vcb* const vcb = Volume();
        EXPECT_EQ(vcb->PluginCallCount, 0u);
        EXPECT_EQ(vcb->PinCount, 0u);
        EXPECT_EQ(vcb->PendedCount, 0u);
        for (const LIST_ENTRY& list : vcb->PendedList) EXPECT_TRUE(IsListEmpty(&list));
        EXPECT_TRUE(IsListEmpty(&vcb->ActiveList));
    }
};

TEST_F(Protocol, ContainsWhatAPluginRaises)
{
    Handle file = OpenOrFail("\\file");
    Plugin().Raise("Read", STATUS_DISK_CORRUPT_ERROR);
    Plugin().Fault("Read", 2);
    for (int round = 0; round < 2; ++round) {
        Trace().Clear();
        // The exception's own code is not passed on.
        EXPECT_STATUS(STATUS_ACCESS_VIOLATION, ReadOne(file.Get()));
        EXPECT_TRUE(Trace().Contains("EXCEPTION!!! in plugin call\n"));
        EXPECT_TRUE(Trace().Contains("Read(): 0xc0000005\n"));
        ExpectQuiet();
    }
    EXPECT_STATUS(STATUS_SUCCESS, ReadOne(file.Get()));
}

TEST_F(Protocol, ReadsEachSlotAnewAndRefusesAnEmptyOne)
{
    Handle file = OpenOrFail("\\file");
    const PluginReadFn read = std::exchange(Plugin().Table()->Read, nullptr);
    EXPECT_STATUS(STATUS_NOT_SUPPORTED, ReadOne(file.Get()));
    ExpectQuiet();
    Plugin().Table()->Read = read;
    EXPECT_STATUS(STATUS_SUCCESS, ReadOne(file.Get()));
}

TEST_F(Protocol, AllowsEverythingWithoutAnAccessCheck)
{
    Plugin().Table()->AccessCheck = nullptr;
    OpenOrFail("\\file", {.Access = FILE_READ_DATA | FILE_WRITE_DATA | SYNCHRONIZE});
    EXPECT_EQ(Plugin().Count("AccessCheck"), 0u);
}

// A handle that the plugin has been told to close must never be seen by it again.
TEST_F(Protocol, GateKeepsAClosedHandleFromThePlugin)
{
    Handle file = OpenOrFail("\\file");
    Fcb* const fcb = Find("\\file");
    ASSERT_NE(fcb, nullptr);
    Plugin().Clear();
    fcb->PluginFdClosed = 1;
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, ReadOne(file.Get()));
    fcb->PluginFdClosed = 0;
    EXPECT_TRUE(Plugin().Calls().empty());
    ExpectQuiet();
}

TEST_F(Protocol, RefusesCallsOnceAnUnmountIsRequested)
{
    Handle file = OpenOrFail("\\dir\\sub\\deep");
    Plugin().Clear();
    EXPECT_STATUS(STATUS_SUCCESS, Host().Services()->UnmountRequest(Device()));
    EXPECT_EQ(Plugin().Unmounted(), 0u); // somebody has a file open
    EXPECT_STATUS(STATUS_ACCESS_DENIED, ReadOne(file.Get()));
    EXPECT_TRUE(Trace().Contains("GvAddrefThreadForPluginCall(): 0xc0000022\n"));
    EXPECT_STATUS(STATUS_NOT_SUPPORTED, Open("\\file", {.Disposition = FILE_SUPERSEDE}).Status); // comes first
    EXPECT_STATUS(STATUS_ACCESS_DENIED, Open("\\file").Status);
    EXPECT_TRUE(Trace().Contains("GvPinVcbIfMounted(): failed: 0xc0000022\n"));

    // The close finishes, the plugin hears nothing of the handles, and the volume goes.
    EXPECT_STATUS(STATUS_SUCCESS, file.Close());
    Plugin().WaitUntilUnmounted();
    EXPECT_TRUE(Plugin().Calls().empty());
    ForgetDevice();
}

TEST_F(Protocol, UnmountBetweenTwoCallsOfOneCreateFailsTheSecond)
{
    Plugin().Before(
        "Lookup", [this](PKEVENT) { EXPECT_STATUS(STATUS_SUCCESS, Host().Services()->UnmountRequest(Device())); }, 2);
    EXPECT_STATUS(STATUS_ACCESS_DENIED, Open("\\dir\\file").Status);
    Plugin().WaitUntilUnmounted(); // the create's own unpin ended the volume
    ForgetDevice();
}

TEST_F(Protocol, MountWantsTheRightTable)
{
    for (const ULONG version : {7u, 9u}) {
        PluginOps table = *Plugin().Table();
        table.Version = version;
        PDEVICE_OBJECT device = nullptr;
        EXPECT_STATUS(STATUS_INVALID_PARAMETER,
                      Host().Services()->Mount(Text("\\Device\\Null"), Text("\\Device\\Second"), Text("\\??\\Second"),
                                               nullptr, &table, &device));
        EXPECT_EQ(device, nullptr);
        EXPECT_STATUS(STATUS_OBJECT_NAME_NOT_FOUND, support::Open("\\??\\Second").Status);
    }
    EXPECT_TRUE(Trace().Contains("ERR: unsupported plugin-op version: 9, needed: 8\n"));

    PDEVICE_OBJECT device = nullptr;
    EXPECT_STATUS(STATUS_INVALID_PARAMETER,
                  Host().Services()->Mount(nullptr, Text("\\Device\\Second"), Text("\\??\\Second"), nullptr,
                                           Plugin().Table(), &device));
    EXPECT_TRUE(Trace().Contains("bad params\n"));
    {
        const support::AtIrql irql(APC_LEVEL);
        EXPECT_STATUS(STATUS_UNSUCCESSFUL,
                      Host().Services()->Mount(nullptr, nullptr, nullptr, nullptr, nullptr, &device));
    }
    // The status of the open comes back, and neither device nor link stays.
    EXPECT_STATUS(STATUS_OBJECT_NAME_NOT_FOUND,
                  Host().Services()->Mount(Text("\\Device\\Nothing"), Text("\\Device\\Second"), Text("\\??\\Second"),
                                           nullptr, Plugin().Table(), &device));
    EXPECT_EQ(device, nullptr);
    EXPECT_STATUS(STATUS_OBJECT_NAME_NOT_FOUND, support::Open("\\Device\\Second").Status);
    // Neither may a taken name cost the volume that has it.
    EXPECT_STATUS(STATUS_OBJECT_NAME_COLLISION,
                  Host().Services()->Mount(Text("\\Device\\Null"), Text("\\Device\\Second"), Text("\\??\\Opening"),
                                           nullptr, Plugin().Table(), &device));
    EXPECT_EQ(device, nullptr);
    OpenOrFail("\\file");
}

struct PlaceRow {
    const char* What;
    UCHAR Major;
    UCHAR Minor;
    bool Nested;
    KIRQL Irql;
    NTSTATUS Expected;
};

// Only a read may come from APC_LEVEL, where it goes to a worker. Closes have a file of their own.
TEST_F(Protocol, JudgesWhereARequestComesFrom)
{
    const PlaceRow rows[] = {
        {"read at APC_LEVEL", IRP_MJ_READ, 0, false, APC_LEVEL, STATUS_SUCCESS},
        {"read above", IRP_MJ_READ, 0, false, DISPATCH_LEVEL, STATUS_UNSUCCESSFUL},
        {"lock", IRP_MJ_LOCK_CONTROL, IRP_MN_LOCK, false, APC_LEVEL, STATUS_UNSUCCESSFUL},
        {"listing", IRP_MJ_DIRECTORY_CONTROL, IRP_MN_QUERY_DIRECTORY, false, APC_LEVEL, STATUS_INVALID_PARAMETER},
        {"listing above", IRP_MJ_DIRECTORY_CONTROL, IRP_MN_QUERY_DIRECTORY, false, DISPATCH_LEVEL, STATUS_UNSUCCESSFUL},
        {"control", IRP_MJ_FILE_SYSTEM_CONTROL, IRP_MN_USER_FS_REQUEST, false, APC_LEVEL, STATUS_UNSUCCESSFUL},
        {"cleanup", IRP_MJ_CLEANUP, 0, false, APC_LEVEL, STATUS_UNSUCCESSFUL},
        {"nested cleanup", IRP_MJ_CLEANUP, 0, true, PASSIVE_LEVEL, STATUS_INVALID_PARAMETER},
    };
    Handle file = OpenOrFail("\\file");
    FileReference object(file.Get());
    for (const PlaceRow& row : rows) {
        SCOPED_TRACE(row.What);
        char byte = 0;
        support::HandMade request(Device(), object.Get(), row.Major, row.Minor);
        request.Irp()->UserBuffer = &byte;
        if (row.Major == IRP_MJ_READ) request.Stack()->Parameters.Read.Length = 1;
        {
            std::optional<support::InsideOtherWork> inside;
            if (row.Nested) inside.emplace();
            const support::AtIrql irql(row.Irql);
            const NTSTATUS returned = request.Send();
            EXPECT_STATUS(NT_SUCCESS(row.Expected) ? STATUS_PENDING : row.Expected, returned);
        }
        EXPECT_STATUS(row.Expected, request.Status());
        EXPECT_EQ(request.Information(), NT_SUCCESS(row.Expected) ? 1u : 0u);
        EXPECT_EQ(byte, NT_SUCCESS(row.Expected) ? '0' : 0);
    }
    EXPECT_EQ(Find("\\file")->HandleCount, 1);
    ExpectQuiet();
}

// A request whose file object was opened elsewhere never reaches an inner routine.
TEST_F(Protocol, RefusesAForeignFileObject)
{
    Handle file = OpenOrFail("\\file");
    FileReference reference(file.Get());
    DEVICE_OBJECT foreign = {};
    reference->DeviceObject = &foreign;
    IrpContext* context = nullptr;
    const PIRP irp = IoAllocateIrp(1, FALSE);
    IoSetNextIrpStackLocation(irp);
    IoGetCurrentIrpStackLocation(irp)->FileObject = reference.Get();
    EXPECT_STATUS(STATUS_INVALID_PARAMETER, GvAllocIrpContext(Device(), irp, true, &context));
    EXPECT_EQ(context, nullptr);
    reference->DeviceObject = Device();
    IoFreeIrp(irp);
}

// A context that still has a live link is not freed under the list.
TEST_F(Protocol, KeepsAContextThatIsStillQueued)
{
    Handle file = OpenOrFail("\\file");
    FileReference reference(file.Get());
    const PIRP irp = IoAllocateIrp(1, FALSE);
    IoSetNextIrpStackLocation(irp);
    IoGetCurrentIrpStackLocation(irp)->FileObject = reference.Get();
    IrpContext* context = nullptr;
    ASSERT_STATUS(STATUS_SUCCESS, GvAllocIrpContext(Device(), irp, true, &context));
    GvArmCancelForPluginCall(Volume(), context);
    EXPECT_EQ(irp->CancelRoutine, GvIoCancelRoutine);
    EXPECT_STATUS(STATUS_UNSUCCESSFUL, GvFreeIrpContext(context));
    EXPECT_STATUS(STATUS_UNSUCCESSFUL, GvPendIrpContext(context));
    GvDisarmCancelForPluginCall(Volume(), context, CancelRoutine::Clear);
    EXPECT_EQ(irp->CancelRoutine, nullptr);
    EXPECT_STATUS(STATUS_SUCCESS, GvFreeIrpContext(context));
    IoFreeIrp(irp);
    ExpectQuiet();
}

} // namespace
} // namespace opening
