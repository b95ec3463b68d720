// The one life of a service's request: the caller's handle and event are taken, the packet is built, buffers are
// attached by method, it is sent and waited for. A service fills the stack location between Build and Issue; whatever
// fails on the way is undone by the destructor.
#pragma once

#include <ntifs.h>

#include "io/file.h"
#include "io/irp.h"

namespace nthost::io {

// What a service's caller gives along with the request itself.
struct ServiceCaller {
    KPROCESSOR_MODE Mode;
    PIO_STATUS_BLOCK StatusBlock;
    HANDLE Event = nullptr;
    PIO_APC_ROUTINE ApcRoutine = nullptr;
    PVOID ApcContext = nullptr;
};

// Whether the service itself waits, whatever the file object was opened for.
enum class Service { Asynchronous, AlwaysWaits };

class Request {
public:
    Request() = default;
    ~Request();
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    // Probes the status block and references file and event. The handle must have all of `access`; a service with
    // another rule asks Granted. STATUS_INVALID_PARAMETER for a user-mode caller's APC on a file object with a port.
    [[nodiscard]] NTSTATUS Open(const ServiceCaller& caller, HANDLE file, ACCESS_MASK access, Service service);
    PFILE_OBJECT File() const { return file_; }
    PDEVICE_OBJECT Device() const { return device_; }
    ACCESS_MASK Granted() const { return granted_; }
    // For rights of which one is enough; kernel-mode callers need none.
    [[nodiscard]] NTSTATUS RequireAny(ACCESS_MASK access) const;

    // --- fast I/O, between Open and Build. An APC that was asked for needs a packet to come with.
    bool MayBeFast() const { return !apcRoutine_; }
    // For a file object for synchronous I/O; Build does it too.
    void LockFile();
    // The driver has done it without a packet: tells the caller. The service's status.
    [[nodiscard]] NTSTATUS EndFast(const IO_STATUS_BLOCK& result);

    // Takes the file object's lock if it is for synchronous I/O, clears the events, makes the packet.
    [[nodiscard]] NTSTATUS Build(UCHAR major, UCHAR minor = 0);
    PIRP Irp() const { return &record_->Irp; }
    PIO_STACK_LOCATION Location() const { return IoGetNextIrpStackLocation(Irp()); }

    // The input in a system buffer that is also the output's, copied back at the end: no more than Information, and not
    // on an error. Either may be empty.
    [[nodiscard]] NTSTATUS Buffered(const void* input, ULONG inputLength, void* output, ULONG outputLength);
    // The caller's pages, locked.
    [[nodiscard]] NTSTATUS Direct(void* buffer, ULONG length, LOCK_OPERATION operation);
    // The caller's address as it is.
    void Neither(void* buffer) { Irp()->UserBuffer = buffer; }
    // What the driver fills, or reads, by the way that its device asks for.
    [[nodiscard]] NTSTATUS Output(void* buffer, ULONG length);
    [[nodiscard]] NTSTATUS Input(void* buffer, ULONG length);

    // The service's status: the request's own, or STATUS_PENDING if it is asynchronous and still out.
    NTSTATUS Issue();
    // Of an issued request that was waited for.
    const IO_STATUS_BLOCK& Result() const { return result_; }

private:
    [[nodiscard]] NTSTATUS ReferenceEvent(HANDLE event);
    bool Waits() const { return service_ == Service::AlwaysWaits || HasFlag(file_, FO_SYNCHRONOUS_IO); }

    KPROCESSOR_MODE mode_ = KernelMode;
    Service service_ = Service::AlwaysWaits;
    PIO_STATUS_BLOCK statusBlock_ = nullptr;
    PIO_APC_ROUTINE apcRoutine_ = nullptr;
    PVOID apcContext_ = nullptr;
    PFILE_OBJECT file_ = nullptr;
    PDEVICE_OBJECT device_ = nullptr;
    ACCESS_MASK granted_ = 0;
    PKEVENT event_ = nullptr;
    IrpRecord* record_ = nullptr;
    IO_STATUS_BLOCK result_{};
    bool fileLocked_ = false;
};

// Memory that goes with a request: a system buffer, or what a service captured for the request's whole life. Given back
// by free, and so by the request's end. Null without memory.
void* NewSystemBuffer(size_t size);

// A packet for the device with its first location filled in, waited for by its issuer and made in kernel mode for the
// current thread: the base of every request on a file object. Null without memory.
IrpRecord* NewFileIrp(PFILE_OBJECT file, PDEVICE_OBJECT device, UCHAR major, ULONG flags);

} // namespace nthost::io
