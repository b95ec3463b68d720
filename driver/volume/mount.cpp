// Mount. Runs alone for its volume: no request can reach the device before DO_DEVICE_INITIALIZING is cleared, and by
// then the plugin knows that the volume is mounted and the workers run.

#include "frame/driver.h"
#include "frame/guard.h"
#include "frame/handle.h"
#include "frame/objecttype.h"
#include "frame/plugincall.h"
#include "objects/fcb.h"
#include "objects/util.h"
#include "volume/control.h"
#include "volume/volume.h"
#include "volume/workers.h"

const GvServices GvServiceTable = {nullptr, GvMount, GvUnmountRequest};

namespace {

constexpr PluginAccessMask kVolumeAccess =
    GVND_ACCESS_READ | GVND_ACCESS_WRITE | GVND_ACCESS_WRITE_ATTRIBUTES; // nobody executes a volume

// A mount in progress: what stands so far, and its undoing. Once the device exists everything stands in the Vcb, which
// is its extension.
class MountAttempt {
public:
    explicit MountAttempt(PDEVICE_OBJECT* device) : device_(device) {}
    MountAttempt(const MountAttempt&) = delete;
    MountAttempt& operator=(const MountAttempt&) = delete;
    ~MountAttempt()
    {
        if (!committed_) Undo();
    }

    [[nodiscard]] NTSTATUS CopyLinkName(PCUNICODE_STRING linkName);
    [[nodiscard]] NTSTATUS CreateDevice(PUNICODE_STRING deviceName, PUNICODE_STRING securityString);
    [[nodiscard]] NTSTATUS HoldBackingObject(PUNICODE_STRING path);
    [[nodiscard]] NTSTATUS InitState(const PluginOps* operations);
    [[nodiscard]] NTSTATUS StartWorkers();
    [[nodiscard]] NTSTATUS InitNotify();
    [[nodiscard]] NTSTATUS MakeVolumeFcb();
    void Commit();
    ::Vcb* Vcb() const { return vcb_; }

private:
    void Undo();
    void UndoDevice(PUNICODE_STRING linkName);

    PDEVICE_OBJECT* device_;
    GvString linkName_;
    ::Vcb* vcb_ = nullptr;
    bool resourceReady_ = false;
    bool committed_ = false;
};

NTSTATUS MountAttempt::CopyLinkName(PCUNICODE_STRING linkName)
{
    linkName_.Reset(GvUtlAllocUnicodeString(PagedPool, linkName->Length));
    if (!linkName_) {
        GV_TRACE_AS("GvMount", GvTraceError, "out-of-mem\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyUnicodeString(linkName_.Get(), linkName);
    return STATUS_SUCCESS;
}

NTSTATUS MountAttempt::CreateDevice(PUNICODE_STRING deviceName, PUNICODE_STRING securityString)
{
    const GvDeviceParameters parameters = {
        .Driver = GvDriverObject,
        .DeviceName = *deviceName,
        .LinkName = *linkName_,
        .ExtensionSize = sizeof(::Vcb),
        .Type = FILE_DEVICE_DISK_FILE_SYSTEM,
        .Characteristics = FILE_DEVICE_SECURE_OPEN | FILE_REMOVABLE_MEDIA,
        .SecurityString = securityString,
    };
    const NTSTATUS status = GvUtlCreateDevAndSymLink(parameters, device_);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_AS("GvMount", GvTraceError, "GvUtlCreateDevAndSymLink(%wZ): 0x%x\n", deviceName, status);
        return status;
    }
    vcb_ = GvVcbOf(*device_);
    RtlZeroMemory(static_cast<void*>(vcb_), sizeof(*vcb_));
    vcb_->SymLinkName = linkName_.Get();
    return STATUS_SUCCESS;
}

NTSTATUS MountAttempt::HoldBackingObject(PUNICODE_STRING path)
{
    GvOwnedHandle handle;
    NTSTATUS status = GvUtlOpenFileWithNoAccess(path, handle.Out());
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED_AS("GvMount", "GvUtlOpenFileWithNoAccess", status);
        return status;
    }
    PVOID object = nullptr;
    status = ObReferenceObjectByHandle(handle.Get(), 0, GvObjectType(IoFileObjectType), KernelMode, &object, nullptr);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED_AS("GvMount", "ObReferenceObjectByHandle", status);
        return status;
    }
    vcb_->BackingFileObject = static_cast<PFILE_OBJECT>(object);
    return STATUS_SUCCESS;
}

// Alone with the volume, so the guarded fields are set up without their locks.
NTSTATUS MountAttempt::InitState(const PluginOps* operations) GV_NO_ANALYSIS
{
    vcb_->PluginOps = operations;
    PERESOURCE resource = &vcb_->Resource;
    NTSTATUS status = GvUtlAllocAndInitResource(&resource, GvAllocateResource::No);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED_AS("GvMount", "GvUtlAllocAndInitResource", status);
        return status;
    }
    resourceReady_ = true;
    status = GvFcbInit(&vcb_->FcbTables);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED_AS("GvMount", "GvFcbInit", status);
        return status;
    }
    KeInitializeSpinLock(&vcb_->PinLock.Lock);
    for (LIST_ENTRY& list : vcb_->PendedList) InitializeListHead(&list);
    InitializeListHead(&vcb_->ActiveList);
    KeInitializeSpinLock(&vcb_->QueueLock.Lock);
    for (KSEMAPHORE& semaphore : vcb_->WorkSemaphore) KeInitializeSemaphore(&semaphore, 0, GvMaximumPended);
    KeInitializeEvent(&vcb_->StopEvent, NotificationEvent, FALSE);
    return STATUS_SUCCESS;
}

