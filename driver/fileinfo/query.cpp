// IRP_MJ_QUERY_INFORMATION. Nothing is cached: every query, of whatever class, first asks the plugin for the object's
// record, and a failing GetInfo fails it. Under the object's lock, shared, and for the classes that tell the name under
// Vcb.Resource too; a nested query takes neither.

#include "ea/ea.h"
#include "fileinfo/plugininfo.h"
#include "frame/requests.h"
#include "frame/resource.h"
#include "frame/trace.h"
#include "objects/fcb.h"
#include "objects/util.h"

namespace {

struct InfoQuery {
    IrpContext* Context;
    PFILE_OBJECT FileObject;
    Fcb* Object;
    const PluginFileInfo* Record;
};

// Where a class goes, and *length: bytes free in, bytes written out. A worker that fails may leave the length.
using ClassWorker = NTSTATUS (*)(const InfoQuery& query, void* buffer, ULONG* length);

struct InfoClass {
    FILE_INFORMATION_CLASS Class;
    ULONG Least;
    ClassWorker Worker;
};

ULONG ReportedAttributes(const PluginFileInfo* record)
{
    return record->FileAttributes ? record->FileAttributes : FILE_ATTRIBUTE_NORMAL;
}

template <typename Info>
void CopyTimes(const PluginFileInfo* record, Info* info)
{
    info->CreationTime.QuadPart = record->CreationTime;
    info->LastAccessTime.QuadPart = record->LastAccessTime;
    info->LastWriteTime.QuadPart = record->LastWriteTime;
    info->ChangeTime.QuadPart = record->ChangeTime;
}

NTSTATUS GvQueryBasicInfo(const InfoQuery& query, void* buffer, ULONG* length)
{
    auto* const info = static_cast<PFILE_BASIC_INFORMATION>(buffer);
    CopyTimes(query.Record, info);
    info->FileAttributes = ReportedAttributes(query.Record);
    GV_TRACE(GvTraceFlow, "query-attr: 0x%x\n", info->FileAttributes);
    *length = sizeof(*info);
    return STATUS_SUCCESS;
}

NTSTATUS GvQueryStandardInfo(const InfoQuery& query, void* buffer, ULONG* length)
{
    auto* const info = static_cast<PFILE_STANDARD_INFORMATION>(buffer);
    info->AllocationSize.QuadPart = query.Record->AllocationSize;
    info->EndOfFile.QuadPart = query.Record->EndOfFile;
    info->NumberOfLinks = 1;
    info->DeletePending = FALSE; // also of an object that waits for its deletion
    info->Directory = query.Object->FcbType == GvDirectory;
    *length = sizeof(*info);
    return STATUS_SUCCESS;
}

NTSTATUS QueryInternalInfo(const InfoQuery& query, void* buffer, ULONG* length)
{
    auto* const info = static_cast<PFILE_INTERNAL_INFORMATION>(buffer);
    info->IndexNumber.QuadPart = static_cast<LONGLONG>(query.Record->FileId);
    *length = sizeof(*info);
    return STATUS_SUCCESS;
}

NTSTATUS GvQueryEaInfo(const InfoQuery& query, void* buffer, ULONG* length)
{
    ULONG size = 0;
    const NTSTATUS status = GvGetFullEaInfoTotalLen(query.Context, query.Object, &size);
    if (!NT_SUCCESS(status) && status != STATUS_NOT_SUPPORTED) {
        GV_TRACE_FAILED("GvGetFullEaInfoTotalLen", status);
        return status;
    }
    auto* const info = static_cast<PFILE_EA_INFORMATION>(buffer);
    info->EaSize = NT_SUCCESS(status) ? size : 0; // a plugin without EAs has files without EAs
    *length = sizeof(*info);
    return STATUS_SUCCESS;
}

// The length of the name goes out in any case; the name goes whole or not at all.
NTSTATUS GvQueryNameInfo(const InfoQuery& query, void* buffer, ULONG* length)
{
    GvString name;
    FcbTables* const tables = GvVcbOf(query.FileObject->DeviceObject)->FcbTables;
    if (const NTSTATUS status = GvFcbGetName(tables, query.Object, name.Out()); !NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvFcbGetName", status);
        return status;
    }
    if (*length < sizeof(ULONG)) return STATUS_BUFFER_TOO_SMALL;
    auto* const info = static_cast<PFILE_NAME_INFORMATION>(buffer);
    info->FileNameLength = name->Length;
    const ULONG needed = name->Length + sizeof(FILE_NAME_INFORMATION);
    if (*length < needed) return STATUS_BUFFER_OVERFLOW;
    RtlCopyMemory(info->FileName, name->Buffer, name->Length);
    *length = needed;
    return STATUS_SUCCESS;
}

NTSTATUS QueryPositionInfo(const InfoQuery& query, void* buffer, ULONG* length)
{
    auto* const info = static_cast<PFILE_POSITION_INFORMATION>(buffer);
    info->CurrentByteOffset = query.FileObject->CurrentByteOffset;
    *length = sizeof(*info);
    return STATUS_SUCCESS;
}

NTSTATUS QueryNetworkOpenInfo(const InfoQuery& query, void* buffer, ULONG* length)
{
    auto* const info = static_cast<PFILE_NETWORK_OPEN_INFORMATION>(buffer);
    CopyTimes(query.Record, info);
    info->AllocationSize.QuadPart = query.Record->AllocationSize;
    info->EndOfFile.QuadPart = query.Record->EndOfFile;
    info->FileAttributes = ReportedAttributes(query.Record);
    *length = sizeof(*info);
    return STATUS_SUCCESS;
}

NTSTATUS QueryUnansweredInfo(const InfoQuery&, void*, ULONG*) { return STATUS_NOT_IMPLEMENTED; }

// The stages of FileAllInformation before the name, in their order. Each needs its bytes and takes them off what is
// free; the access, mode and alignment that share a stage are the I/O manager's to fill.
NTSTATUS QueryEaAndAccess(const InfoQuery& query, void* buffer, ULONG* length)
{
    if (const NTSTATUS status = GvQueryEaInfo(query, buffer, length); !NT_SUCCESS(status)) return status;
    static_cast<PFILE_ACCESS_INFORMATION>(static_cast<void*>(static_cast<UCHAR*>(buffer) + sizeof(FILE_EA_INFORMATION)))
        ->AccessFlags = 0;
    return STATUS_SUCCESS;
}

NTSTATUS QueryPositionModeAndAlignment(const InfoQuery& query, void* buffer, ULONG*)
{
    RtlZeroMemory(buffer, FIELD_OFFSET(FILE_ALL_INFORMATION, NameInformation) -
                              FIELD_OFFSET(FILE_ALL_INFORMATION, PositionInformation));
    static_cast<PFILE_POSITION_INFORMATION>(buffer)->CurrentByteOffset = query.FileObject->CurrentByteOffset;
    return STATUS_SUCCESS;
}

struct Stage {
    ULONG Offset;
    ULONG Size;
    ClassWorker Worker;
};

constexpr Stage kStages[] = {
    {FIELD_OFFSET(FILE_ALL_INFORMATION, BasicInformation), 40, GvQueryBasicInfo},
    {FIELD_OFFSET(FILE_ALL_INFORMATION, StandardInformation), 24, GvQueryStandardInfo},
    {FIELD_OFFSET(FILE_ALL_INFORMATION, InternalInformation), 8, QueryInternalInfo},
    {FIELD_OFFSET(FILE_ALL_INFORMATION, EaInformation), 8, QueryEaAndAccess},
    {FIELD_OFFSET(FILE_ALL_INFORMATION, PositionInformation), 16, QueryPositionModeAndAlignment},
};

[[nodiscard]] NTSTATUS FillStages(const InfoQuery& query, UCHAR* buffer, ULONG* free)
{
    for (const Stage& stage : kStages) {
        if (*free < stage.Size) return STATUS_BUFFER_TOO_SMALL;
        ULONG written = *free;
        const NTSTATUS status = stage.Worker(query, buffer + stage.Offset, &written);
        if (!NT_SUCCESS(status)) return status;
        *free -= stage.Size;
    }
    return STATUS_SUCCESS;
}

// A stage that fails reports the bytes of the stages before it.
NTSTATUS GvQueryAllInfo(const InfoQuery& query, void* buffer, ULONG* length)
{
    auto* const bytes = static_cast<UCHAR*>(buffer);
    ULONG free = *length;
    NTSTATUS status = FillStages(query, bytes, &free);
    if (NT_SUCCESS(status)) {
        ULONG written = free;
        status = GvQueryNameInfo(query, bytes + FIELD_OFFSET(FILE_ALL_INFORMATION, NameInformation), &written);
        if (NT_SUCCESS(status)) free -= written;
    }
    *length -= free;
    return status;
}

constexpr InfoClass kClasses[] = {
    {FileBasicInformation, 40, GvQueryBasicInfo},           {FileStandardInformation, 24, GvQueryStandardInfo},
    {FileInternalInformation, 8, QueryInternalInfo},        {FileEaInformation, 4, GvQueryEaInfo},
    {FileAccessInformation, 0, QueryUnansweredInfo},        {FileNameInformation, 0, GvQueryNameInfo},
    {FilePositionInformation, 8, QueryPositionInfo},        {FileModeInformation, 0, QueryUnansweredInfo},
    {FileAlignmentInformation, 0, QueryUnansweredInfo},     {FileAllInformation, 0, GvQueryAllInfo},
    {FileNetworkOpenInformation, 56, QueryNetworkOpenInfo},
};

[[nodiscard]] NTSTATUS Answer(const InfoQuery& query, FILE_INFORMATION_CLASS requested, void* buffer, ULONG* length)
{
    for (const InfoClass& row : kClasses) {
        if (row.Class != requested) continue;
        return *length < row.Least ? STATUS_BUFFER_TOO_SMALL : row.Worker(query, buffer, length);
    }
    GV_TRACE_AS("GvDoQueryInfo", GvTraceUnsupported, "file-info-class: 0x%x not supported!!\n", requested);
    return STATUS_INVALID_PARAMETER;
}

// Strips what no caller may see. The plugin must agree with the control block about what the object is.
[[nodiscard]] NTSTATUS GvValidatePluginFileInfo(PFILE_OBJECT fileObject, PluginFileInfo* record)
{
    record->FileAttributes &= GVND_ATTRIBUTE_MASK;
    const ULONG type = GvFcbOf(fileObject)->FcbType;
    const bool isDirectory = (record->FileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    if (isDirectory == (type == GvDirectory)) return STATUS_SUCCESS;
    GV_TRACE(GvTraceError, "ERR fo: 0x%x, type: 0x%x, has plugin-attr: 0x%x\n", fileObject, type,
             record->FileAttributes);
    return STATUS_INVALID_PARAMETER;
}

bool TellsName(FILE_INFORMATION_CLASS requested)
{
    return requested == FileNameInformation || requested == FileAllInformation;
}

} // namespace

NTSTATUS GvDoQueryInfo(IrpContext* context, GvOutcome* outcome)
{
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) return STATUS_UNSUCCESSFUL;
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(context->Irp);
    Fcb* const fcb = GvFcbOf(stack->FileObject);
    if (fcb->FcbType == GvVolume) {
        GV_TRACE(GvTraceError, "rejecting query-info on fcb-type: %d, err: 0x%x\n", fcb->FcbType,
                 STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    if (context->IsAsync) return GvPendIrpContext(context);

    const FILE_INFORMATION_CLASS requested = stack->Parameters.QueryFile.FileInformationClass;
    GvHeldResource volumeLock;
    GvHeldResource lock;
    if (context->IsTopLevel) {
        NTSTATUS status = STATUS_SUCCESS;
        if (TellsName(requested)) status = volumeLock.Shared(&context->Vcb->Resource);
        if (NT_SUCCESS(status)) status = lock.Shared(fcb->Header.Resource);
        if (!NT_SUCCESS(status)) return status;
    }
    GvBlock<PluginFileInfo> record;
    NTSTATUS status = GvGetInfoFromPlugin(context, GvHandleOf(fcb), &record);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GetInfo", status);
        return status;
    }
    status = GvValidatePluginFileInfo(stack->FileObject, record.Get());
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvValidatePluginFileInfo", status);
        return status;
    }
    const InfoQuery query = {
        .Context = context, .FileObject = stack->FileObject, .Object = fcb, .Record = record.Get()};
    outcome->Information = stack->Parameters.QueryFile.Length;
    // The I/O manager copies out what Information says, and that includes padding and the tail of a name that did not
    // fit.
    if (outcome->Information) RtlZeroMemory(context->Irp->AssociatedIrp.SystemBuffer, outcome->Information);
    return Answer(query, requested, context->Irp->AssociatedIrp.SystemBuffer, &outcome->Information);
}
