// Completion ports. A semaphore counts the packets, so that each wakes one thread, first come, first served; an event
// beside it is what a wait for the port's handle waits for, and takes nothing. The port's lock guards its queue and is
// held while the two are changed, never while a packet is released.
#include "io/completion_port.h"

#include <algorithm>
#include <cstddef>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "ob/service.h"
#include "io/file.h"
#include "ke/word_lock.h"
#include "ob/handle.h"
#include "ob/object.h"
#include "ob/capture.h"
#include "ob/named.h"

namespace nthost::io {

struct CompletionPort {
    KEVENT NotEmpty; // signalled while there are packets
    KSEMAPHORE Packets;
    KEVENT Closed; // the last handle is
    ke::WordLock Lock;
    LIST_ENTRY Queue;
};

namespace {

struct OwnPacket {
    CompletionPacket Packet;
};

void ReleaseOwn(CompletionPacket* packet) { delete CONTAINING_RECORD(packet, OwnPacket, Packet); }

// Of a packet that the semaphore has promised.
PacketContent Take(CompletionPort* port)
{
    CompletionPacket* packet;
    {
        const std::lock_guard hold(port->Lock);
        packet = CONTAINING_RECORD(RemoveHeadList(&port->Queue), CompletionPacket, Link);
        if (IsListEmpty(&port->Queue)) KeResetEvent(&port->NotEmpty);
    }
    const PacketContent content = packet->Content;
    packet->Release(packet);
    return content;
}

void ClosePort(PEPROCESS process, void* body, ACCESS_MASK granted, ULONG processRemaining, ULONG remaining)
{
    if (remaining == 0) KeSetEvent(&static_cast<CompletionPort*>(body)->Closed, IO_NO_INCREMENT, FALSE);
    ob::RemoveNameWithLastHandle(process, body, granted, processRemaining, remaining);
}

void DeletePort(void* body)
{
    auto* const port = static_cast<CompletionPort*>(body);
    while (!IsListEmpty(&port->Queue)) (void)Take(port);
}

OBJECT_TYPE g_portType{.Name = "IoCompletion",
                       .Mapping = {STANDARD_RIGHTS_READ | IO_COMPLETION_QUERY_STATE,
                                   STANDARD_RIGHTS_WRITE | IO_COMPLETION_MODIFY_STATE,
                                   STANDARD_RIGHTS_EXECUTE | SYNCHRONIZE, IO_COMPLETION_ALL_ACCESS},
                       .ValidAccess = IO_COMPLETION_ALL_ACCESS,
                       .UsesDispatcherHeader = true,
                       .WaitOffset = offsetof(CompletionPort, NotEmpty),
                       .Close = ClosePort,
                       .Delete = DeletePort,
                       .Live = {}};

CompletionPort* NewPort()
{
    void* const body = ob::CreateObject(&g_portType, sizeof(CompletionPort));
    if (!body) return nullptr;
    auto* const port = new (body) CompletionPort{};
    KeInitializeEvent(&port->NotEmpty, NotificationEvent, FALSE);
    KeInitializeSemaphore(&port->Packets, 0, INT32_MAX);
    KeInitializeEvent(&port->Closed, NotificationEvent, FALSE);
    InitializeListHead(&port->Queue);
    return port;
}

NTSTATUS CreatePort(KPROCESSOR_MODE mode, PHANDLE handle, ACCESS_MASK desired, POBJECT_ATTRIBUTES objectAttributes,
                    ULONG)
{
    if (const NTSTATUS status = ob::ProbeUser(handle, mode); !NT_SUCCESS(status)) return status;
    ob::CapturedAttributes attributes;
    if (const NTSTATUS status = ob::CaptureObjectAttributes(objectAttributes, mode, &attributes); !NT_SUCCESS(status))
        return status;
    // Handles on directories are not given out, so no name can be relative to one.
    if (attributes.RootDirectory) return STATUS_OBJECT_TYPE_MISMATCH;
    const ACCESS_MASK granted = ob::MapAccess(desired, &g_portType, IO_COMPLETION_ALL_ACCESS);
    if (granted & ~g_portType.ValidAccess) return STATUS_ACCESS_DENIED;
    CompletionPort* const port = NewPort();
    if (!port) return STATUS_INSUFFICIENT_RESOURCES;
    return ob::NameAndReturn(port, attributes, granted, mode, handle);
}

// A port by its handle, referenced while this lives.
class PortReference {
public:
    PortReference() = default;
    ~PortReference()
    {
        if (port_) ObDereferenceObject(port_);
    }
    PortReference(const PortReference&) = delete;
    PortReference& operator=(const PortReference&) = delete;

