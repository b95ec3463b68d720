// What becomes of a request's end: service status, status block, events; and how buffers travel.
#include "probe.h"

#include <cstring>

#include <nthost/user_memory.h>

using namespace probe;

namespace {

using Completion = IoTest;

HANDLE NewEvent()
{
    HANDLE event = nullptr;
    EXPECT_EQ(NtCreateEvent(&event, EVENT_ALL_ACCESS, nullptr, NotificationEvent, TRUE), STATUS_SUCCESS);
    return event;
}

bool IsSet(HANDLE event)
{
    LARGE_INTEGER now{};
    return NtWaitForSingleObject(event, FALSE, &now) == STATUS_SUCCESS;
}

enum class When {
    InDispatch,
    BeforeReturn, // on another thread, before the dispatch routine returns STATUS_PENDING
    AfterReturn   // when the dispatch routine may have returned
};

struct RuleRow {
    ULONG Options;
    When Ends;
    NTSTATUS Status;
    bool BlockWritten;
    bool UserEventSet;
    bool FileEventSet; // of a request without an event of its own
};

constexpr ULONG Sync = FILE_SYNCHRONOUS_IO_NONALERT, Async = 0;

// An error that the service returns at once is told nowhere else. One that comes later is told through status block and
// event on an asynchronous file object; on a synchronous one the service returns it.
constexpr RuleRow kRules[] = {
    {Async, When::InDispatch, STATUS_SUCCESS, true, true, true},
    {Async, When::InDispatch, STATUS_BUFFER_OVERFLOW, true, true, true},
    {Async, When::InDispatch, STATUS_ACCESS_DENIED, false, false, false},
    {Async, When::BeforeReturn, STATUS_SUCCESS, true, true, true},
    {Async, When::BeforeReturn, STATUS_ACCESS_DENIED, true, true, true},
    {Async, When::AfterReturn, STATUS_SUCCESS, true, true, true},
    {Async, When::AfterReturn, STATUS_ACCESS_DENIED, true, true, true},
    {Sync, When::InDispatch, STATUS_SUCCESS, true, true, true},
    {Sync, When::InDispatch, STATUS_ACCESS_DENIED, false, false, false},
    {Sync, When::BeforeReturn, STATUS_SUCCESS, true, true, true},
    {Sync, When::BeforeReturn, STATUS_ACCESS_DENIED, false, false, true},
    {Sync, When::AfterReturn, STATUS_SUCCESS, true, true, true},
    {Sync, When::AfterReturn, STATUS_BUFFER_OVERFLOW, true, true, true},
    {Sync, When::AfterReturn, STATUS_ACCESS_DENIED, false, false, true},
};

void RunRule(Script& script, const RuleRow& row, HANDLE event)
{
    const Opened opened = Open({.Options = row.Options});
    IO_STATUS_BLOCK block = {{STATUS_NOT_IMPLEMENTED}, 77};
    NTSTATUS returned;
    {
        Parked parked;
        const Dispatch park = parked.Routine();
        script.Majors[IRP_MJ_DEVICE_CONTROL] = [&](PDEVICE_OBJECT target, PIRP irp) {
            if (row.Ends == When::InDispatch) return Complete(irp, row.Status, 5);
            if (row.Ends == When::AfterReturn) return park(target, irp);
            IoMarkIrpPending(irp);
            nthost::StartThread(nthost::HostProcess(), [&] { Complete(irp, row.Status, 5); }).join();
            return STATUS_PENDING;
        };
        if (row.Ends == When::AfterReturn && row.Options == Sync) parked.CompleteOnOtherThread(row.Status);
        returned = Control(opened.Handle, event, &block);
        if (row.Ends == When::AfterReturn && row.Options == Async) Complete(parked.Await(), row.Status);
    }
    const bool comesLater = row.Options == Async && row.Ends != When::InDispatch;
    EXPECT_EQ(returned, comesLater ? STATUS_PENDING : row.Status);
    EXPECT_EQ(block.Status, row.BlockWritten ? row.Status : STATUS_NOT_IMPLEMENTED);
    EXPECT_EQ(IsSet(event ? event : opened.Handle), event ? row.UserEventSet : row.FileEventSet);
    NtClose(opened.Handle);
    script.Majors[IRP_MJ_DEVICE_CONTROL] = nullptr;
}

TEST_F(Completion, TellsItsCallerByTheRules)
{
    const HANDLE event = NewEvent();
    for (const RuleRow& row : kRules) {
        SCOPED_TRACE(&row - kRules);
        RunRule(Driver(), row, event); // which finds the event signalled, and the service clears it
        RunRule(Driver(), row, nullptr);
    }
    NtClose(event);
}

TEST_F(Completion, BufferedOutputIsCopiedBackWithinBothLengths)
{
    const struct {
        NTSTATUS Status;
        ULONG_PTR Information;
        std::string Output; // of "........" given with a length of 6
    } rows[] = {
        {STATUS_SUCCESS, 0, "........"},           {STATUS_SUCCESS, 4, "ABCD...."},
        {STATUS_SUCCESS, 6, "ABCDEF.."},           {STATUS_SUCCESS, 7, "ABCDEF.."}, // more than there is room for
        {STATUS_BUFFER_OVERFLOW, 6, "ABCDEF.."},                                    // a warning comes with data
        {STATUS_INVALID_PARAMETER, 7, "........"},                                  // an error does not
    };
    const Opened opened = Open();
    for (const auto& row : rows) {
        Driver().Majors[IRP_MJ_DEVICE_CONTROL] = [&](PDEVICE_OBJECT, PIRP irp) {
            const auto& control = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
            EXPECT_EQ(control.InputBufferLength, 3u);
            EXPECT_EQ(control.OutputBufferLength, 6u);
            auto* const buffer = static_cast<char*>(irp->AssociatedIrp.SystemBuffer);
            EXPECT_EQ(std::string(buffer, 3), "in!");
            memcpy(buffer, "ABCDEF", 6);
            return Complete(irp, row.Status, row.Information);
        };
        char output[] = "........";
        char input[] = "in!";
        IO_STATUS_BLOCK block;
        const nthost::QuietFindings quiet;
        EXPECT_EQ(NtDeviceIoControlFile(opened.Handle, nullptr, nullptr, nullptr, &block, Code(METHOD_BUFFERED), input,
                                        3, output, 6),
                  row.Status);
        EXPECT_EQ(output, row.Output) << (&row - rows);
        const bool claimsMore = row.Information > 6 && !NT_ERROR(row.Status);
        ExpectFindings(claimsMore ? std::vector<std::string>{"irp-information-too-long"} : std::vector<std::string>{});
    }
    NtClose(opened.Handle);
}

// What a completion routine sees of the location below: which request it was, and nothing of what it said.
NTSTATUS NTAPI LooksBelow(PDEVICE_OBJECT, PIRP irp, PVOID context)
{
    const IO_STACK_LOCATION& below = *IoGetNextIrpStackLocation(irp);
    EXPECT_EQ(below.MajorFunction, IRP_MJ_QUERY_INFORMATION);
    EXPECT_EQ(below.MinorFunction, 0);
    EXPECT_EQ(below.Flags, 0);
    EXPECT_EQ(below.Control, 0);
    EXPECT_EQ(below.FileObject, nullptr);
    EXPECT_EQ(below.Parameters.QueryFile.Length, 0u);
    EXPECT_EQ(below.Parameters.Others.Argument4, nullptr);
    EXPECT_EQ(below.Context, context);
    EXPECT_TRUE(irp->PendingReturned);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

TEST_F(Completion, RoutinesFindTheLocationBelowCleared)
{
    Driver().Majors[IRP_MJ_QUERY_INFORMATION] = [](PDEVICE_OBJECT, PIRP irp) {
        IoMarkIrpPending(irp);
        Complete(irp, STATUS_SUCCESS);
        return STATUS_PENDING;
    };
    int context = 0;
    FILE_OBJECT file{};
    PIRP const irp = IoAllocateIrp(1, FALSE);
    IO_STACK_LOCATION& location = *IoGetNextIrpStackLocation(irp);
    location.MajorFunction = IRP_MJ_QUERY_INFORMATION;
    location.MinorFunction = 1;
    location.Flags = SL_RESTART_SCAN;
    location.FileObject = &file;
    location.Parameters.Others = {&context, &context, &context, &context};
    IoSetCompletionRoutine(irp, LooksBelow, &context, TRUE, TRUE, TRUE);
    EXPECT_EQ(IoCallDriver(device, irp), STATUS_PENDING);
    IoFreeIrp(irp);
}

TEST_F(Completion, DirectAndNeitherHandOverTheCallersPages)
{
    char output[8] = "before", input[] = "in";
    Driver().Majors[IRP_MJ_DEVICE_CONTROL] = [&](PDEVICE_OBJECT, PIRP irp) {
        const auto& control = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
        if ((control.IoControlCode & 3) == METHOD_NEITHER) {
            EXPECT_EQ(control.Type3InputBuffer, input);
            EXPECT_EQ(irp->UserBuffer, output);
            EXPECT_EQ(irp->AssociatedIrp.SystemBuffer, nullptr);
            return Complete(irp, STATUS_SUCCESS);
        }
        EXPECT_EQ(memcmp(irp->AssociatedIrp.SystemBuffer, "in", 3), 0);
        EXPECT_EQ(MmGetMdlByteCount(irp->MdlAddress), 8u);
        EXPECT_TRUE(irp->MdlAddress->MdlFlags & MDL_PAGES_LOCKED);
        auto* const mapped = static_cast<char*>(
            MmMapLockedPagesSpecifyCache(irp->MdlAddress, KernelMode, MmCached, nullptr, FALSE, NormalPagePriority));
        memcpy(mapped, "after", 6);
        return Complete(irp, STATUS_SUCCESS, 6);
    };
    const Opened opened = Open();
    IO_STATUS_BLOCK block;
    for (const ULONG method : {METHOD_OUT_DIRECT, METHOD_NEITHER})
        EXPECT_EQ(
            NtDeviceIoControlFile(opened.Handle, nullptr, nullptr, nullptr, &block, Code(method), input, 3, output, 8),
            STATUS_SUCCESS);
    EXPECT_STREQ(output, "after");
    NtClose(opened.Handle);
}

TEST_F(Completion, BadCallerMemoryEndsInAStatus)
{
    nthost::UserMemory memory(PAGE_SIZE);
    auto* const bad = memory.Address();
    memory.Protect(false, false);
    const Opened opened = Open();
    IO_STATUS_BLOCK block;
    const struct {
        ULONG Method;
        void* Input;
        void* Output;
        PIO_STATUS_BLOCK Block;
    } rows[] = {
        {METHOD_BUFFERED, bad, nullptr, &block},
        {METHOD_BUFFERED, nullptr, bad, &block},
        {METHOD_OUT_DIRECT, nullptr, bad, &block},
        {METHOD_IN_DIRECT, bad, nullptr, &block},
        {METHOD_NEITHER, nullptr, nullptr, reinterpret_cast<PIO_STATUS_BLOCK>(bad)},
    };
    for (const auto& row : rows)
        EXPECT_EQ(NtDeviceIoControlFile(opened.Handle, nullptr, nullptr, nullptr, row.Block, Code(row.Method),
                                        row.Input, 8, row.Output, 8),
                  STATUS_ACCESS_VIOLATION)
            << (&row - rows);
    EXPECT_EQ(Seen(IRP_MJ_DEVICE_CONTROL), 0u);

    // Good when the service looked, bad when the answer comes.
    memory.Protect(true, true);
    Driver().Majors[IRP_MJ_DEVICE_CONTROL] = [&](PDEVICE_OBJECT, PIRP irp) {
        memory.Protect(false, false);
        return Complete(irp, STATUS_SUCCESS, 8);
    };
    EXPECT_EQ(NtDeviceIoControlFile(opened.Handle, nullptr, nullptr, nullptr, &block, Code(METHOD_BUFFERED), nullptr, 0,
                                    bad, 8),
              STATUS_ACCESS_VIOLATION);
    NtClose(opened.Handle);
}

TEST_F(Completion, ControlNeedsTheAccessItsCodeNames)
{
    const Opened opened = Open({.Access = FILE_READ_DATA, .Options = 0});
    IO_STATUS_BLOCK block;
    const auto control = [&](ULONG access) {
        return NtDeviceIoControlFile(opened.Handle, nullptr, nullptr, nullptr, &block, Code(METHOD_NEITHER, access),
                                     nullptr, 0, nullptr, 0);
    };
    EXPECT_EQ(control(FILE_READ_ACCESS), STATUS_SUCCESS);
    EXPECT_EQ(control(FILE_WRITE_ACCESS), STATUS_ACCESS_DENIED);
    EXPECT_EQ(control(FILE_READ_ACCESS | FILE_WRITE_ACCESS), STATUS_ACCESS_DENIED);
    NtClose(opened.Handle);
}

// A driver sends a packet of its own to a device, takes it back in its completion routine, and frees it.
TEST_F(Completion, RoutineTakesItsPacketBackWithMoreProcessingRequired)
{
    const struct {
        NTSTATUS Status;
        BOOLEAN OnSuccess, OnError;
        bool Called;
    } rows[] = {
        {STATUS_SUCCESS, TRUE, FALSE, true},
        {STATUS_BUFFER_OVERFLOW, FALSE, TRUE, true}, // a warning is not a success
        {STATUS_ACCESS_DENIED, FALSE, TRUE, true},
        {STATUS_ACCESS_DENIED, TRUE, FALSE, false},
    };
    for (const auto& row : rows) {
        Driver().Majors[IRP_MJ_FLUSH_BUFFERS] = [&](PDEVICE_OBJECT, PIRP irp) { return Complete(irp, row.Status); };
        PIRP const irp = IoAllocateIrp(2, FALSE);
        // The upper location is this test's own, as a driver that wants to know the device would have it.
        IoSetNextIrpStackLocation(irp);
        IoGetCurrentIrpStackLocation(irp)->DeviceObject = device;
        IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_FLUSH_BUFFERS;
        struct Note {
            int Calls = 0;
            PDEVICE_OBJECT Device = nullptr;
        } note;
        const PIO_COMPLETION_ROUTINE routine = [](PDEVICE_OBJECT target, PIRP, PVOID context) NTAPI -> NTSTATUS {
            static_cast<Note*>(context)->Calls++;
            static_cast<Note*>(context)->Device = target;
            return STATUS_MORE_PROCESSING_REQUIRED;
        };
        IoSetCompletionRoutine(irp, routine, &note, row.OnSuccess, row.OnError, FALSE);
        nthost::QuietFindings quiet;
        EXPECT_EQ(IoCallDriver(device, irp), row.Status);
        EXPECT_EQ(note.Calls, row.Called ? 1 : 0);
        EXPECT_EQ(note.Device, row.Called ? device : nullptr);
        IoFreeIrp(irp);
        // Nobody takes a packet back that has no owner above.
        ExpectFindings(row.Called ? std::vector<std::string>{}
                                  : std::vector<std::string>{"irp-completed-without-owner"});
    }
}

TEST_F(Completion, PendingMarkTravelsUpThroughTheStack)
{
    Parked parked;
    Driver().Majors[IRP_MJ_FLUSH_BUFFERS] = parked.Routine();
    PIRP const irp = IoAllocateIrp(2, FALSE);
    IoSetNextIrpStackLocation(irp);
    IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_FLUSH_BUFFERS;
    BOOLEAN pendingReturned = FALSE;
    const PIO_COMPLETION_ROUTINE routine = [](PDEVICE_OBJECT, PIRP request, PVOID context) NTAPI -> NTSTATUS {
        *static_cast<BOOLEAN*>(context) = request->PendingReturned;
        return STATUS_MORE_PROCESSING_REQUIRED;
    };
    IoSetCompletionRoutine(irp, routine, &pendingReturned, TRUE, TRUE, TRUE);
    EXPECT_EQ(IoCallDriver(device, irp), STATUS_PENDING);
    Complete(parked.Await(), STATUS_SUCCESS);
    EXPECT_TRUE(pendingReturned);
    IoFreeIrp(irp);
}

} // namespace
