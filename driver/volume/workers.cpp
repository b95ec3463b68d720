// Workers: one permit of WorkSemaphore for each context put on PendedList. A context is always on one of the volume's
// two lists from its queuing until the worker lets it go, so that a cancel finds it. A worker holds no lock between
// requests and enters no critical region: it is a system thread.

#include "volume/workers.h"

#include "frame/context.h"
#include "frame/driver.h"
#include "frame/handle.h"
#include "frame/objecttype.h"
#include "frame/pool.h"
#include "frame/requests.h"
#include "frame/trace.h"

namespace {

IrpContext* GvMovePendedIrpContextToWorkQueue(Vcb* vcb)
{
    GvHeldSpinLock lock(vcb->QueueLock);
    if (IsListEmpty(&vcb->PendedList)) return nullptr;
    LIST_ENTRY* const link = RemoveHeadList(&vcb->PendedList);
    --vcb->PendedCount;
    InsertTailList(&vcb->ActiveList, link);
    return CONTAINING_RECORD(link, IrpContext, Link);
}

NTSTATUS RunInner(IrpContext* context, GvOutcome* outcome)
{
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(context->Irp);
    const GvDispatchRow* const row = GvRowOf(stack->MajorFunction);
    if (!row || !row->MayPend) {
        GV_TRACE_AS("FspDispatchPendedIrp", GvTraceError, "irp: mj: 0x%x, mn: 0x%x is not supported by FSP\n",
                    stack->MajorFunction, stack->MinorFunction);
        return STATUS_NOT_SUPPORTED;
    }
    const NTSTATUS status = row->Inner(context, outcome);
    if (!row->YieldsInformation) outcome->Information = 0;
    return status;
}

NTSTATUS FspDispatchPendedIrp(Vcb* vcb, IrpContext* context, GvOutcome* outcome)
{
    const PIRP irp = context->Irp;
    const bool isTopLevel = context->IsTopLevel;
    NTSTATUS status = STATUS_SUCCESS;
    if (context->Vcb != vcb) {
        GV_TRACE(GvTraceError, "wrong io-context: 0x%x for irp-context: 0x%x\n", vcb, context);
    } else {
        // A request that was top-level when it arrived leaves the slot empty: the flag tells the inner routine.
        if (!isTopLevel) IoSetTopLevelIrp(reinterpret_cast<PIRP>(FSRTL_FSP_TOP_LEVEL_IRP));
        context->IsAsync = 0;
        status = RunInner(context, outcome);
    }
    if (!isTopLevel) GvUtlClearTopLevelIrp();
    if (status == STATUS_PENDING) GV_TRACE(GvTraceError, "IRP 0x%x, pended again!!!\n", irp);
    return status;
}

NTSTATUS FspDequeueAndDispatchPendedIrp(Vcb* vcb)
{
    IrpContext* const context = GvMovePendedIrpContextToWorkQueue(vcb);
    if (!context) {
        // What becomes of the permit of a request that was cancelled while it waited.
        GV_TRACE_FAILED("GvMovePendedIrpContextToWorkQueue", STATUS_UNSUCCESSFUL);
        return STATUS_UNSUCCESSFUL;
    }
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
    auto* const vcb = static_cast<Vcb*>(startContext);
    PVOID objects[] = {&vcb->StopEvent, &vcb->WorkSemaphore};
    constexpr NTSTATUS kStop = STATUS_WAIT_0;
    constexpr NTSTATUS kWork = STATUS_WAIT_0 + 1;
    for (;;) {
        // The lowest satisfied index is reported, so a stop is seen before any permit that is left.
        const NTSTATUS status =
            KeWaitForMultipleObjects(2, objects, WaitAny, Executive, KernelMode, FALSE, nullptr, nullptr);
        if (status == kWork) {
            FspDequeueAndDispatchPendedIrp(vcb);
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

[[nodiscard]] NTSTATUS StartOne(Vcb* vcb, HANDLE* thread)
{
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    return PsCreateSystemThread(thread, SYNCHRONIZE, &attributes, nullptr, nullptr, FspWorkerThread, vcb);
}

[[nodiscard]] NTSTATUS WaitForEnd(HANDLE handle)
{
    PVOID thread;
    NTSTATUS status =
        ObReferenceObjectByHandle(handle, SYNCHRONIZE, GvObjectType(PsThreadType), KernelMode, &thread, nullptr);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED_AS("FspStopWorkerThreads", "ObReferenceObjectByHandle", status);
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
    GvBlock<HANDLE> threads(static_cast<HANDLE*>(GvAllocate(NonPagedPool, count * sizeof(HANDLE))));
    if (!threads) {
        GV_TRACE(GvTraceError, "out-of-memory\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    for (ULONG i = 0; i < count; ++i) {
        const NTSTATUS status = StartOne(vcb, &threads.Get()[i]);
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
    for (ULONG i = 0; i < count; ++i) {
        if (const NTSTATUS status = WaitForEnd(threads[i]); status != STATUS_SUCCESS) return status;
    }
    return STATUS_SUCCESS;
}