    [[nodiscard]] NTSTATUS Open(HANDLE handle, KPROCESSOR_MODE mode)
    {
        void* body;
        const NTSTATUS status =
            ob::ReferenceObjectByHandle(handle, IO_COMPLETION_MODIFY_STATE, &g_portType, mode, &body, nullptr);
        if (NT_SUCCESS(status)) port_ = static_cast<CompletionPort*>(body);
        return status;
    }
    CompletionPort* operator->() const { return port_; }
    CompletionPort* Get() const { return port_; }
    CompletionPort* Keep() { return std::exchange(port_, nullptr); }

private:
    CompletionPort* port_ = nullptr;
};

NTSTATUS SetCompletion(KPROCESSOR_MODE mode, HANDLE handle, PVOID key, PVOID context, NTSTATUS status,
                       ULONG_PTR information)
{
    PortReference port;
    const NTSTATUS opened = port.Open(handle, mode);
    return NT_SUCCESS(opened) ? PostPacket(port.Get(), key, context, {{status}, information}) : opened;
}

// STATUS_SUCCESS: a packet is this thread's to take. Packets come before the news that the port was closed.
NTSTATUS AwaitPacket(CompletionPort* port, KPROCESSOR_MODE mode, BOOLEAN alertable, PLARGE_INTEGER timeout)
{
    PVOID objects[] = {&port->Packets, &port->Closed};
    const NTSTATUS status =
        KeWaitForMultipleObjects(2, objects, WaitAny, UserRequest, mode, alertable, timeout, nullptr);
    return status == STATUS_WAIT_0 + 1 ? STATUS_ABANDONED_WAIT_0 : status;
}

NTSTATUS CaptureTimeout(PLARGE_INTEGER from, LARGE_INTEGER* value, PLARGE_INTEGER* timeout, KPROCESSOR_MODE mode)
{
    *timeout = from ? value : nullptr;
    return from ? ob::ReadUser(from, value, mode) : STATUS_SUCCESS;
}

NTSTATUS Remove(KPROCESSOR_MODE mode, HANDLE handle, PVOID* key, PVOID* context, PIO_STATUS_BLOCK statusBlock,
                PLARGE_INTEGER userTimeout)
{
    LARGE_INTEGER value;
    PLARGE_INTEGER timeout;
    NTSTATUS status = ob::ProbeUser(key, mode);
    if (NT_SUCCESS(status)) status = ob::ProbeUser(context, mode);
    if (NT_SUCCESS(status)) status = ob::ProbeUser(statusBlock, mode);
    if (NT_SUCCESS(status)) status = CaptureTimeout(userTimeout, &value, &timeout, mode);
    if (!NT_SUCCESS(status)) return status;
    PortReference port;
    if (status = port.Open(handle, mode); !NT_SUCCESS(status)) return status;
    if (status = AwaitPacket(port.Get(), mode, FALSE, timeout); status != STATUS_SUCCESS) return status;
    const PacketContent content = Take(port.Get());
    status = ob::WriteUser(key, content.Key, mode);
    if (NT_SUCCESS(status)) status = ob::WriteUser(context, content.Context, mode);
    return NT_SUCCESS(status) ? ob::WriteUser(statusBlock, content.Status, mode) : status;
}

// After the first: what is there without waiting.
std::vector<FILE_IO_COMPLETION_INFORMATION> TakeUpTo(CompletionPort* port, ULONG count)
{
    std::vector<FILE_IO_COMPLETION_INFORMATION> taken;
    LARGE_INTEGER now{};
    do {
        const PacketContent content = Take(port);
        taken.push_back({content.Key, content.Context, content.Status});
    } while (taken.size() < count && AwaitPacket(port, KernelMode, FALSE, &now) == STATUS_SUCCESS);
    return taken;
}

NTSTATUS RemoveSome(KPROCESSOR_MODE mode, HANDLE handle, PFILE_IO_COMPLETION_INFORMATION entries, ULONG count,
                    PULONG removed, PLARGE_INTEGER userTimeout, BOOLEAN alertable)
{
    constexpr ULONG Most = 0x10000000 / sizeof *entries;
    if (count == 0 || count > Most) return STATUS_INVALID_PARAMETER;
    LARGE_INTEGER value;
    PLARGE_INTEGER timeout;
    NTSTATUS status = ob::ProbeUserForWrite(entries, count * sizeof *entries, 4, mode);
    if (NT_SUCCESS(status)) status = ob::ProbeUser(removed, mode);
    if (NT_SUCCESS(status)) status = CaptureTimeout(userTimeout, &value, &timeout, mode);
    if (!NT_SUCCESS(status)) return status;
    PortReference port;
    if (status = port.Open(handle, mode); !NT_SUCCESS(status)) return status;
    if (status = AwaitPacket(port.Get(), mode, alertable, timeout); status != STATUS_SUCCESS) return status;
    const auto taken = TakeUpTo(port.Get(), count);
    status = ob::CopyToUser(entries, taken.data(), taken.size() * sizeof *entries, 4, mode);
    return NT_SUCCESS(status) ? ob::WriteUser(removed, static_cast<ULONG>(taken.size()), mode) : status;
}

} // namespace

void QueuePacket(CompletionPort* port, CompletionPacket* packet)
{
    const std::lock_guard hold(port->Lock);
    InsertTailList(&port->Queue, &packet->Link);
    KeSetEvent(&port->NotEmpty, IO_NO_INCREMENT, FALSE);
    KeReleaseSemaphore(&port->Packets, IO_NO_INCREMENT, 1, FALSE);
}

NTSTATUS PostPacket(CompletionPort* port, PVOID key, PVOID context, const IO_STATUS_BLOCK& status)
{
    auto* const own = new (std::nothrow) OwnPacket{{{}, {key, context, status}, ReleaseOwn}};
    if (!own) return STATUS_INSUFFICIENT_RESOURCES;
    QueuePacket(port, &own->Packet);
    return STATUS_SUCCESS;
}

const IO_COMPLETION_CONTEXT* PortOf(PFILE_OBJECT file)
{
    return __atomic_load_n(&file->CompletionContext, __ATOMIC_ACQUIRE);
}

NTSTATUS BindPort(PFILE_OBJECT file, const FILE_COMPLETION_INFORMATION& binding, KPROCESSOR_MODE mode)
{
    if (HasFlag(file, FO_SYNCHRONOUS_IO)) return STATUS_INVALID_PARAMETER;
    PortReference port;
    if (const NTSTATUS status = port.Open(binding.Port, mode); !NT_SUCCESS(status)) return status;
    auto* const context = new (std::nothrow) IO_COMPLETION_CONTEXT{port.Get(), binding.Key};
    if (!context) return STATUS_INSUFFICIENT_RESOURCES;
    PIO_COMPLETION_CONTEXT none = nullptr;
    if (!__atomic_compare_exchange_n(&file->CompletionContext, &none, context, false, __ATOMIC_ACQ_REL,
                                     __ATOMIC_ACQUIRE)) {
        delete context;
        return STATUS_INVALID_PARAMETER;
    }
    (void)port.Keep(); // the file object's now
    return STATUS_SUCCESS;
}

void UnbindPort(PFILE_OBJECT file)
{
    PIO_COMPLETION_CONTEXT const context = file->CompletionContext;
    if (!context) return;
    ObDereferenceObject(context->Port);
    delete context;
}

bool TellsPort(PFILE_OBJECT file, NTSTATUS status, Inline how)
{
    if (how == Inline::No) return true;
    if (NT_ERROR(status)) return false;
    return !(NT_SUCCESS(status) && HasFlag(file, FO_SKIP_COMPLETION_PORT));
}

} // namespace nthost::io

