// The table of requests, and their dispatch routines: one-line entries into the skeleton.

#include "frame/requests.h"

#include "frame/trace.h"

namespace {

void TraceCreate(const char* function, PDEVICE_OBJECT device, PIRP irp)
{
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(irp);
    const auto& create = stack->Parameters.Create;
    GV_TRACE_AS(function, GvTraceDispatch,
                "dev: 0x%x, fo: 0x%x, file-name: %wZ, FileAttr: 0x%x, options: 0x%x, disposition: 0x%x, "
                "DesiredAccess: 0x%x, ShareAccess: 0x%x\n",
                device, stack->FileObject, &stack->FileObject->FileName, create.FileAttributes,
                create.Options & FILE_VALID_OPTION_FLAGS, create.Options >> 24, create.SecurityContext->DesiredAccess,
                create.ShareAccess);
}

void TraceRead(const char* function, PDEVICE_OBJECT device, PIRP irp)
{
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(irp);
    GV_TRACE_AS(function, GvTraceDispatch, "dev: 0x%x, fo: 0x%x, offset: 0x%x, len: 0x%x\n", device, stack->FileObject,
                stack->Parameters.Read.ByteOffset.QuadPart, stack->Parameters.Read.Length);
}

void TraceLock(const char* function, PDEVICE_OBJECT device, PIRP irp)
{
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(irp);
    GV_TRACE_AS(function, GvTraceDispatch, "dev: 0x%x, fo: 0x%x, minor-func: 0x%x\n", device, stack->FileObject,
                stack->MinorFunction);
}

constexpr bool kMayPend = true;
constexpr bool kStays = false;
constexpr bool kInformation = true;
constexpr bool kNoInformation = false;

constexpr GvDispatchRow kRows[] = {
    {IRP_MJ_CREATE, "GvCreate", GvCreate, GvDoCreate, TraceCreate, kStays, kInformation},
    {IRP_MJ_CLOSE, "GvClose", GvClose, GvDoClose, GvTraceOpening, kMayPend, kNoInformation},
    {IRP_MJ_READ, "GvRead", GvRead, GvDoRead, TraceRead, kMayPend, kInformation},
    {IRP_MJ_DIRECTORY_CONTROL, "GvDirControl", GvDirControl, GvDoDirControl, GvTraceOpening, kStays, kInformation},
    {IRP_MJ_LOCK_CONTROL, "GvLockControl", GvLockControl, GvDoLockControl, TraceLock, kMayPend, kNoInformation},
    {IRP_MJ_CLEANUP, "GvCleanup", GvCleanup, GvDoCleanup, GvTraceOpening, kStays, kNoInformation},
};

// Resolved when the driver is compiled.
template <UCHAR Major>
constexpr const GvDispatchRow& RowFor()
{
    for (const GvDispatchRow& row : kRows) {
        if (row.Major == Major) return row;
    }
    __builtin_unreachable(); // not a constant expression: an entry without a row does not compile
}

template <UCHAR Major>
NTSTATUS Dispatch(PDEVICE_OBJECT device, PIRP irp)
{
    static constexpr const GvDispatchRow& kRow = RowFor<Major>();
    return GvDispatch(kRow, device, irp);
}

} // namespace

NTSTATUS NTAPI GvCreate(PDEVICE_OBJECT device, PIRP irp) { return Dispatch<IRP_MJ_CREATE>(device, irp); }
NTSTATUS NTAPI GvClose(PDEVICE_OBJECT device, PIRP irp) { return Dispatch<IRP_MJ_CLOSE>(device, irp); }
NTSTATUS NTAPI GvRead(PDEVICE_OBJECT device, PIRP irp) { return Dispatch<IRP_MJ_READ>(device, irp); }
NTSTATUS NTAPI GvDirControl(PDEVICE_OBJECT device, PIRP irp) { return Dispatch<IRP_MJ_DIRECTORY_CONTROL>(device, irp); }
NTSTATUS NTAPI GvLockControl(PDEVICE_OBJECT device, PIRP irp) { return Dispatch<IRP_MJ_LOCK_CONTROL>(device, irp); }
NTSTATUS NTAPI GvCleanup(PDEVICE_OBJECT device, PIRP irp) { return Dispatch<IRP_MJ_CLEANUP>(device, irp); }

void GvFillDispatchRows(PDRIVER_OBJECT driver)
{
    for (const GvDispatchRow& row : kRows) driver->MajorFunction[row.Major] = row.Entry;
}

const GvDispatchRow* GvRowOf(UCHAR major)
{
    for (const GvDispatchRow& row : kRows) {
        if (row.Major == major) return &row;
    }
    return nullptr;
}
