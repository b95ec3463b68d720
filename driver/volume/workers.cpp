// Workers: one permit of the lane's WorkSemaphore for each context put on its PendedList. A context is always on one of
// the volume's lists from its queuing until the worker lets it go, so that a cancel finds it. A worker holds no lock
// between requests and enters no critical region: it is a system thread.

#include "volume/workers.h"

#include "frame/complete.h"
#include "frame/context.h"
#include "frame/handle.h"
#include "frame/objecttype.h"
#include "frame/pool.h"
#include "frame/row.h"
#include "frame/toplevel.h"
#include "frame/trace.h"

namespace {

IrpContext* GvMovePendedIrpContextToWorkQueue(Vcb* vcb, GvLane lane)
{
    GvHeldSpinLock lock(vcb->QueueLock);
    if (IsListEmpty(&vcb->PendedList[lane])) return nullptr;
    LIST_ENTRY* const link = RemoveHeadList(&vcb->PendedList[lane]);
    if (lane == GvLaneOrdinary) --vcb->PendedCount;
    InsertTailList(&vcb->ActiveList, link);
    return CONTAINING_RECORD(link, IrpContext, Link);
}

NTSTATUS ServePended(IrpContext* context, GvOutcome* outcome)
{
    const GvDispatchRow* const row = context->Row;
    if (!row->MayPend) {
        const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(context->Irp);
        return GV_REFUSE_AS("FspDispatchPendedIrp", STATUS_NOT_SUPPORTED,
                            "irp: mj: 0x%x, mn: 0x%x is not supported by FSP\n", stack->MajorFunction,
                            stack->MinorFunction);
    }
    const NTSTATUS status = row->Inner(context, outcome);
    if (!row->YieldsInformation) outcome->Information = 0;
    return status;
}

NTSTATUS FspDispatchPendedIrp(Vcb* vcb, IrpContext* context, GvOutcome* outcome)
{
    const PIRP irp = context->Irp;
    NTSTATUS status = STATUS_SUCCESS;
    if (context->Vcb != vcb) {
        GV_TRACE(GvTraceError, "wrong io-context: 0x%x for irp-context: 0x%x\n", vcb, context);
    } else {
        // Whether the request is the outermost, its flag tells; the slot tells what is nested in it, such as the close
        // of a file that a purge lets go of, which must not take the volume's lock under an object's.
        IoSetTopLevelIrp(context->IsTopLevel ? irp : reinterpret_cast<PIRP>(FSRTL_FSP_TOP_LEVEL_IRP));
        context->IsAsync = 0;
        status = ServePended(context, outcome);
        GvUtlClearTopLevelIrp();
    }
    if (status == STATUS_PENDING) GV_TRACE(GvTraceError, "IRP 0x%x, pended again!!!\n", irp);
    return status;
}

// Keeps the file object of a request that somebody else completes: its last reference would go in the middle of the
// request, and the object's lock with it. Given up when the thread's work is done, as a close of its own.
class TakenOverFile {
public:
    explicit TakenOverFile(const IO_STACK_LOCATION* stack)
        : file_(stack->MajorFunction == IRP_MJ_LOCK_CONTROL ? stack->FileObject : nullptr)
    {
        if (file_) ObReferenceObject(file_);
    }
    ~TakenOverFile()
    {
        if (file_) ObDereferenceObject(file_);
    }
    TakenOverFile(const TakenOverFile&) = delete;
    TakenOverFile& operator=(const TakenOverFile&) = delete;

private:
    PFILE_OBJECT file_;
};

NTSTATUS FspDequeueAndDispatchPendedIrp(Vcb* vcb, GvLane lane)
{
    IrpContext* const context = GvMovePendedIrpContextToWorkQueue(vcb, lane);
    if (!context) {
        // What becomes of the permit of a request that was cancelled while it waited.
        GV_TRACE_FAILED("GvMovePendedIrpContextToWorkQueue", STATUS_UNSUCCESSFUL);
        return STATUS_UNSUCCESSFUL;
    }
    const TakenOverFile kept(IoGetCurrentIrpStackLocation(context->Irp));
    GvOutcome outcome = {};
    const NTSTATUS status = FspDispatchPendedIrp(vcb, context, &outcome);
    const PIRP irp = context->Irp;
    GvDisarmCancelForPluginCall(vcb, context, outcome.IrpTakenOver ? CancelRoutine::Keep : CancelRoutine::Clear);
    GvFreeIrpContext(context);
    if (outcome.IrpTakenOver) return status;
    return GvCompleteRequest(__func__, irp, status, outcome.Information);
}

VOID NTAPI FspWorkerThread(PVOID startContext)
{
    const auto* const start = static_cast<const GvWorkerStart*>(startContext);
    Vcb* const vcb = start->Volume;
    PVOID objects[] = {&vcb->StopEvent, &vcb->WorkSemaphore[start->Lane]};
    constexpr NTSTATUS kStop = STATUS_WAIT_0;
    constexpr NTSTATUS kWork = STATUS_WAIT_0 + 1;
    for (;;) {
        // The lowest satisfied index is reported, so a stop is seen before any permit that is left.
        const NTSTATUS status =
            KeWaitForMultipleObjects(2, objects, WaitAny, Executive, KernelMode, FALSE, nullptr, nullptr);
        if (status == kWork) {
            FspDequeueAndDispatchPendedIrp(vcb, start->Lane);
            continue;
        }
        if (status == kStop) {
            GV_TRACE(GvTraceNotable, "io-dev-ctxt: 0x%x, worker thread stopping gracefully\n", vcb);
        } else {
            GV_TRACE(GvTraceError, "io-dev-ctxt: 0x%x, KeWaitForMultipleObjects(): 0x%x", vcb, status);
        }
        PsTerminateSystemThread(status);
    }
}

[[nodiscard]] NTSTATUS StartOne(GvWorkerStart* start, HANDLE* thread)
{
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    return PsCreateSystemThread(thread, SYNCHRONIZE, &attributes, nullptr, nullptr, FspWorkerThread, start);
}

[[nodiscard]] NTSTATUS WaitForEnd(HANDLE handle)
{
    PVOID thread;
    NTSTATUS status =
        ObReferenceObjectByHandle(handle, SYNCHRONIZE, GvObjectType(PsThreadType), KernelMode, &thread, nullptr);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED_AS("FspStopWorkerThreads", "ObReferenceObjectByHandle", status);
        ZwWaitForSingleObject(handle, FALSE, nullptr); // whoever asked frees what the thread uses
        ZwClose(handle);
        return status;
    }
    ZwClose(handle);
    status = KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr);
    ObDereferenceObject(thread);
    if (status != STATUS_SUCCESS) { GV_TRACE_FAILED_AS("FspStopWorkerThreads", "KeWaitForSingleObject", status); }
    return status;
}

} // namespace

