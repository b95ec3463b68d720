// What keeps a volume from going away: pins (creates and closes in progress) and running plugin calls. The counters and
// the mount state are tested together, so all of them change under Vcb.PinLock.

#include "frame/context.h"

namespace {

volatile LONG* AsLong(ULONG* counter) { return reinterpret_cast<volatile LONG*>(counter); }

} // namespace

bool GvPinVcbIfMounted(PDEVICE_OBJECT device)
{
    Vcb* const vcb = GvVcbOf(device);
    GvHeldSpinLock lock(vcb->PinLock);
    if (vcb->MountState != GvMounted) return false;
    InterlockedIncrement(AsLong(&vcb->PinCount));
    return true;
}

void GvPinVcb(PDEVICE_OBJECT device)
{
    Vcb* const vcb = GvVcbOf(device);
    GvHeldSpinLock lock(vcb->PinLock);
    InterlockedIncrement(AsLong(&vcb->PinCount));
}

void GvUnpinVcb(PDEVICE_OBJECT device)
{
    Vcb* const vcb = GvVcbOf(device);
    GvHeldSpinLock lock(vcb->PinLock);
    InterlockedDecrement(AsLong(&vcb->PinCount));
}

NTSTATUS GvAddrefThreadForPluginCall(Vcb* vcb)
{
    GvHeldSpinLock lock(vcb->PinLock);
    if (vcb->MountState != GvMounted) return STATUS_ACCESS_DENIED;
    InterlockedIncrement(AsLong(&vcb->PluginCallCount));
    return STATUS_SUCCESS;
}

void GvDerefThreadForPluginCall(Vcb* vcb)
{
    GvHeldSpinLock lock(vcb->PinLock);
    InterlockedDecrement(AsLong(&vcb->PluginCallCount));
}
