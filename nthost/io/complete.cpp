// Sending a request to a driver and walking its stack at completion, with the rules that a dispatch routine has to
// keep. Takes no lock; completion runs on any thread at or below DISPATCH_LEVEL. What happens after the topmost
// location is finish.cpp's.
#include <nthost/requests.h>

#include <atomic>
#include <utility>

#include <nthost/check.h>

#include "ke/callout.h"
#include "check/fatal.h"
#include "check/text.h"
#include "io/finish.h"
#include "io/irp.h"
#include "ke/recorder.h"

namespace nthost::io {

namespace {

// False, with a finding, for a request that must not be completed now.
bool MayComplete(PIRP irp)
{
    IrpRecord* const record = RecordOf(irp);
    LocationTrace* trace = nullptr;
    if (record->State.load(std::memory_order_acquire) == IrpState::Live) {
        trace = TraceOf(record, irp->CurrentLocation);
        if (!trace || !trace->Ended.load(std::memory_order_acquire)) return true;
    }
    ReportFinding("irp-completed-twice", "irp " + HexText(irp));
    return false;
}

void CheckCompletion(PIRP irp)
{
    if (irp->IoStatus.Status == STATUS_PENDING) ReportFinding("irp-completed-pending", DescribeIrp(irp));
    if (__atomic_load_n(&irp->CancelRoutine, __ATOMIC_SEQ_CST)) {
        ReportFinding("irp-completed-with-cancel-routine", DescribeIrp(irp));
        IoSetCancelRoutine(irp, nullptr);
    }
}

void TraceEnd(PIRP irp)
{
    LocationTrace* const trace = TraceOf(RecordOf(irp), irp->CurrentLocation);
    if (!trace) return;
    trace->MarkedPending = IoGetCurrentIrpStackLocation(irp)->Control & SL_PENDING_RETURNED;
    trace->Status = irp->IoStatus.Status;
    trace->Ended.store(1, std::memory_order_release);
}

// What the lower driver was told is gone when the upper one looks; what its own routine was set with is not.
void ClearLocation(PIO_STACK_LOCATION location)
{
    location->MinorFunction = location->Flags = 0;
    location->Parameters.Others = {};
    location->FileObject = nullptr;
    __atomic_store_n(&location->Control, 0, __ATOMIC_RELEASE); // its dispatch routine's return may be looking
}

bool WantsToKnow(PIRP irp, const IO_STACK_LOCATION* below)
{
    if (!below->CompletionRoutine) return false;
    if (irp->Cancel && (below->Control & SL_INVOKE_ON_CANCEL)) return true;
    return below->Control & (NT_SUCCESS(irp->IoStatus.Status) ? SL_INVOKE_ON_SUCCESS : SL_INVOKE_ON_ERROR);
}

// A completion routine stands in the location below the one of the driver that set it, and gets that driver's device.
NTSTATUS CallCompletionRoutine(PIRP irp, PIO_STACK_LOCATION below)
{
    const bool atTop = irp->CurrentLocation > irp->StackCount;
    PDEVICE_OBJECT const device = atTop ? nullptr : IoGetCurrentIrpStackLocation(irp)->DeviceObject;
    return CallDriver(MustRestore::Everything, "completion routine", below->CompletionRoutine, device, irp,
                      below->Context);
}

struct DispatchCall {
    IrpRecord* Record;
    PIO_STACK_LOCATION Location;
    LocationTrace* Trace;
    const void* OuterRelease; // ReleasedSemaphore of the dispatch routine around this one
};

DispatchCall BeginDispatch(PIRP irp)
{
    IrpRecord* const record = RecordOf(irp);
    HoldRecord(record); // the request can end before its dispatch routine returns
    if (LocationTrace* const above = TraceOf(record, irp->CurrentLocation + 1)) above->PassedDown = true;
    LocationTrace* const trace = TraceOf(record, irp->CurrentLocation);
    if (trace) {
        trace->PassedDown = false;
        trace->Ended.store(0, std::memory_order_relaxed);
    }
    const void* const outer = std::exchange(ke::CurrentThread()->ReleasedSemaphore, nullptr);
    return {record, IoGetCurrentIrpStackLocation(irp), trace, outer};
}

const char* BrokenRule(const DispatchCall& call, NTSTATUS returned)
{
    // The mark first: a completion on another thread takes it from the location after it has noted it and said so.
    const UCHAR control = __atomic_load_n(&call.Location->Control, __ATOMIC_ACQUIRE);
    const bool ended = call.Trace->Ended.load(std::memory_order_acquire);
    const bool marked = ended ? call.Trace->MarkedPending : control & SL_PENDING_RETURNED;
    if (returned == STATUS_PENDING) return marked ? nullptr : "irp-pending-not-marked";
    if (marked) return "irp-pending-not-returned";
    if (!ended) return "irp-not-completed";
    return call.Trace->Status == returned ? nullptr : "irp-status-mismatch";
}

// Who pends a request and releases a semaphore has queued it for whoever takes the permit.
void NoteQueue(const DispatchCall& call, NTSTATUS returned)
{
    const void* const released = std::exchange(ke::CurrentThread()->ReleasedSemaphore, call.OuterRelease);
    if (returned == STATUS_PENDING && released) call.Record->Queue.store(released, std::memory_order_relaxed);
}

void EndDispatch(const DispatchCall& call, UCHAR major, NTSTATUS returned)
{
    NoteQueue(call, returned);
    if (call.Trace && !call.Trace->PassedDown) {
        if (const char* const rule = BrokenRule(call, returned))
            ReportFinding(rule, Format("irp %p, major 0x%02x, dispatch returned 0x%08x",
                                       static_cast<void*>(&call.Record->Irp), major, static_cast<unsigned>(returned)));
    }
    ReleaseRecord(call.Record);
}

std::atomic<uint64_t> g_requestsSent;

NTSTATUS CallDispatch(PDEVICE_OBJECT device, PIRP irp, UCHAR major)
{
    IrpRecord* const record = RecordOf(irp);
    record->Number.store(g_requestsSent.fetch_add(1, std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    record->SentFor.store(IoGetCurrentIrpStackLocation(irp)->FileObject, std::memory_order_relaxed);
    _ETHREAD* const thread = ke::CurrentThread();
    record->SentBy = ke::RecordedNumber(thread);
    record->SentMajor = major;
    record->SentAt = ke::RequestBegins(thread, major);
    PIRP const outer = thread->CurrentIrp;
    thread->CurrentIrp = irp;
    const NTSTATUS status = CallDriver(MustRestore::Everything, "dispatch routine",
                                       device->DriverObject->MajorFunction[major], device, irp);
    thread->CurrentIrp = outer;
    return status;
}

} // namespace

} // namespace nthost::io

using namespace nthost;
using namespace nthost::io;

RequestAtWork nthost::CurrentRequest()
{
    const _ETHREAD* const thread = ke::CurrentThreadOrNull();
    if (!thread) return {};
    PIRP irp = thread->CurrentIrp;
    // A worker's; below the last marker there are no addresses.
    if (!irp && reinterpret_cast<ULONG_PTR>(thread->TopLevelIrp) > FSRTL_MAX_TOP_LEVEL_IRP_FLAG)
        irp = thread->TopLevelIrp;
    if (!irp) return {};
    const IrpRecord* const record = RecordOf(irp);
    return {record->Number.load(std::memory_order_relaxed), irp, record->Device.load(std::memory_order_relaxed),
            record->SentFor.load(std::memory_order_relaxed)};
}

uint64_t nthost::RequestsSent() { return g_requestsSent.load(std::memory_order_relaxed); }

NTSTATUS FASTCALL IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    if (Irp->CurrentLocation <= 1) Fatal("no stack location left in irp %p", static_cast<void*>(Irp));
    IoSetNextIrpStackLocation(Irp);
    PIO_STACK_LOCATION const location = IoGetCurrentIrpStackLocation(Irp);
    location->DeviceObject = DeviceObject;
    RecordOf(Irp)->Device.store(DeviceObject, std::memory_order_relaxed);
    const UCHAR major = location->MajorFunction;
    if (major > IRP_MJ_MAXIMUM_FUNCTION) Fatal("major function 0x%x in irp %p", major, static_cast<void*>(Irp));
    if (!NTHOST_CHECKS) return CallDispatch(DeviceObject, Irp, major);

