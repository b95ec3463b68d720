// The table of requests, and their dispatch routines: one-line entries into the skeleton.

#include "entry/requests.h"

#include "create/create.h"
#include "dataio/dataio.h"
#include "dirctl/dirctl.h"
#include "ea/ea.h"
#include "entry/dispatch.h"
#include "fileinfo/fileinfo.h"
#include "frame/trace.h"
#include "teardown/teardown.h"
#include "volinfo/volinfo.h"

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

// Reads and writes have their parameters in the same places, and so have the four information requests.
void TraceTransfer(const char* function, PDEVICE_OBJECT device, PIRP irp)
{
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(irp);
    GV_TRACE_AS(function, GvTraceDispatch, "dev: 0x%x, fo: 0x%x, offset: 0x%x, len: 0x%x\n", device, stack->FileObject,
                stack->Parameters.Read.ByteOffset.QuadPart, stack->Parameters.Read.Length);
}

static_assert(offsetof(IO_STACK_LOCATION, Parameters.Read.ByteOffset) ==
              offsetof(IO_STACK_LOCATION, Parameters.Write.ByteOffset));

void TraceInformation(const char* function, PDEVICE_OBJECT device, PIRP irp)
{
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(irp);
    GV_TRACE_AS(function, GvTraceDispatch, "dev: 0x%x, fo: 0x%x, info-class: 0x%x\n", device, stack->FileObject,
                stack->Parameters.QueryFile.FileInformationClass);
}
static_assert(offsetof(IO_STACK_LOCATION, Parameters.QueryFile.FileInformationClass) ==
              offsetof(IO_STACK_LOCATION, Parameters.SetFile.FileInformationClass));
static_assert(offsetof(IO_STACK_LOCATION, Parameters.QueryFile.FileInformationClass) ==
              offsetof(IO_STACK_LOCATION, Parameters.QueryVolume.FsInformationClass));
static_assert(offsetof(IO_STACK_LOCATION, Parameters.QueryFile.FileInformationClass) ==
              offsetof(IO_STACK_LOCATION, Parameters.SetVolume.FsInformationClass));

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

// clang-format off
constexpr GvDispatchRow kRows[] = {
    {IRP_MJ_CREATE, "GvCreate", GvCreate, GvDoCreate, TraceCreate, kStays, kInformation},
    {IRP_MJ_CLOSE, "GvClose", GvClose, GvDoClose, GvTraceOpening, kMayPend, kNoInformation},
    {IRP_MJ_READ, "GvRead", GvRead, GvDoRead, TraceTransfer, kMayPend, kInformation},
    {IRP_MJ_WRITE, "GvWrite", GvWrite, GvDoWrite, TraceTransfer, kMayPend, kInformation},
    {IRP_MJ_QUERY_INFORMATION, "GvQueryInfo", GvQueryInfo, GvDoQueryInfo, TraceInformation, kMayPend, kInformation},
    {IRP_MJ_SET_INFORMATION, "GvSetInfo", GvSetInfo, GvDoSetInfo, TraceInformation, kMayPend, kNoInformation},
    {IRP_MJ_QUERY_EA, "GvQueryEa", GvQueryEa, GvDoQueryEa, GvTraceOpening, kMayPend, kInformation},
    {IRP_MJ_SET_EA, "GvSetEa", GvSetEa, GvDoSetEa, GvTraceOpening, kMayPend, kInformation},
    {IRP_MJ_FLUSH_BUFFERS, "GvFlushBuffers", GvFlushBuffers, GvDoFlushBuffers, GvTraceOpening, kMayPend, kNoInformation},
    {IRP_MJ_QUERY_VOLUME_INFORMATION, "GvQueryVolInfo", GvQueryVolInfo, GvDoQueryVolInfo, TraceInformation, kMayPend, kInformation},
    {IRP_MJ_SET_VOLUME_INFORMATION, "GvSetVolInfo", GvSetVolInfo, GvDoSetVolInfo, TraceInformation, kMayPend, kNoInformation},
    {IRP_MJ_DIRECTORY_CONTROL, "GvDirControl", GvDirControl, GvDoDirControl, GvTraceOpening, kStays, kInformation},
    {IRP_MJ_LOCK_CONTROL, "GvLockControl", GvLockControl, GvDoLockControl, TraceLock, kMayPend, kNoInformation},
    {IRP_MJ_CLEANUP, "GvCleanup", GvCleanup, GvDoCleanup, GvTraceOpening, kStays, kNoInformation},
};
// clang-format on

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

// clang-format off
NTSTATUS NTAPI GvCreate(PDEVICE_OBJECT device, PIRP irp) { return Dispatch<IRP_MJ_CREATE>(device, irp); }
NTSTATUS NTAPI GvClose(PDEVICE_OBJECT device, PIRP irp) { return Dispatch<IRP_MJ_CLOSE>(device, irp); }
NTSTATUS NTAPI GvRead(PDEVICE_OBJECT device, PIRP irp) { return Dispatch<IRP_MJ_READ>(device, irp); }
NTSTATUS NTAPI GvWrite(PDEVICE_OBJECT device, PIRP irp) { return Dispatch<IRP_MJ_WRITE>(device, irp); }
NTSTATUS NTAPI GvQueryInfo(PDEVICE_OBJECT device, PIRP irp) { return Dispatch<IRP_MJ_QUERY_INFORMATION>(device, irp); }
NTSTATUS NTAPI GvSetInfo(PDEVICE_OBJECT device, PIRP irp) { return Dispatch<IRP_MJ_SET_INFORMATION>(device, irp); }
NTSTATUS NTAPI GvQueryEa(PDEVICE_OBJECT device, PIRP irp) { return Dispatch<IRP_MJ_QUERY_EA>(device, irp); }
NTSTATUS NTAPI GvSetEa(PDEVICE_OBJECT device, PIRP irp) { return Dispatch<IRP_MJ_SET_EA>(device, irp); }
NTSTATUS NTAPI GvFlushBuffers(PDEVICE_OBJECT device, PIRP irp) { return Dispatch<IRP_MJ_FLUSH_BUFFERS>(device, irp); }
NTSTATUS NTAPI GvQueryVolInfo(PDEVICE_OBJECT device, PIRP irp) { return Dispatch<IRP_MJ_QUERY_VOLUME_INFORMATION>(device, irp); }
NTSTATUS NTAPI GvSetVolInfo(PDEVICE_OBJECT device, PIRP irp) { return Dispatch<IRP_MJ_SET_VOLUME_INFORMATION>(device, irp); }
NTSTATUS NTAPI GvDirControl(PDEVICE_OBJECT device, PIRP irp) { return Dispatch<IRP_MJ_DIRECTORY_CONTROL>(device, irp); }
NTSTATUS NTAPI GvLockControl(PDEVICE_OBJECT device, PIRP irp) { return Dispatch<IRP_MJ_LOCK_CONTROL>(device, irp); }
NTSTATUS NTAPI GvCleanup(PDEVICE_OBJECT device, PIRP irp) { return Dispatch<IRP_MJ_CLEANUP>(device, irp); }
// clang-format on

void GvFillDispatchRows(PDRIVER_OBJECT driver)
{
    for (const GvDispatchRow& row : kRows) driver->MajorFunction[row.Major] = row.Entry;
}
