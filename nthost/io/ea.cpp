// Extended attributes: the services. The names of a query are captured and belong to the request; attributes to set are
// checked here where the I/O manager holds a copy of them, and by the driver where it gets the caller's address.
#include "io/ea_list.h"
#include "io/request.h"
#include "ob/service.h"
#include "ob/capture.h"

namespace nthost::io {

namespace {

struct EaQuery {
    KPROCESSOR_MODE Mode;
    PIO_STATUS_BLOCK StatusBlock;
    void* Buffer;
    ULONG Length;
    bool Single;
    const void* List;
    ULONG ListLength;
    PULONG Index; // the caller's, or null
    bool Restart;
};

struct EaSelection {
    CapturedList Names;
    ULONG NamesLength = 0;
    ULONG Index = 0;
    UCHAR Flags = 0;
};

[[nodiscard]] NTSTATUS CaptureNames(const EaQuery& query, EaSelection* selection)
{
    NTSTATUS status = CaptureList(query.List, query.ListLength, query.Mode, &selection->Names);
    if (!NT_SUCCESS(status) || !selection->Names) return status;
    selection->NamesLength = query.ListLength;
    ULONG errorOffset = 0;
    status = CheckEaNames(selection->Names.get(), query.ListLength, &errorOffset);
    return TellInconsistent(status, errorOffset, query.StatusBlock, query.Mode);
}

[[nodiscard]] NTSTATUS CaptureSelection(const EaQuery& query, EaSelection* selection)
{
    if (query.Single) selection->Flags |= SL_RETURN_SINGLE_ENTRY;
    if (query.Restart) selection->Flags |= SL_RESTART_SCAN;
    if (query.Index) {
        selection->Flags |= SL_INDEX_SPECIFIED;
        const NTSTATUS status = ob::ReadUser(query.Index, &selection->Index, query.Mode);
        if (!NT_SUCCESS(status)) return status;
    }
    return CaptureNames(query, selection);
}

NTSTATUS IssueQuery(const EaQuery& query, EaSelection& selection, Request& request)
{
    NTSTATUS status = request.Build(IRP_MJ_QUERY_EA);
    if (!NT_SUCCESS(status)) return status;
    request.Location()->Flags = selection.Flags;
    auto& parameters = request.Location()->Parameters.QueryEa;
    parameters.Length = query.Length;
    parameters.EaList = selection.Names.get();
    parameters.EaListLength = selection.NamesLength;
    parameters.EaIndex = selection.Index;
    request.Irp()->Tail.Overlay.AuxiliaryBuffer = static_cast<PCHAR>(selection.Names.release());
    status = request.Output(query.Buffer, query.Length);
    return NT_SUCCESS(status) ? request.Issue() : status;
}

NTSTATUS QueryEa(KPROCESSOR_MODE mode, HANDLE file, PIO_STATUS_BLOCK statusBlock, PVOID buffer, ULONG length,
                 BOOLEAN single, PVOID list, ULONG listLength, PULONG index, BOOLEAN restart)
{
    const EaQuery query{mode, statusBlock, buffer, length, single != FALSE, list, listLength, index, restart != FALSE};
    NTSTATUS status = ob::ProbeUser(statusBlock, mode);
    if (!NT_SUCCESS(status)) return status;
    status = ob::ProbeUserForWrite(buffer, length, sizeof(ULONG), mode);
    if (!NT_SUCCESS(status)) return status;
    EaSelection selection;
    status = CaptureSelection(query, &selection);
    if (!NT_SUCCESS(status)) return status;
    Request request;
    status = request.Open({.Mode = mode, .StatusBlock = statusBlock}, file, FILE_READ_EA, Service::AlwaysWaits);
    return NT_SUCCESS(status) ? IssueQuery(query, selection, request) : status;
}

[[nodiscard]] NTSTATUS CheckCopy(Request& request, ULONG length, PIO_STATUS_BLOCK statusBlock, KPROCESSOR_MODE mode)
{
    if (!(request.Device()->Flags & DO_BUFFERED_IO)) return STATUS_SUCCESS;
    auto* const list = static_cast<PFILE_FULL_EA_INFORMATION>(request.Irp()->AssociatedIrp.SystemBuffer);
    ULONG errorOffset = 0;
    const NTSTATUS status = IoCheckEaBufferValidity(list, length, &errorOffset);
    return TellInconsistent(status, errorOffset, statusBlock, mode);
}

NTSTATUS SetEa(KPROCESSOR_MODE mode, HANDLE file, PIO_STATUS_BLOCK statusBlock, PVOID buffer, ULONG length)
{
    NTSTATUS status = ob::ProbeUserForRead(buffer, length, sizeof(ULONG), mode);
    if (!NT_SUCCESS(status)) return status;
    Request request;
    status = request.Open({.Mode = mode, .StatusBlock = statusBlock}, file, FILE_WRITE_EA, Service::AlwaysWaits);
    if (!NT_SUCCESS(status)) return status;
    status = request.Build(IRP_MJ_SET_EA);
    if (!NT_SUCCESS(status)) return status;
    request.Location()->Parameters.SetEa.Length = length;
    status = request.Input(buffer, length);
    if (!NT_SUCCESS(status)) return status;
    status = CheckCopy(request, length, statusBlock, mode);
    return NT_SUCCESS(status) ? request.Issue() : status;
}

} // namespace

} // namespace nthost::io

NTHOST_SERVICE_PAIR(QueryEaFile, nthost::io::QueryEa,
                    (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length,
                     BOOLEAN ReturnSingleEntry, PVOID EaList, ULONG EaListLength, PULONG EaIndex, BOOLEAN RestartScan),
                    FileHandle, IoStatusBlock, Buffer, Length, ReturnSingleEntry, EaList, EaListLength, EaIndex,
                    RestartScan)
NTHOST_SERVICE_PAIR(SetEaFile, nthost::io::SetEa,
                    (HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length), FileHandle,
                    IoStatusBlock, Buffer, Length)
