// Counting nested calls, and keeping them out. Each side writes its own word before it reads the other's, both in one
// order for all processors: either the call sees the switch, or the switch sees the call.

#include "frame/handleswitch.h"

#include "frame/resource.h"

namespace {

bool IsSwitching(Fcb* fcb) { return InterlockedCompareExchange(&fcb->HandleSwitching, 0, 0) != 0; }
bool HasNestedCalls(Fcb* fcb) { return InterlockedCompareExchange(&fcb->NestedCalls, 0, 0) != 0; }

void Await(KEVENT* event) { KeWaitForSingleObject(event, Executive, KernelMode, FALSE, nullptr); }

void Leave(Fcb* fcb)
{
    if (InterlockedDecrement(&fcb->NestedCalls) == 0 && IsSwitching(fcb)) {
        KeSetEvent(&fcb->NestedCallsDone, IO_NO_INCREMENT, FALSE);
    }
}

void Enter(Fcb* fcb)
{
    for (;;) {
        InterlockedIncrement(&fcb->NestedCalls);
        if (!IsSwitching(fcb)) return;
        Leave(fcb);
        Await(&fcb->HandleSettled);
    }
}

} // namespace

GvGatePass::GvGatePass(const IrpContext* context, const Fcb* gate)
    // The count is no part of what the object is: callers may hold it const.
    : counted_(gate && !context->IsTopLevel ? const_cast<Fcb*>(gate) : nullptr)
{
    if (counted_) Enter(counted_);
    isOpen_ = !gate || (!GvLoad(gate->Deleted) && !GvLoad(gate->PluginFdClosed));
}

GvGatePass::~GvGatePass()
{
    if (counted_) Leave(counted_);
}

GvHandleSwitch::GvHandleSwitch(Fcb* fcb) : fcb_(fcb)
{
    GV_ASSERT_HELD_EXCLUSIVE(fcb->Header.Resource);
    KeClearEvent(&fcb_->HandleSettled);
    InterlockedExchange(&fcb_->HandleSwitching, 1);
    while (HasNestedCalls(fcb_)) Await(&fcb_->NestedCallsDone);
}

GvHandleSwitch::~GvHandleSwitch()
{
    InterlockedExchange(&fcb_->HandleSwitching, 0);
    KeSetEvent(&fcb_->HandleSettled, IO_NO_INCREMENT, FALSE);
}

void GvInitHandleSwitch(Fcb* fcb)
{
    KeInitializeEvent(&fcb->NestedCallsDone, SynchronizationEvent, FALSE);
    KeInitializeEvent(&fcb->HandleSettled, NotificationEvent, TRUE);
}
