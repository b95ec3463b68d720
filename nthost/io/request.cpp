// Building and issuing a service's request. The references it takes on the way pass to the record when it is sent
// asynchronously; a request that is waited for keeps its file object until Issue has returned.
#include "io/request.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include <nthost/faults.h>

#include "io/completion_port.h"
#include "io/file.h"
#include "io/finish.h"
#include "io/outstanding.h"
#include "ke/thread.h"
#include "ke/guarded.h"
#include "ob/capture.h"
#include "ob/handle.h"

namespace nthost::io {

void* NewSystemBuffer(size_t size) { return FaultInjected("ExAllocatePoolWithQuotaTag") ? nullptr : malloc(size); }

IrpRecord* NewFileIrp(PFILE_OBJECT file, PDEVICE_OBJECT device, UCHAR major, ULONG flags)
{
    PIRP const irp = IoAllocateIrp(device->StackSize, FALSE);
    if (!irp) return nullptr;
    _ETHREAD* const thread = ke::CurrentThread();
    IrpRecord* const record = RecordOf(irp);
    record->How = Issue::Waited;
    record->Requestor = thread->ActsFor;
    irp->Flags = flags;
    irp->RequestorMode = KernelMode;
    irp->Tail.Overlay.Thread = thread;
    irp->Tail.Overlay.OriginalFileObject = file;
    PIO_STACK_LOCATION const location = IoGetNextIrpStackLocation(irp);
    location->MajorFunction = major;
    location->FileObject = file;
    return record;
}

Request::~Request()
{
    if (record_) {
        FreeBuffers(Irp());
        IoFreeIrp(Irp());
    }
    if (event_) ObDereferenceObject(event_);
    if (fileLocked_) UnlockFileObject(file_);
    if (file_) ObDereferenceObject(file_);
}

NTSTATUS Request::ReferenceEvent(HANDLE event)
{
    if (!event) return STATUS_SUCCESS;
    void* object;
    const NTSTATUS status =
        ob::ReferenceObjectByHandle(event, EVENT_MODIFY_STATE, ExEventObjectType, mode_, &object, nullptr);
    if (NT_SUCCESS(status)) event_ = static_cast<PKEVENT>(object);
    return status;
}

NTSTATUS Request::Open(const ServiceCaller& caller, HANDLE file, ACCESS_MASK access, Service service)
{
    mode_ = caller.Mode;
    service_ = service;
    statusBlock_ = caller.StatusBlock;
    apcRoutine_ = caller.ApcRoutine;
    apcContext_ = caller.ApcContext;
    NTSTATUS status = ob::ProbeUser(statusBlock_, mode_);
    if (!NT_SUCCESS(status)) return status;

    void* object;
    OBJECT_HANDLE_INFORMATION information;
    status = ob::ReferenceObjectByHandle(file, access, IoFileObjectType, mode_, &object, &information);
    if (!NT_SUCCESS(status)) return status;
    file_ = static_cast<PFILE_OBJECT>(object);
    granted_ = information.GrantedAccess;
    device_ = IoGetRelatedDeviceObject(file_);
    // One of the two would never be told.
    if (mode_ != KernelMode && apcRoutine_ && PortOf(file_)) return STATUS_INVALID_PARAMETER;
    return ReferenceEvent(caller.Event);
}

NTSTATUS Request::RequireAny(ACCESS_MASK access) const
{
    return mode_ == KernelMode || (granted_ & access) ? STATUS_SUCCESS : STATUS_ACCESS_DENIED;
}

void Request::LockFile()
{
    if (fileLocked_ || !HasFlag(file_, FO_SYNCHRONOUS_IO)) return;
    LockFileObject(file_);
    fileLocked_ = true;
}

NTSTATUS Request::EndFast(const IO_STATUS_BLOCK& result)
{
    result_ = result;
    const NTSTATUS written = ob::WriteUser(statusBlock_, result, mode_);
    if (event_ && !HasFlag(file_, FO_SKIP_SET_FAST_IO)) KeSetEvent(event_, IO_NO_INCREMENT, FALSE);
    if (const auto* const port = PortOf(file_); port && apcContext_ && TellsPort(file_, result.Status, Inline::Yes))
        (void)PostPacket(static_cast<CompletionPort*>(port->Port), port->Key, apcContext_, result);
    return NT_SUCCESS(written) ? result.Status : written;
}

NTSTATUS Request::Build(UCHAR major, UCHAR minor)
{
    const bool synchronousFile = HasFlag(file_, FO_SYNCHRONOUS_IO);
    LockFile();
    if (event_) KeClearEvent(event_);
    const bool waitsApart = service_ == Service::AlwaysWaits && !synchronousFile;
    if (!waitsApart) KeClearEvent(&file_->Event);

    record_ = NewFileIrp(file_, device_, major, waitsApart ? IRP_SYNCHRONOUS_API : 0);
    if (!record_) return STATUS_INSUFFICIENT_RESOURCES;
    record_->How = Waits() ? Issue::Waited : Issue::Asynchronous;
    record_->File = file_;
    PIRP const irp = Irp();
    irp->RequestorMode = mode_;
    irp->UserIosb = statusBlock_;
    irp->UserEvent = event_;
    irp->Overlay.AsynchronousParameters.UserApcRoutine = apcRoutine_;
    irp->Overlay.AsynchronousParameters.UserApcContext = apcContext_;
    Location()->MinorFunction = minor;
    return STATUS_SUCCESS;
}

NTSTATUS Request::Buffered(const void* input, ULONG inputLength, void* output, ULONG outputLength)
{
    PIRP const irp = Irp();
    irp->UserBuffer = output;
    record_->OutputLength = outputLength;
    const ULONG size = std::max(inputLength, outputLength);
    if (size == 0) return STATUS_SUCCESS;
    void* const buffer = NewSystemBuffer(size);
    if (!buffer) return STATUS_INSUFFICIENT_RESOURCES;
    irp->AssociatedIrp.SystemBuffer = buffer;
    irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER | (outputLength ? IRP_INPUT_OPERATION : 0);
    return inputLength ? ob::CopyFromUser(buffer, input, inputLength, 1, mode_) : STATUS_SUCCESS;
}

NTSTATUS Request::Direct(void* buffer, ULONG length, LOCK_OPERATION operation)
{
    if (length == 0) return STATUS_SUCCESS;
    PMDL const mdl = IoAllocateMdl(buffer, length, FALSE, TRUE, Irp());
    if (!mdl) return STATUS_INSUFFICIENT_RESOURCES;
    return ke::Guarded([&] { MmProbeAndLockPages(mdl, mode_, operation); });
}

NTSTATUS Request::Output(void* buffer, ULONG length)
{
    if (device_->Flags & DO_BUFFERED_IO) return Buffered(nullptr, 0, buffer, length);
    Neither(buffer);
    return device_->Flags & DO_DIRECT_IO ? Direct(buffer, length, IoWriteAccess) : STATUS_SUCCESS;
}

NTSTATUS Request::Input(void* buffer, ULONG length)
{
    if (device_->Flags & DO_BUFFERED_IO) return Buffered(buffer, length, nullptr, 0);
    Neither(buffer);
    return device_->Flags & DO_DIRECT_IO ? Direct(buffer, length, IoReadAccess) : STATUS_SUCCESS;
}

NTSTATUS Request::Issue()
{
    IrpRecord* const record = std::exchange(record_, nullptr);
    event_ = nullptr; // the record's now
    if (record->How == Issue::Asynchronous) file_ = nullptr;
    Enlist(record);
    return SendRequest(device_, record, &result_);
}

} // namespace nthost::io
