// Driver objects: made by the loader, filled by DriverEntry. A major function that the driver leaves alone refuses.
#include "io/device.h"

#include <new>

namespace nthost::io {

namespace {

NTSTATUS NTAPI RefuseRequest(PDEVICE_OBJECT, PIRP irp)
{
    irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    irp->IoStatus.Information = 0;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}

void DeleteDriver(void* body)
{
    auto* const driver = static_cast<DriverBody*>(body);
    delete driver->Name;
    delete driver->ServiceName;
}

UNICODE_STRING Counted(std::u16string& text)
{
    const auto length = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    return {length, static_cast<USHORT>(length + sizeof(WCHAR)), reinterpret_cast<WCHAR*>(text.data())};
}

} // namespace

OBJECT_TYPE DriverType = {.Name = "Driver",
                          .Mapping = FileMapping,
                          .ValidAccess = STANDARD_RIGHTS_ALL,
                          .UsesDispatcherHeader = false,
                          .WaitOffset = 0,
                          .Close = nullptr,
                          .Delete = DeleteDriver,
                          .Live = 0};

NTSTATUS NewDriverObject(const std::u16string& name, PDRIVER_OBJECT* driver)
{
    auto* const body = static_cast<DriverBody*>(ob::CreateObject(&DriverType, sizeof(DriverBody)));
    if (!body) return STATUS_INSUFFICIENT_RESOURCES;
    body->Name = new std::u16string(u"\\Driver\\" + name);
    body->ServiceName = new std::u16string(name);
    PDRIVER_OBJECT const object = &body->Driver;
    object->Type = IO_TYPE_DRIVER;
    object->Size = sizeof(DRIVER_OBJECT);
    object->DriverExtension = &body->Extension;
    object->DriverName = Counted(*body->Name);
    for (PDRIVER_DISPATCH& routine : object->MajorFunction) routine = RefuseRequest;
    body->Extension.DriverObject = object;
    body->Extension.ServiceKeyName = Counted(*body->ServiceName);

    const NTSTATUS status = ob::InsertName(&object->DriverName, object);
    if (NT_SUCCESS(status))
        *driver = object;
    else
        ObDereferenceObject(object);
    return status;
}

} // namespace nthost::io

POBJECT_TYPE IoDriverObjectType = &nthost::io::DriverType;
