// Cancellation: the system-wide cancel lock, the hand-over of the cancel routine, and the services that cancel.
#include <nthost/check.h>

#include "ke/callout.h"
#include "io/irp.h"
#include "io/outstanding.h"
#include "ob/handle.h"
#include "ob/service.h"
#include "ob/capture.h"

namespace nthost::io {

namespace {

KSPIN_LOCK g_cancelLock;

// Drivers read the flag without a lock, ordered by the exchange of the cancel routine: the public rule, and no race.
__attribute__((no_sanitize("thread"), noinline)) void MarkCancelled(PIRP irp) { irp->Cancel = TRUE; }

NTSTATUS ReferenceFile(HANDLE handle, KPROCESSOR_MODE mode, PFILE_OBJECT* file)
{
    void* object;
    const NTSTATUS status = ob::ReferenceObjectByHandle(handle, 0, IoFileObjectType, mode, &object, nullptr);
    if (NT_SUCCESS(status)) *file = static_cast<PFILE_OBJECT>(object);
    return status;
}

NTSTATUS ReportOutcome(PIO_STATUS_BLOCK statusBlock, NTSTATUS outcome, KPROCESSOR_MODE mode)
{
    const NTSTATUS status = ob::WriteUser(statusBlock, IO_STATUS_BLOCK{{outcome}, 0}, mode);
    return NT_SUCCESS(status) ? outcome : status;
}

NTSTATUS CancelOwn(KPROCESSOR_MODE mode, HANDLE handle, PIO_STATUS_BLOCK statusBlock)
{
    NTSTATUS status = ob::ProbeUser(statusBlock, mode);
    if (!NT_SUCCESS(status)) return status;
    PFILE_OBJECT file;
    status = ReferenceFile(handle, mode, &file);
    if (!NT_SUCCESS(status)) return status;
    PETHREAD const self = PsGetCurrentThread();
    CancelFileRequests(file, {.Thread = self, .Process = nullptr, .StatusBlock = nullptr});
    AwaitFileRequests(file, self);
    ObDereferenceObject(file);
    return ReportOutcome(statusBlock, STATUS_SUCCESS, mode);
}

NTSTATUS CancelAny(KPROCESSOR_MODE mode, HANDLE handle, PIO_STATUS_BLOCK request, PIO_STATUS_BLOCK statusBlock)
{
    NTSTATUS status = ob::ProbeUser(statusBlock, mode);
    if (!NT_SUCCESS(status)) return status;
    PFILE_OBJECT file;
    status = ReferenceFile(handle, mode, &file);
    if (!NT_SUCCESS(status)) return status;
    const unsigned cancelled =
        CancelFileRequests(file, {.Thread = nullptr, .Process = PsGetCurrentProcess(), .StatusBlock = request});
    ObDereferenceObject(file);
    return ReportOutcome(statusBlock, cancelled ? STATUS_SUCCESS : STATUS_NOT_FOUND, mode);
}

} // namespace

} // namespace nthost::io

using namespace nthost;
using namespace nthost::io;

VOID NTAPI IoAcquireCancelSpinLock(PKIRQL Irql) { KeAcquireSpinLock(&g_cancelLock, Irql); }

VOID NTAPI IoReleaseCancelSpinLock(KIRQL Irql) { KeReleaseSpinLock(&g_cancelLock, Irql); }

BOOLEAN NTAPI IoCancelIrp(PIRP Irp)
{
    [[maybe_unused]] ThreadState before{};
    if constexpr (NTHOST_CHECKS) before = CaptureThreadState();
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    MarkCancelled(Irp);
    const PDRIVER_CANCEL routine = IoSetCancelRoutine(Irp, nullptr);
    if (!routine) {
        IoReleaseCancelSpinLock(irql);
        return FALSE;
    }
    Irp->CancelIrql = irql;
    // The driver may be completing the request meanwhile, so its locations are not looked at.
    PDEVICE_OBJECT const device = RecordOf(Irp)->Device.load(std::memory_order_relaxed);
    // The routine gives up the lock that was taken here, so the state to compare with is the one before.
    CallDriver(MustRestore::Nothing, "cancel routine", routine, device, Irp);
    if constexpr (NTHOST_CHECKS) CompareThreadState(before, "cancel routine");
    return TRUE;
}

NTHOST_SERVICE_PAIR(CancelIoFile, CancelOwn, (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock), FileHandle,
                    IoStatusBlock)
NTHOST_SERVICE_PAIR(CancelIoFileEx, CancelAny,
                    (HANDLE FileHandle, PIO_STATUS_BLOCK IoRequestToCancel, PIO_STATUS_BLOCK IoStatusBlock), FileHandle,
                    IoRequestToCancel, IoStatusBlock)
