// Locking the caller's buffer for a request that leaves its thread. On success the MDL stays with the request, and the
// I/O manager releases it at completion.

#include "frame/context.h"

#include "frame/guard.h"
#include "frame/trace.h"

namespace {

enum class BufferUse {
    None,
    Filled, // by the driver
    Read    // by the driver
};

BufferUse BufferUseOf(const IO_STACK_LOCATION* stack)
{
    switch (stack->MajorFunction) {
    case IRP_MJ_READ:
    case IRP_MJ_QUERY_EA: return BufferUse::Filled;
    case IRP_MJ_DIRECTORY_CONTROL:
        return stack->MinorFunction == IRP_MN_QUERY_DIRECTORY ? BufferUse::Filled : BufferUse::None;
    case IRP_MJ_WRITE:
    case IRP_MJ_SET_EA: return BufferUse::Read;
    default: return BufferUse::None;
    }
}

// Every request kind with a buffer to lock has its length as the first parameter.
ULONG LengthOf(const IO_STACK_LOCATION* stack) { return stack->Parameters.Read.Length; }
static_assert(offsetof(IO_STACK_LOCATION, Parameters.Read.Length) ==
              offsetof(IO_STACK_LOCATION, Parameters.QueryDirectory.Length));
static_assert(offsetof(IO_STACK_LOCATION, Parameters.Read.Length) ==
              offsetof(IO_STACK_LOCATION, Parameters.QueryEa.Length));
static_assert(offsetof(IO_STACK_LOCATION, Parameters.Read.Length) ==
              offsetof(IO_STACK_LOCATION, Parameters.SetEa.Length));
static_assert(offsetof(IO_STACK_LOCATION, Parameters.Read.Length) ==
              offsetof(IO_STACK_LOCATION, Parameters.Write.Length));

} // namespace

NTSTATUS GvLockUserBufferIrpContext(IrpContext* context, bool* locked)
{
    const PIRP irp = context->Irp;
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(irp);
    GV_TRACE(GvTraceFlow, "irp mj: 0x%x, mn: 0x%x\n", stack->MajorFunction, stack->MinorFunction);

    const BufferUse use = BufferUseOf(stack);
    if (use == BufferUse::None) {
        GV_TRACE(GvTraceFlow, "not locking user-buffer for this IRP\n");
        return STATUS_SUCCESS;
    }
    if (irp->MdlAddress) return STATUS_SUCCESS;
    if (!irp->UserBuffer) {
        GV_TRACE(GvTraceError, "user buffer NULL for IRP: 0x%x\n", irp);
        return STATUS_INVALID_PARAMETER;
    }
    // Nothing of it will be touched, and no list describes no pages.
    if (LengthOf(stack) == 0) return STATUS_SUCCESS;
    const PMDL mdl = IoAllocateMdl(irp->UserBuffer, LengthOf(stack), FALSE, TRUE, irp);
    if (!mdl) {
        GV_TRACE(GvTraceError, "IoAllocateMdl(): failed: 0x%x\n", STATUS_INSUFFICIENT_RESOURCES);
        irp->MdlAddress = nullptr;
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const LOCK_OPERATION operation = use == BufferUse::Filled ? IoWriteAccess : IoReadAccess;
    if (!GvGuarded([mdl, operation] { MmProbeAndLockPages(mdl, KernelMode, operation); })) {
        GV_TRACE(GvTraceError, "MmProbeAndLockPages(): failed: 0x%x\n", STATUS_ACCESS_VIOLATION);
        IoFreeMdl(mdl);
        irp->MdlAddress = nullptr;
        return STATUS_ACCESS_VIOLATION;
    }
    *locked = true;
    return STATUS_SUCCESS;
}

void GvUnlockUserBufferIrpContext(IrpContext* context)
{
    const PIRP irp = context->Irp;
    if (!irp->MdlAddress) return;
    MmUnlockPages(irp->MdlAddress);
    IoFreeMdl(irp->MdlAddress);
    irp->MdlAddress = nullptr;
}
