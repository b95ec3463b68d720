// Closes in every context that one can come in: on the caller's own thread, for a caller that goes on, at APC_LEVEL,
// nested in other file-system work, after an unmount was requested; and which of them must be refused.

#include <atomic>
#include <barrier>
#include <thread>

#include <nthost/faults.h>
#include <nthost/process.h>

#include "create/create.h"
#include "objects/fcb.h"
#include "open_requests.h"
#include "volume/volume.h"

namespace opening {
namespace {

using support::AtIrql;
using support::Caller;

class Closes : public VolumeTest {
protected:
    // A file object that the I/O manager knows nothing of, past its cleanup: nobody else will send its close.
    void Join(Fcb* fcb, PFILE_OBJECT file, ULONG flags = 0)
    {
        *file = {};
        file->DeviceObject = Device();
        file->Flags = flags;
        EXPECT_STATUS(STATUS_SUCCESS, GvInitFileObj(file, fcb, false));
        InterlockedDecrement(&fcb->HandleCount);
        GvFcbAddReference(fcb);
    }
};

struct ContextRow {
    const char* What;
    bool Asynchronous;
    bool Nested;
    KIRQL Irql;
    bool Last; // nobody else has the object open
    NTSTATUS Returned;
    NTSTATUS Status;
};

const ContextRow kContexts[] = {
    {"plain", false, false, PASSIVE_LEVEL, true, STATUS_SUCCESS, STATUS_SUCCESS},
    {"asynchronous", true, false, PASSIVE_LEVEL, true, STATUS_PENDING, STATUS_SUCCESS},
    {"at APC_LEVEL", false, false, APC_LEVEL, true, STATUS_PENDING, STATUS_SUCCESS},
    {"above", false, false, DISPATCH_LEVEL, true, STATUS_UNSUCCESSFUL, STATUS_UNSUCCESSFUL},
    {"nested", false, true, PASSIVE_LEVEL, false, STATUS_SUCCESS, STATUS_SUCCESS},
    {"nested, asynchronous", true, true, PASSIVE_LEVEL, false, STATUS_PENDING, STATUS_SUCCESS},
    {"nested, at APC_LEVEL", false, true, APC_LEVEL, false, STATUS_PENDING, STATUS_SUCCESS},
    // Without the volume's lock nobody may take the record down.
    {"nested and last", false, true, PASSIVE_LEVEL, true, STATUS_UNSUCCESSFUL, STATUS_UNSUCCESSFUL},
    {"nested, last, asynchronous", true, true, PASSIVE_LEVEL, true, STATUS_UNSUCCESSFUL, STATUS_UNSUCCESSFUL},
};

TEST_F(Closes, EndsOrIsRefusedByItsContext)
{
    for (const ContextRow& row : kContexts) {
        SCOPED_TRACE(row.What);
        Handle other = OpenOrFail("\\dir\\file");
        Fcb* const fcb = Find("\\dir\\file");
        FILE_OBJECT file;
        Join(fcb, &file, row.Asynchronous ? 0 : FO_SYNCHRONOUS_IO);
        if (row.Last) other.Close();
        std::thread::id closedBy = {};
        Plugin().Before("Close", [&](PKEVENT) { closedBy = std::this_thread::get_id(); });
        {
            HandMade close(Device(), &file, IRP_MJ_CLOSE, 0, row.Asynchronous ? Caller::GoesOn : Caller::Waits);
            std::optional<InsideOtherWork> inside;
            if (row.Nested) inside.emplace();
            const AtIrql irql(row.Irql);
            EXPECT_STATUS(row.Returned, close.Send());
            EXPECT_STATUS(row.Status, close.Status());
        }
        if (!NT_SUCCESS(row.Status)) { // nothing was released, so a close in a better place still can
            EXPECT_EQ(fcb->RefCount, 1);
            EXPECT_EQ(fcb->OpenCount, 1);
            EXPECT_STATUS(STATUS_SUCCESS, HandMade(Device(), &file, IRP_MJ_CLOSE).Send());
        }
        EXPECT_EQ(FcbCount(), row.Last ? 0u : 3u);
        if (!row.Last) {
            EXPECT_EQ(fcb->RefCount, 1);
            EXPECT_EQ(fcb->OpenCount, 1);
            other.Close();
        }
        const bool byWorker = row.Returned == STATUS_PENDING && row.Last;
        EXPECT_EQ(closedBy != std::this_thread::get_id(), byWorker);
    }
    EXPECT_EQ(Trace().Count("ERROR: non-top-level final close on FO: 0x"), 2u);
}

// Both find a reference to spare, and neither knows of the other: one of them has to stay.
TEST_F(Closes, OfTwoNestedOnesWithNoOtherHolderOneIsRefused)
{
    constexpr int kRounds = 300;
    FILE_OBJECT files[2];
    NTSTATUS results[2];
    std::barrier together(2);
    const auto closeOne = [&](int which) {
        HandMade close(Device(), &files[which], IRP_MJ_CLOSE);
        const InsideOtherWork inside;
        together.arrive_and_wait();
        results[which] = close.Send();
        together.arrive_and_wait();
    };
    std::thread second = nthost::StartThread(nthost::HostProcess(), [&] {
        for (int round = 0; round < kRounds; ++round) {
            together.arrive_and_wait();
            closeOne(1);
        }
    });
    for (int round = 0; round < kRounds; ++round) {
        Handle opener = OpenOrFail("\\file");
        Fcb* const fcb = Find("\\file");
        for (FILE_OBJECT& file : files) Join(fcb, &file, FO_SYNCHRONOUS_IO);
        opener.Close();
        together.arrive_and_wait();
        closeOne(0);
        EXPECT_NE(NT_SUCCESS(results[0]), NT_SUCCESS(results[1]));
        EXPECT_EQ(FcbCount(), 2u);
        for (int i = 0; i < 2; ++i)
            if (!NT_SUCCESS(results[i]))
                EXPECT_STATUS(STATUS_SUCCESS, HandMade(Device(), &files[i], IRP_MJ_CLOSE).Send());
        EXPECT_EQ(FcbCount(), 0u);
    }
    second.join();
}

// The worker that serves the last close is one of those that the unmount then stops.
TEST_F(Closes, AnAsynchronousOneLetsARequestedUnmountGoOn)
{
    Handle opener = OpenOrFail("\\file");
    FILE_OBJECT file;
    Join(Find("\\file"), &file);
    opener.Close();
    Plugin().Clear();
    const PDEVICE_OBJECT device = Device();
    ObReferenceObject(device); // as a file object of the I/O manager's would
    EXPECT_STATUS(STATUS_SUCCESS, Host().Services()->UnmountRequest(device));
    ForgetDevice();
    EXPECT_EQ(Plugin().Unmounted(), 0u);
    {
        HandMade close(device, &file, IRP_MJ_CLOSE, 0, Caller::GoesOn);
        EXPECT_STATUS(STATUS_PENDING, close.Send());
        EXPECT_STATUS(STATUS_SUCCESS, close.Status());
    }
    ObDereferenceObject(device);
    Plugin().WaitUntilUnmounted();
    EXPECT_TRUE(Plugin().Calls().empty()); // it hears nothing any more, not even of the handle
}

// A close that cannot get its context has released nothing, and can be sent again.
TEST_F(Closes, WithoutMemoryReleasesNothing)
{
    for (const Caller caller : {Caller::Waits, Caller::GoesOn}) {
        Handle opener = OpenOrFail("\\file");
        Fcb* const fcb = Find("\\file");
        FILE_OBJECT file;
        Join(fcb, &file, caller == Caller::Waits ? FO_SYNCHRONOUS_IO : 0);
        opener.Close();
        bool failed = true;
        for (unsigned n = 1; failed; ++n) {
            ASSERT_EQ(fcb->RefCount, 1u);
            const nthost::FaultPlan plan("ExAllocatePoolWithTag", n);
            HandMade close(Device(), &file, IRP_MJ_CLOSE, 0, caller);
            (void)close.Send();
            failed = plan.Injected();
            EXPECT_STATUS(failed ? STATUS_INSUFFICIENT_RESOURCES : STATUS_SUCCESS, close.Status());
            if (!failed) EXPECT_GT(n, 1u);
        }
        EXPECT_EQ(FcbCount(), 0u);
    }
}

} // namespace
} // namespace opening
