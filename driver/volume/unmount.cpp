// Unmount. The test of the drain rules moves the state from 2 to 3 under PinLock, so that one caller alone can win and
// the teardown is queued once; the teardown runs on a system thread, since the winner may hold anything.

#include "volume/volume.h"

#include "frame/context.h"
#include "frame/pool.h"
#include "frame/trace.h"
#include "objects/fcb.h"
#include "objects/tree.h"
#include "objects/util.h"
#include "volume/workers.h"

namespace {

void ForgetBackingObjectAndPlugin(Vcb* vcb)
{
    ObDereferenceObject(vcb->BackingFileObject);
    vcb->BackingFileObject = nullptr;
    vcb->PluginOps = nullptr;
}

void DeleteLink(Vcb* vcb)
{
    if (!vcb->SymLinkName) return;
    if (const NTSTATUS status = IoDeleteSymbolicLink(vcb->SymLinkName); !NT_SUCCESS(status)) {
        GV_TRACE_AS("GvDoUnmount", GvTraceError, "IoDeleteSymbolicLink(%wZ): 0x%x\n", vcb->SymLinkName, status);
    }
    GvFree(vcb->SymLinkName);
    vcb->SymLinkName = nullptr;
}

// A step that fails ends it, and leaves the device behind.
NTSTATUS GvDoUnmount(PDEVICE_OBJECT device)
{
    Vcb* const vcb = GvVcbOf(device);
    GV_TRY_TRACED("FspStopWorkerThreads",
                  FspStopWorkerThreads(&vcb->StopEvent, vcb->WorkerCount + GvReservedWorkers, vcb->WorkerThreads));
    GvFree(vcb->WorkerThreads);
    vcb->WorkerThreads = nullptr;
    vcb->WorkerCount = 0;

    if (vcb->PluginOps->OnUnmounted) vcb->PluginOps->OnUnmounted(vcb->PluginOps->PluginContext);
    ForgetBackingObjectAndPlugin(vcb);

    GV_TRY_TRACED("GvUtlDeleteResource", GvUtlDeleteResource(&vcb->Resource, GvAllocateResource::No));
    GV_TRY_TRACED("GvFcbShutdown", GvFcbShutdown(vcb->FcbTables));
    vcb->FcbTables = nullptr;
    DeleteLink(vcb);
    GvFcbFreeVolumeFcb(vcb->VolumeFcb);
    vcb->VolumeFcb = nullptr;
    FsRtlNotifyUninitializeSync(&vcb->NotifySync);
    IoDeleteDevice(device);
    GV_TRACE(GvTraceNotable, "unmounted device: 0x%x\n", device);
    return STATUS_SUCCESS;
}

VOID NTAPI GvUnmountWorkRoutine(PDEVICE_OBJECT device, PVOID context)
{
    if (const NTSTATUS status = GvDoUnmount(device); !NT_SUCCESS(status)) GV_TRACE_FAILED("GvDoUnmount", status);
    IoFreeWorkItem(static_cast<PIO_WORKITEM>(context));
}

NTSTATUS GvQueueUnmount(PDEVICE_OBJECT device)
{
    const PIO_WORKITEM item = IoAllocateWorkItem(device);
    if (!item) {
        // The volume stays in its last state with its device: nothing is left that could try again.
        GV_TRACE_FAILED("IoAllocateWorkItem", STATUS_INSUFFICIENT_RESOURCES);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    IoQueueWorkItem(item, GvUnmountWorkRoutine, DelayedWorkQueue, item);
    return STATUS_SUCCESS;
}

bool IsDrained(const Vcb* vcb) GV_REQUIRES(vcb->PinLock)
{
    return vcb->MountState == GvUnmountRequested && vcb->PluginCallCount == 0 && vcb->PinCount == 0 &&
           GvFcbGetFcbCount(vcb->FcbTables) == 0 && GvLoad(vcb->VolumeFcb->OpenCount) == 0;
}

bool ClaimUnmount(Vcb* vcb)
{
    GvHeldSpinLock lock(vcb->PinLock);
    if (!IsDrained(vcb)) return false;
    GvStore(vcb->MountState, GvUnmounting);
    return true;
}

// Whoever asked gets no answer to wait for, so the log says what the volume waits for. Under a pin of the caller's.
void TraceHolders(Vcb* vcb)
{
    ULONG pins, calls;
    {
        GvHeldSpinLock lock(vcb->PinLock);
        pins = vcb->PinCount - 1;
        calls = vcb->PluginCallCount;
    }
    if (!pins && !calls && !GvFcbGetFcbCount(vcb->FcbTables) && !GvLoad(vcb->VolumeFcb->OpenCount)) return;
    GV_TRACE_AS("GvUnmountRequest", GvTraceNotable,
                "unmount waits, pins: %d, plugin calls: %d, objects: %d, deleted: %d, volume opens: %d\n", pins, calls,
                GvTreeGetEntryCount(vcb->FcbTables->NameTree), GvTreeGetEntryCount(vcb->FcbTables->DeletionTree),
                GvLoad(vcb->VolumeFcb->OpenCount));
}

// The request and its pin are one step: without a pin whoever leaves last may take the volume down as soon as the lock
// is given up. False if that is under way already.
bool RequestUnderPin(Vcb* vcb)
{
    GvHeldSpinLock lock(vcb->PinLock);
    if (vcb->MountState == GvUnmounting) return false;
    if (vcb->MountState == GvMounted) GvStore(vcb->MountState, GvUnmountRequested);
    InterlockedIncrement(reinterpret_cast<volatile LONG*>(&vcb->PinCount));
    return true;
}

} // namespace

NTSTATUS GvUnmountIfDrained(PDEVICE_OBJECT device)
{
    if (KeGetCurrentIrql() > PASSIVE_LEVEL) return STATUS_ACCESS_DENIED;
    if (!ClaimUnmount(GvVcbOf(device))) return STATUS_ACCESS_DENIED;
    return GvQueueUnmount(device);
}

NTSTATUS NTAPI GvUnmountRequest(PDEVICE_OBJECT device)
{
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) return STATUS_UNSUCCESSFUL;
    GV_TRACE(GvTraceNotable, "unmount requested on device: 0x%x\n", device);
    Vcb* const vcb = GvVcbOf(device);
    if (RequestUnderPin(vcb)) {
        TraceHolders(vcb);
        GvUnpinVcb(device);
        GvUnmountIfDrained(device);
    }
    ObDereferenceObject(device);
    return STATUS_SUCCESS;
}
