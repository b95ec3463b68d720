// IRP_MJ_QUERY_VOLUME_INFORMATION. What is true of the contents comes from the plugin at each query, and so every
// class, also one that is answered from constants, needs a plugin that answers. Under Vcb.Resource, shared.

#include "frame/plugincall.h"
#include "frame/pool.h"
#include "frame/requests.h"
#include "frame/resource.h"

namespace {

constexpr char kName[] = "GvDoQueryVolInfo";
constexpr ULONG kSectorSize = 1; // of the volume device: a volume counts in bytes

struct VolumeQuery {
    PDEVICE_OBJECT Device;
    const PluginVolInfo* Record;
    void* Buffer;
    ULONG Length;
};

struct VolumeClass {
    FS_INFORMATION_CLASS Class;
    ULONG Least;
    NTSTATUS (*Worker)(const VolumeQuery& query, ULONG* information);
};

// The label goes whole or not at all; its length goes in any case.
NTSTATUS GvQueryFsVolumeInfo(const VolumeQuery& query, ULONG* information)
{
    auto* const info = static_cast<PFILE_FS_VOLUME_INFORMATION>(query.Buffer);
    const PluginVolInfo* const record = query.Record;
    info->VolumeCreationTime.QuadPart = record->VolumeCreationTime;
    info->VolumeSerialNumber = record->VolumeSerialNumber;
    info->VolumeLabelLength = record->VolumeLabelLength;
    info->SupportsObjects = FALSE;
    *information = sizeof(*info);
    // By the size of the structure, alignment included, not by the place of the label.
    if (query.Length - sizeof(*info) < record->VolumeLabelLength) return STATUS_BUFFER_OVERFLOW;
    RtlCopyMemory(info->VolumeLabel, record->VolumeLabel, record->VolumeLabelLength);
    *information += record->VolumeLabelLength;
    return STATUS_SUCCESS;
}

NTSTATUS GvQueryFsSizeInfo(const VolumeQuery& query, ULONG* information)
{
    auto* const info = static_cast<PFILE_FS_SIZE_INFORMATION>(query.Buffer);
    info->TotalAllocationUnits.QuadPart = static_cast<LONGLONG>(query.Record->TotalAllocationUnits);
    info->AvailableAllocationUnits.QuadPart = static_cast<LONGLONG>(query.Record->AvailableAllocationUnits);
    info->SectorsPerAllocationUnit = query.Record->SectorsPerAllocationUnit;
    info->BytesPerSector = query.Record->BytesPerSector;
    *information = sizeof(*info);
    return STATUS_SUCCESS;
}

NTSTATUS QueryFsDeviceInfo(const VolumeQuery& query, ULONG* information)
{
    auto* const info = static_cast<PFILE_FS_DEVICE_INFORMATION>(query.Buffer);
    info->DeviceType = FILE_DEVICE_DISK_FILE_SYSTEM;
    info->Characteristics = query.Device->Characteristics;
    *information = sizeof(*info);
    return STATUS_SUCCESS;
}

NTSTATUS GvQueryFsAttributeInfo(const VolumeQuery& query, ULONG* information)
{
    constexpr UNICODE_STRING kFileSystemName = GvLiteral(L"KIRN");
    auto* const info = static_cast<PFILE_FS_ATTRIBUTE_INFORMATION>(query.Buffer);
    info->FileSystemAttributes = FILE_CASE_PRESERVED_NAMES | FILE_UNICODE_ON_DISK | FILE_SUPPORTS_REPARSE_POINTS;
    info->MaximumComponentNameLength = 255;
    info->FileSystemNameLength = kFileSystemName.Length;
    *information = sizeof(*info);
    if (query.Length < sizeof(*info) + kFileSystemName.Length) return STATUS_BUFFER_OVERFLOW;
    RtlCopyMemory(info->FileSystemName, kFileSystemName.Buffer, kFileSystemName.Length);
    *information += kFileSystemName.Length;
    return STATUS_SUCCESS;
}

NTSTATUS GvQueryFsFullSizeInfo(const VolumeQuery& query, ULONG* information)
{
    auto* const info = static_cast<PFILE_FS_FULL_SIZE_INFORMATION>(query.Buffer);
    const auto available = static_cast<LONGLONG>(query.Record->AvailableAllocationUnits);
    info->TotalAllocationUnits.QuadPart = static_cast<LONGLONG>(query.Record->TotalAllocationUnits);
    info->CallerAvailableAllocationUnits.QuadPart = available;
    info->ActualAvailableAllocationUnits.QuadPart = available;
    info->SectorsPerAllocationUnit = query.Record->SectorsPerAllocationUnit;
    info->BytesPerSector = query.Record->BytesPerSector;
    *information = sizeof(*info);
    return STATUS_SUCCESS;
}

constexpr VolumeClass kClasses[] = {
    {FileFsVolumeInformation, 24, GvQueryFsVolumeInfo},     {FileFsSizeInformation, 24, GvQueryFsSizeInfo},
    {FileFsDeviceInformation, 8, QueryFsDeviceInfo},        {FileFsAttributeInformation, 16, GvQueryFsAttributeInfo},
    {FileFsFullSizeInformation, 32, GvQueryFsFullSizeInfo},
};

[[nodiscard]] NTSTATUS Answer(FS_INFORMATION_CLASS requested, const VolumeQuery& query, ULONG* information)
{
    for (const VolumeClass& row : kClasses) {
        if (row.Class != requested) continue;
        return query.Length < row.Least ? STATUS_BUFFER_TOO_SMALL : row.Worker(query, information);
    }
    GV_TRACE_AS(kName, GvTraceUnsupported, "fs-info-class: 0x%x not supported!!\n", requested);
    return STATUS_NOT_SUPPORTED;
}

[[nodiscard]] NTSTATUS GetVolumeRecord(IrpContext* context, const Fcb* fcb, GvBlock<PluginVolInfo>* record)
{
    NTSTATUS status = GV_CALL_PLUGIN(context, fcb, GetVolInfo, record->Out());
    if (NT_SUCCESS(status) && !*record) status = STATUS_UNSUCCESSFUL;
    if (NT_SUCCESS(status)) {
        status = GvCheckPluginName("GetVolInfo", (*record)->VolumeLabel, (*record)->VolumeLabelLength);
    }
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED_AS(kName, "GetVolInfo", status);
        return status;
    }
    if ((*record)->BytesPerSector != kSectorSize) {
        GV_TRACE_AS(kName, GvTraceError, "ERR: plugin GetVolInfo()->sector_size %d != mount sector-size %d\n",
                    (*record)->BytesPerSector, kSectorSize);
        return STATUS_INVALID_PARAMETER;
    }
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS GvDoQueryVolInfo(IrpContext* context, GvOutcome* outcome)
{
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) return STATUS_UNSUCCESSFUL;
    if (!context->IsTopLevel) {
        GV_TRACE(GvTraceError, "ERR: query vol info not top-level request\n");
        return STATUS_UNSUCCESSFUL;
    }
    if (context->IsAsync) return GvPendIrpContext(context);

    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(context->Irp);
    GvHeldResource lock;
    NTSTATUS status = lock.Shared(&context->Vcb->Resource);
    if (!NT_SUCCESS(status)) return status;
    GvBlock<PluginVolInfo> record;
    status = GetVolumeRecord(context, GvFcbOf(stack->FileObject), &record);
    if (!NT_SUCCESS(status)) return status;
    const VolumeQuery query = {
        .Device = stack->DeviceObject,
        .Record = record.Get(),
        .Buffer = context->Irp->AssociatedIrp.SystemBuffer,
        .Length = stack->Parameters.QueryVolume.Length,
    };
    if (query.Length) RtlZeroMemory(query.Buffer, query.Length); // padding goes out with the answer
    return Answer(stack->Parameters.QueryVolume.FsInformationClass, query, &outcome->Information);
}
