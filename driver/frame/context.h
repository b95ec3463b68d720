// The life of a request's context: made by the dispatch skeleton, perhaps handed to the worker pool, always cancellable
// where the volume's lists know it, freed exactly once.
#pragma once

#include "frame/records.h"

// STATUS_INVALID_PARAMETER for a file object of another device, STATUS_INSUFFICIENT_RESOURCES.
[[nodiscard]] NTSTATUS GvAllocIrpContext(PDEVICE_OBJECT device, PIRP irp, bool isTopLevel, IrpContext** context);
// STATUS_UNSUCCESSFUL, with the context left allocated, if it still stands on a list.
NTSTATUS GvFreeIrpContext(IrpContext* context);

// STATUS_INVALID_PARAMETER unless the file object was opened on this device.
[[nodiscard]] NTSTATUS GvUtlCheckFileObject(PDEVICE_OBJECT device, PFILE_OBJECT fileObject);

// Hands the request to the volume's workers: STATUS_PENDING, and from then on neither context nor request may be
// touched. On failure both are still the caller's.
[[nodiscard]] NTSTATUS GvPendIrpContext(IrpContext* context);

// Locks the caller's buffer while its address still means something; a worker runs in another process.
// *locked tells whether this call did it.
[[nodiscard]] NTSTATUS GvLockUserBufferIrpContext(IrpContext* context, bool* locked);
void GvUnlockUserBufferIrpContext(IrpContext* context);

enum class CancelRoutine : bool {
    Clear,
    Keep // the request belongs to the lock package by now, cancel routine included
};

// Put the context on ActiveList, where cancellation finds it, and take it off.
void GvArmCancelForPluginCall(Vcb* vcb, IrpContext* context);
void GvDisarmCancelForPluginCall(Vcb* vcb, IrpContext* context, CancelRoutine cancelRoutine);
VOID NTAPI GvIoCancelRoutine(PDEVICE_OBJECT device, PIRP irp);

// The way from a request to its volume for the cancel routine, which can run while the next plugin call arms.
inline void GvSetIrpVcb(PIRP irp, Vcb* vcb)
{
    __atomic_store_n(&irp->Tail.Overlay.DriverContext[0], static_cast<void*>(vcb), __ATOMIC_RELAXED);
}
inline Vcb* GvIrpVcb(PIRP irp)
{
    return static_cast<Vcb*>(__atomic_load_n(&irp->Tail.Overlay.DriverContext[0], __ATOMIC_RELAXED));
}

// Linear in the length of the list, under the list's lock.
bool GvUtlIsEntryOnList(const LIST_ENTRY* head, const LIST_ENTRY* entry);

// The tokens of whoever asked, also where a worker asks on: held still while this lives.
class GvCallerSubject {
public:
    explicit GvCallerSubject(IrpContext* context);
    ~GvCallerSubject();
    GvCallerSubject(const GvCallerSubject&) = delete;
    GvCallerSubject& operator=(const GvCallerSubject&) = delete;
    void* Token() const { return subject_->ClientToken ? subject_->ClientToken : subject_->PrimaryToken; }

private:
    SECURITY_SUBJECT_CONTEXT own_;
    PSECURITY_SUBJECT_CONTEXT subject_;
};

// Keep the volume from going away. Only the first refuses: no new open may start on a volume that is leaving, while a
// close must always finish. Each unpin is followed by the unmount check.
[[nodiscard]] bool GvPinVcbIfMounted(PDEVICE_OBJECT device);
void GvPinVcb(PDEVICE_OBJECT device);
void GvUnpinVcb(PDEVICE_OBJECT device);

// Bracket each plugin call. STATUS_ACCESS_DENIED unless the volume is mounted.
[[nodiscard]] NTSTATUS GvAddrefThreadForPluginCall(Vcb* vcb);
void GvDerefThreadForPluginCall(Vcb* vcb);