NTHOST_SERVICE_PAIR(CreateIoCompletion, nthost::io::CreatePort,
                    (PHANDLE IoCompletionHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                     ULONG Count),
                    IoCompletionHandle, DesiredAccess, ObjectAttributes, Count)
NTHOST_SERVICE_PAIR(SetIoCompletion, nthost::io::SetCompletion,
                    (HANDLE IoCompletionHandle, PVOID KeyContext, PVOID ApcContext, NTSTATUS IoStatus,
                     ULONG_PTR IoStatusInformation),
                    IoCompletionHandle, KeyContext, ApcContext, IoStatus, IoStatusInformation)
NTHOST_SERVICE_PAIR(RemoveIoCompletion, nthost::io::Remove,
                    (HANDLE IoCompletionHandle, PVOID* KeyContext, PVOID* ApcContext, PIO_STATUS_BLOCK IoStatusBlock,
                     PLARGE_INTEGER Timeout),
                    IoCompletionHandle, KeyContext, ApcContext, IoStatusBlock, Timeout)
NTHOST_SERVICE_PAIR(RemoveIoCompletionEx, nthost::io::RemoveSome,
                    (HANDLE IoCompletionHandle, PFILE_IO_COMPLETION_INFORMATION IoCompletionInformation, ULONG Count,
                     PULONG NumEntriesRemoved, PLARGE_INTEGER Timeout, BOOLEAN Alertable),
                    IoCompletionHandle, IoCompletionInformation, Count, NumEntriesRemoved, Timeout, Alertable)
