// The end of a request. Whether the caller is told, through status block, event, APC or port, follows one rule
// (TellsCaller); the rest is giving back what the request owned. Takes the lists' locks, one after the other.
#include "io/finish.h"

#include <algorithm>
#include <cstdlib>

#include <nthost/check.h>
#include <nthost/process.h>

#include "ke/recorder.h"
#include "ke/callout.h"
#include "ke/lock_order.h"
#include "check/text.h"
#include "io/file.h"
#include "io/manager.h"
#include "io/outstanding.h"
#include "ob/object.h"
#include "ps/threads.h"
#include "ob/capture.h"

namespace nthost::io {

namespace {

// Whether the dispatch routine returned STATUS_PENDING.
enum class Pended { No, Yes };

void CopyOutput(IrpRecord* record)
{
    PIRP const irp = &record->Irp;
    // More would be whatever lies behind the buffer, and go to the caller.
    if (irp->IoStatus.Information > record->OutputLength)
        ReportFinding("irp-information-too-long",
                      Format("irp %p, %llu bytes reported of a buffer of %u", static_cast<void*>(irp),
                             static_cast<unsigned long long>(irp->IoStatus.Information), record->OutputLength));
    const size_t length = std::min<ULONG_PTR>(irp->IoStatus.Information, record->OutputLength);
    if (length == 0) return;
    const NTSTATUS status =
        ob::CopyToUser(irp->UserBuffer, irp->AssociatedIrp.SystemBuffer, length, 1, irp->RequestorMode);
    if (NT_SUCCESS(status)) return;
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = 0;
}

void EndBuffers(IrpRecord* record)
{
    PIRP const irp = &record->Irp;
    constexpr ULONG BufferedInput = IRP_BUFFERED_IO | IRP_INPUT_OPERATION;
    if ((irp->Flags & BufferedInput) == BufferedInput && !NT_ERROR(irp->IoStatus.Status)) CopyOutput(record);
    FreeBuffers(irp);
}

bool OnSynchronousFile(PIRP irp)
{
    PFILE_OBJECT const file = irp->Tail.Overlay.OriginalFileObject;
    return file && HasFlag(file, FO_SYNCHRONOUS_IO);
}

// An error that the service returns itself is told nowhere else; one that came later is, unless the caller waits for
// the request on a synchronous file object, which learns it from the service too.
bool TellsCaller(PIRP irp, Pended pended)
{
    return !NT_ERROR(irp->IoStatus.Status) || (pended == Pended::Yes && !OnSynchronousFile(irp));
}

void SignalFile(PIRP irp)
{
    PFILE_OBJECT const file = irp->Tail.Overlay.OriginalFileObject;
    // Requests of one file may end at the same moment.
    std::atomic_ref(file->FinalStatus).store(irp->IoStatus.Status, std::memory_order_relaxed);
    if (!HasFlag(file, FO_SKIP_SET_EVENT)) KeSetEvent(&file->Event, IO_NO_INCREMENT, FALSE);
}

void TellCaller(PIRP irp, Pended pended, bool tells)
{
    const bool synchronousFile = OnSynchronousFile(irp);
    if (tells) {
        // The address may have gone bad since the service probed it; then nobody is left to be told.
        if (irp->UserIosb) (void)ob::WriteUser(irp->UserIosb, irp->IoStatus, irp->RequestorMode);
        if (irp->UserEvent) KeSetEvent(irp->UserEvent, IO_NO_INCREMENT, FALSE);
        const bool waitedElsewhere = irp->UserEvent || (irp->Flags & IRP_SYNCHRONOUS_API);
        if (synchronousFile || !waitedElsewhere) SignalFile(irp);
    } else if (pended == Pended::Yes) {
        SignalFile(irp);
    }
}

void DiscardApc(ke::Apc* apc) { ReleaseRecord(CONTAINING_RECORD(apc, IrpRecord, Apc)); }

// The packet has ended, but what was asked for still stands in it.
void DeliverApc(ke::Apc* apc)
{
    const IRP& irp = CONTAINING_RECORD(apc, IrpRecord, Apc)->Irp;
    const auto call = irp.Overlay.AsynchronousParameters;
    PIO_STATUS_BLOCK const block = irp.UserIosb;
    const bool isDrivers = irp.RequestorMode == KernelMode;
    DiscardApc(apc);
    if (isDrivers)
        CallDriver(MustRestore::Everything, "APC routine", call.UserApcRoutine, call.UserApcContext, block, ULONG{0});
    else
        call.UserApcRoutine(call.UserApcContext, block, 0);
}

void ReleasePacket(CompletionPacket* packet) { ReleaseRecord(CONTAINING_RECORD(packet, IrpRecord, Packet)); }

void PostApc(IrpRecord* record)
{
    const IRP& irp = record->Irp;
    record->Apc = {{}, DeliverApc, DiscardApc};
    HoldRecord(record);
    if (!ke::QueueApc(irp.Tail.Overlay.Thread, irp.RequestorMode, &record->Apc)) ReleaseRecord(record);
}

void PostToPort(IrpRecord* record, const IO_COMPLETION_CONTEXT& port)
{
    const IRP& irp = record->Irp;
    record->Packet = {{}, {port.Key, irp.Overlay.AsynchronousParameters.UserApcContext, irp.IoStatus}, ReleasePacket};
    HoldRecord(record);
    QueuePacket(static_cast<CompletionPort*>(port.Port), &record->Packet);
}

// An APC if one was asked for, else a packet if the file object has a port; after the events, before the request is off
// its thread's list, which keeps the thread.
void PostEnd(IrpRecord* record, Pended pended)
{
    PIRP const irp = &record->Irp;
    const auto& asked = irp->Overlay.AsynchronousParameters;
    if (asked.UserApcRoutine) return PostApc(record);
    const IO_COMPLETION_CONTEXT* const port = PortOf(record->File);
    const Inline how = pended == Pended::Yes ? Inline::No : Inline::Yes;
    if (port && asked.UserApcContext && TellsPort(record->File, irp->IoStatus.Status, how)) PostToPort(record, *port);
}

// Buffers, caller, lists. The file reference of an asynchronous request is left to the caller of this.
NTSTATUS EndRequest(IrpRecord* record, Pended pended, IO_STATUS_BLOCK* result)
{
    PIRP const irp = &record->Irp;
    EndBuffers(record);
    const NTSTATUS status = irp->IoStatus.Status;
    if (result) *result = irp->IoStatus;
    if (record->File) { // what the I/O manager asks for itself concerns no caller
        // Asked before the caller is told, who may be closing the file by the next line.
        const bool tells = TellsCaller(irp, pended);
        TellCaller(irp, pended, tells);
        if (tells) PostEnd(record, pended);
    }
    // After the caller was told: a thread that cancels its requests and waits for their end finds its status blocks
    // filled.
    Delist(record);
    if (irp->UserEvent) ObDereferenceObject(irp->UserEvent);
    IoFreeIrp(irp);
    return status;
}

NTSTATUS FinishOnIssuer(IrpRecord* record, Pended pended, IO_STATUS_BLOCK* result)
{
    PFILE_OBJECT const file = record->How == Issue::Asynchronous ? record->File : nullptr;
    const NTSTATUS status = EndRequest(record, pended, result);
    if (file) ObDereferenceObject(file);
    return status;
}

// Completions whose file reference is not given back yet. Counted before the caller is told, so that a caller that
// closes its handle and unloads the driver then finds them here.
std::atomic<LONG> g_filesToDrop;
ke::EndSignal g_filesDropped;

void NoteDropped()
{
    g_filesToDrop.fetch_sub(1);
    g_filesDropped.Raise();
}

VOID NTAPI DropFile(PVOID context)
{
    auto* const record = static_cast<IrpRecord*>(context);
    PFILE_OBJECT const file = record->File;
    ReleaseRecord(record);
    ObDereferenceObject(file);
    NoteDropped();
}

// The completing thread is inside a driver, perhaps at DISPATCH_LEVEL or with locks held: a close must not be sent from
// here.
void FinishOnCompleter(IrpRecord* record)
{
    HoldRecord(record);
    g_filesToDrop.fetch_add(1);
    {
        // The caller's buffers are addresses of its process.
        const ActAs requestor(record->Requestor, record->Irp.RequestorMode);
        EndRequest(record, Pended::Yes, nullptr);
    }
    if (record->File && !ob::DereferenceUnlessLast(record->File)) {
        ExInitializeWorkItem(&record->Drop, DropFile, record);
        ExQueueWorkItem(&record->Drop, DelayedWorkQueue);
        return;
    }
    ReleaseRecord(record);
    NoteDropped();
}

// The dispatch routine has broken its promise to complete; should it still come to that, an asynchronous request
// without a caller is found.
void Disown(IrpRecord* record)
{
    PIRP const irp = &record->Irp;
    if (record->How == Issue::Waited && record->File) ObReferenceObject(record->File);
    DetachFromThread(record); // which would wait for it at its end
    record->How = Issue::Asynchronous;
    irp->UserIosb = nullptr;
    irp->Overlay.AsynchronousParameters = {};
    irp->Flags &= ~IRP_INPUT_OPERATION;
}

// True if completion has come first, so that the caller of this acts.
bool LeaveDispatch(IrpRecord* record) { return record->Met.exchange(Left, std::memory_order_acq_rel) == Completed; }

// Called whether or not the worker has been faster this time. The queue is known by where it stands, and by the device
// that the request was sent to.
void NoteQueueWait(PDEVICE_OBJECT device, const IrpRecord* record)
{
    const void* const queue = record->Queue.load(std::memory_order_relaxed);
    _ETHREAD* const thread = ke::CurrentThread();
    if (!queue || !HoldsAnything(thread)) return;
    const std::string name = ob::NameText(device);
    NameQueue(queue, "worker queue " + HexText(queue) + " of device " + (name.empty() ? HexText(device) : name));
    NoteLockOrder(thread, queue);
}

void NoteEnd(const IrpRecord* record)
{
    const IRP& irp = record->Irp;
    ke::NoteRequest({record->SentMajor, (irp.Flags & IRP_PAGING_IO) != 0,
                     record->Number.load(std::memory_order_relaxed), record->SentAt, record->SentBy,
                     irp.IoStatus.Status, irp.IoStatus.Information});
}

// On a file object that was opened for alertable I/O, an alert or an APC for the thread cancels the request.
void AwaitDone(IrpRecord* record)
{
    PIRP const irp = &record->Irp;
    const bool alertable = OnSynchronousFile(irp) && HasFlag(irp->Tail.Overlay.OriginalFileObject, FO_ALERTABLE_IO);
    const KPROCESSOR_MODE mode = alertable ? irp->RequestorMode : static_cast<KPROCESSOR_MODE>(KernelMode);
    if (KeWaitForSingleObject(&record->Done, Executive, mode, alertable, nullptr) == STATUS_SUCCESS) return;
    IoCancelIrp(irp);
    (void)KeWaitForSingleObject(&record->Done, Executive, KernelMode, FALSE, nullptr);
}

// True when the request has come to its end and is the caller's; false when an asynchronous one is still out.
bool AwaitEnd(PDEVICE_OBJECT device, IrpRecord* record)
{
    if (record->How == Issue::Asynchronous) return LeaveDispatch(record);
    if (NTHOST_CHECKS) NoteQueueWait(device, record);
    KeInitializeEvent(&record->Done, NotificationEvent, FALSE);
    if (!LeaveDispatch(record)) AwaitDone(record);
    return true;
}

} // namespace

void Boot() { ps::SetThreadExitHook(CancelThreadRequests); }

void AwaitDroppedFiles()
{
    g_filesDropped.Await([] { return g_filesToDrop.load() == 0; });
}

void FreeBuffers(PIRP irp)
{
    if (irp->Flags & IRP_DEALLOCATE_BUFFER) free(irp->AssociatedIrp.SystemBuffer);
    irp->Flags &= ~(IRP_DEALLOCATE_BUFFER | IRP_BUFFERED_IO);
    free(irp->Tail.Overlay.AuxiliaryBuffer); // what a service captured for the request's whole life
    irp->Tail.Overlay.AuxiliaryBuffer = nullptr;
    while (PMDL const mdl = irp->MdlAddress) {
        irp->MdlAddress = mdl->Next;
        if (mdl->MdlFlags & MDL_PAGES_LOCKED) MmUnlockPages(mdl);
        IoFreeMdl(mdl);
    }
}

void PassTop(IrpRecord* record)
{
    if (!record->Requestor) {
        ReportFinding("irp-completed-without-owner", "irp " + HexText(&record->Irp));
        return;
    }
    NoteEnd(record);
    record->State.store(IrpState::Ended, std::memory_order_release);
    if (record->Met.exchange(Completed, std::memory_order_acq_rel) != Left) return;
    if (record->How == Issue::Waited)
        KeSetEvent(&record->Done, IO_NO_INCREMENT, FALSE);
    else
        FinishOnCompleter(record);
}

NTSTATUS SendRequest(PDEVICE_OBJECT device, IrpRecord* record, IO_STATUS_BLOCK* result)
{
    const NTSTATUS returned = IofCallDriver(device, &record->Irp);
    if (returned == STATUS_PENDING) {
        const bool asynchronous = record->How == Issue::Asynchronous;
        if (!AwaitEnd(device, record)) return STATUS_PENDING;
        const NTSTATUS status = FinishOnIssuer(record, Pended::Yes, result);
        return asynchronous ? STATUS_PENDING : status;
    }
    if (record->Met.load(std::memory_order_acquire) == Completed) return FinishOnIssuer(record, Pended::No, result);

    Disown(record);
    if (LeaveDispatch(record)) return FinishOnIssuer(record, Pended::No, result);
    if (result) *result = {{returned}, 0};
    return returned;
}

} // namespace nthost::io