    const DispatchCall call = BeginDispatch(Irp);
    const NTSTATUS status = CallDispatch(DeviceObject, Irp, major);
    EndDispatch(call, major, status);
    return status;
}

VOID FASTCALL IofCompleteRequest(PIRP Irp, CCHAR)
{
    ke::SwitchPoint("a completion");
    if (NTHOST_CHECKS) {
        if (!MayComplete(Irp)) return;
        CheckCompletion(Irp);
    }
    while (Irp->CurrentLocation <= Irp->StackCount) {
        PIO_STACK_LOCATION const below = IoGetCurrentIrpStackLocation(Irp);
        Irp->PendingReturned = (below->Control & SL_PENDING_RETURNED) != 0;
        if (NTHOST_CHECKS) TraceEnd(Irp);
        IoSkipCurrentIrpStackLocation(Irp);
        if (Irp->CurrentLocation <= Irp->StackCount)
            RecordOf(Irp)->Device.store(IoGetCurrentIrpStackLocation(Irp)->DeviceObject, std::memory_order_relaxed);
        const bool wantsToKnow = WantsToKnow(Irp, below);
        ClearLocation(below);
        if (wantsToKnow) {
            if (CallCompletionRoutine(Irp, below) == STATUS_MORE_PROCESSING_REQUIRED) return;
        } else if (Irp->PendingReturned && Irp->CurrentLocation <= Irp->StackCount) {
            IoMarkIrpPending(Irp);
        }
    }
    PassTop(RecordOf(Irp));
}
