// Work items: a routine of a device on a system worker thread. The item's memory may be freed by its own routine, so
// the worker takes out what it needs first.
#include <new>

#include <nthost/faults.h>

#include "ke/callout.h"
#include "io/device.h"

using namespace nthost;
using namespace nthost::io;

struct _IO_WORKITEM {
    WORK_QUEUE_ITEM Item;
    PDEVICE_OBJECT Device; // referenced while the item is queued
    DriverBody* Driver;    // outlives the device: an item may be freed after it
    PIO_WORKITEM_ROUTINE Routine;
    PVOID Context;
};

static VOID NTAPI RunWorkItem(PVOID parameter)
{
    const _IO_WORKITEM item = *static_cast<PIO_WORKITEM>(parameter);
    CallDriver(MustRestore::Everything, "work item", item.Routine, item.Device, item.Context);
    ObDereferenceObject(item.Device);
    item.Driver->QueuedWork.fetch_sub(1);
    item.Driver->Ended.Raise();
    ObDereferenceObject(&item.Driver->Driver);
}

PIO_WORKITEM NTAPI IoAllocateWorkItem(PDEVICE_OBJECT DeviceObject)
{
    if (FaultInjected("IoAllocateWorkItem")) return nullptr;
    auto* const item = new (std::nothrow) _IO_WORKITEM{};
    if (!item) return nullptr;
    item->Device = DeviceObject;
    item->Driver = BodyOf(DeviceObject->DriverObject);
    item->Driver->WorkItems.fetch_add(1, std::memory_order_relaxed);
    return item;
}

VOID NTAPI IoFreeWorkItem(PIO_WORKITEM IoWorkItem)
{
    IoWorkItem->Driver->WorkItems.fetch_sub(1, std::memory_order_relaxed);
    delete IoWorkItem;
}

VOID NTAPI IoQueueWorkItem(PIO_WORKITEM IoWorkItem, PIO_WORKITEM_ROUTINE WorkerRoutine, WORK_QUEUE_TYPE QueueType,
                           PVOID Context)
{
    // A driver is not unloaded while its work is queued: the device keeps the item's target, the driver its code.
    ObReferenceObject(IoWorkItem->Device);
    ObReferenceObject(&IoWorkItem->Driver->Driver);
    IoWorkItem->Driver->QueuedWork.fetch_add(1);
    IoWorkItem->Routine = WorkerRoutine;
    IoWorkItem->Context = Context;
    ExInitializeWorkItem(&IoWorkItem->Item, RunWorkItem, IoWorkItem);
    ExQueueWorkItem(&IoWorkItem->Item, QueueType);
}