NTSTATUS MountAttempt::StartWorkers()
{
    const NTSTATUS status = FspStartWorkerThreads(vcb_, &vcb_->StopEvent, GvVcbThreadPoolSize, &vcb_->WorkerThreads);
    if (!NT_SUCCESS(status)) {
        GV_TRACE_FAILED_AS("GvMount", "FspStartWorkerThread", status);
        return status;
    }
    vcb_->WorkerCount = GvVcbThreadPoolSize;
    return STATUS_SUCCESS;
}

NTSTATUS MountAttempt::MakeVolumeFcb()
{
    const NTSTATUS status = GvFcbAllocAndInitVolumeFcb(kVolumeAccess, &vcb_->VolumeFcb);
    if (!NT_SUCCESS(status)) GV_TRACE_FAILED_AS("GvMount", "GvFcbAllocAndInitVolumeFcb", status);
    return status;
}

// The platform raises when it is out of memory.
NTSTATUS MountAttempt::InitNotify()
{
    InitializeListHead(&vcb_->NotifyList);
    if (GvGuarded([this] { FsRtlNotifyInitializeSync(&vcb_->NotifySync); })) return STATUS_SUCCESS;
    GV_TRACE_FAILED_AS("GvMount", "FsRtlNotifyInitializeSync", STATUS_INSUFFICIENT_RESOURCES);
    return STATUS_INSUFFICIENT_RESOURCES;
}

void MountAttempt::Commit()
{
    linkName_.Release();
    committed_ = true;
}

void MountAttempt::Undo()
{
    if (!vcb_) return;
    if (vcb_->WorkerCount) {
        FspStopWorkerThreads(&vcb_->StopEvent, vcb_->WorkerCount + GvReservedWorkers, vcb_->WorkerThreads);
        GvFree(vcb_->WorkerThreads);
    }
    if (vcb_->BackingFileObject) ObDereferenceObject(vcb_->BackingFileObject);
    if (resourceReady_) GvUtlDeleteResource(&vcb_->Resource, GvAllocateResource::No);
    if (vcb_->FcbTables) {
        if (const NTSTATUS status = GvFcbShutdown(vcb_->FcbTables); !NT_SUCCESS(status)) {
            GV_TRACE_FAILED_AS("GvMount", "GvFcbShutdown", status);
        }
    }
    if (vcb_->VolumeFcb) GvFcbFreeVolumeFcb(vcb_->VolumeFcb);
    UndoDevice(linkName_.Get());
}

void MountAttempt::UndoDevice(PUNICODE_STRING linkName) GV_NO_ANALYSIS
{
    GvStore(vcb_->MountState, GvUnmounting);
    if (const NTSTATUS status = IoDeleteSymbolicLink(linkName); !NT_SUCCESS(status)) {
        GV_TRACE_FAILED_AS("GvMount", "IoDeleteSymbolicLink", status);
    }
    IoDeleteDevice(*device_);
    *device_ = nullptr;
}

void SetMounted(Vcb* vcb)
{
    GvHeldSpinLock lock(vcb->PinLock);
    GvStore(vcb->MountState, GvMounted);
}

[[nodiscard]] NTSTATUS PrepareVolume(MountAttempt* attempt, PUNICODE_STRING backingPath, PUNICODE_STRING deviceName,
                                     PUNICODE_STRING securityString, const PluginOps* operations)
{
    NTSTATUS status = attempt->CreateDevice(deviceName, securityString);
    if (NT_SUCCESS(status)) status = attempt->HoldBackingObject(backingPath);
    if (NT_SUCCESS(status)) status = attempt->InitState(operations);
    if (NT_SUCCESS(status)) status = attempt->StartWorkers();
    if (NT_SUCCESS(status)) status = attempt->MakeVolumeFcb();
    if (NT_SUCCESS(status)) status = attempt->InitNotify();
    return status;
}

} // namespace

NTSTATUS NTAPI GvMount(PUNICODE_STRING backingPath, PUNICODE_STRING deviceName, PUNICODE_STRING linkName,
                       PUNICODE_STRING securityString, const PluginOps* operations, PDEVICE_OBJECT* device)
{
    if (KeGetCurrentIrql() != PASSIVE_LEVEL) return STATUS_UNSUCCESSFUL;
    if (!backingPath || !deviceName || !linkName || !operations || !device) {
        GV_TRACE(GvTraceError, "bad params\n");
        return STATUS_INVALID_PARAMETER;
    }
    if (const NTSTATUS status = GvCheckPluginOpsVersion(operations); !NT_SUCCESS(status)) {
        GV_TRACE_FAILED("GvCheckPluginOpsVersion", status);
        return status;
    }
    MountAttempt attempt(device);
    if (const NTSTATUS status = attempt.CopyLinkName(linkName); !NT_SUCCESS(status)) return status;
    if (const NTSTATUS status = PrepareVolume(&attempt, backingPath, deviceName, securityString, operations);
        !NT_SUCCESS(status)) {
        return status;
    }
    Vcb* const vcb = attempt.Vcb();
    attempt.Commit();
    ObReferenceObject(*device); // given back by the unmount request
    SetMounted(vcb);
    if (operations->OnMounted) operations->OnMounted(operations->PluginContext);
    (*device)->SectorSize = 1;
    GvUtlClearDevInitializing(*device);
    GV_TRACE(GvTraceFlow, "mounted dev: 0x%x, name: %wZ, threads: %d\n", *device, deviceName, vcb->WorkerCount);
    return STATUS_SUCCESS;
}
