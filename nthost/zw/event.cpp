// Event objects and the services on them. An event's state is the wait core's; here are its handles and names. A named
// event keeps its name as long as a handle is open.
#include "ob/service.h"
#include "ob/handle.h"
#include "ob/capture.h"
#include "ob/named.h"

namespace nthost::zw {

namespace {

OBJECT_TYPE g_eventType{.Name = "Event",
                        .Mapping = {STANDARD_RIGHTS_READ | EVENT_QUERY_STATE,
                                    STANDARD_RIGHTS_WRITE | EVENT_MODIFY_STATE, STANDARD_RIGHTS_EXECUTE | SYNCHRONIZE,
                                    EVENT_ALL_ACCESS},
                        .ValidAccess = EVENT_ALL_ACCESS,
                        .UsesDispatcherHeader = true,
                        .WaitOffset = 0,
                        .Close = ob::RemoveNameWithLastHandle,
                        .Delete = nullptr,
                        .Live = {}};

NTSTATUS CreateEvent(KPROCESSOR_MODE mode, PHANDLE handle, ACCESS_MASK desired, POBJECT_ATTRIBUTES objectAttributes,
                     EVENT_TYPE type, BOOLEAN initialState)
{
    if (const NTSTATUS status = ob::ProbeUser(handle, mode); !NT_SUCCESS(status)) return status;
    if (type != NotificationEvent && type != SynchronizationEvent) return STATUS_INVALID_PARAMETER;
    ob::CapturedAttributes attributes;
    if (const NTSTATUS status = ob::CaptureObjectAttributes(objectAttributes, mode, &attributes); !NT_SUCCESS(status))
        return status;
    // Handles on directories are not given out, so no name can be relative to one.
    if (attributes.RootDirectory) return STATUS_OBJECT_TYPE_MISMATCH;
    const ACCESS_MASK granted = ob::MapAccess(desired, &g_eventType, EVENT_ALL_ACCESS);
    if (granted & ~g_eventType.ValidAccess) return STATUS_ACCESS_DENIED;

    void* const body = ob::CreateObject(&g_eventType, sizeof(KEVENT));
    if (!body) return STATUS_INSUFFICIENT_RESOURCES;
    KeInitializeEvent(static_cast<PKEVENT>(body), type, initialState);
    return ob::NameAndReturn(body, attributes, granted, mode, handle);
}

using Change = LONG (*)(PKEVENT event);

NTSTATUS ChangeEvent(KPROCESSOR_MODE mode, HANDLE handle, PLONG previousState, Change change)
{
    if (previousState)
        if (const NTSTATUS status = ob::ProbeUser(previousState, mode); !NT_SUCCESS(status)) return status;
    void* body;
    const NTSTATUS status = ob::ReferenceObjectByHandle(handle, EVENT_MODIFY_STATE, &g_eventType, mode, &body, nullptr);
    if (!NT_SUCCESS(status)) return status;
    const LONG before = change(static_cast<PKEVENT>(body));
    ObDereferenceObject(body);
    // The event has changed by now, so a pointer that went bad meanwhile is the caller's loss.
    if (previousState) (void)ob::WriteUser(previousState, before, mode);
    return STATUS_SUCCESS;
}

LONG Set(PKEVENT event) { return KeSetEvent(event, IO_NO_INCREMENT, FALSE); }

LONG Reset(PKEVENT event) { return KeResetEvent(event); }

} // namespace

} // namespace nthost::zw

using namespace nthost::zw;

POBJECT_TYPE ExEventObjectType = &g_eventType;

NTHOST_SERVICE_PAIR(CreateEvent, CreateEvent,
                    (PHANDLE EventHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                     EVENT_TYPE EventType, BOOLEAN InitialState),
                    EventHandle, DesiredAccess, ObjectAttributes, EventType, InitialState)
NTHOST_SERVICE_PAIR(SetEvent, ChangeEvent, (HANDLE EventHandle, PLONG PreviousState), EventHandle, PreviousState, Set)
NTHOST_SERVICE_PAIR(ResetEvent, ChangeEvent, (HANDLE EventHandle, PLONG PreviousState), EventHandle, PreviousState,
                    Reset)