NTSTATUS FspStartWorkerThreads(Vcb* vcb, PKEVENT stopEvent, ULONG count, HANDLE** result)
{
    const ULONG all = count + GvReservedWorkers;
    GvBlock<HANDLE> threads(static_cast<HANDLE*>(GvAllocate(NonPagedPool, all * sizeof(HANDLE))));
    if (!threads) return GV_REFUSE(STATUS_INSUFFICIENT_RESOURCES, "out-of-memory\n");
    for (UCHAR lane = 0; lane < GvLaneCount; ++lane) vcb->WorkerStart[lane] = {vcb, static_cast<GvLane>(lane)};
    for (ULONG i = 0; i < all; ++i) {
        const ULONG lane = i < count ? ULONG{GvLaneOrdinary} : 1 + i - count;
        const NTSTATUS status = StartOne(&vcb->WorkerStart[lane], &threads.Get()[i]);
        if (NT_SUCCESS(status)) continue;
        GV_TRACE_FAILED("PsCreateSystemThread", status);
        FspStopWorkerThreads(stopEvent, i, threads.Get());
        return status;
    }
    *result = threads.Release();
    return STATUS_SUCCESS;
}

NTSTATUS FspStopWorkerThreads(PKEVENT stopEvent, ULONG count, HANDLE* threads)
{
    KeSetEvent(stopEvent, IO_NO_INCREMENT, FALSE);
    NTSTATUS first = STATUS_SUCCESS;
    for (ULONG i = 0; i < count; ++i) {
        const NTSTATUS status = WaitForEnd(threads[i]);
        if (first == STATUS_SUCCESS) first = status;
    }
    return first;
}
