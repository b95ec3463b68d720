// The machine's own devices: \Device\Null, and \Device\Host, whose paths are files and directories of the Linux machine
// (they can be opened to keep a reference, and nothing else). They exist from boot to shutdown.
#include "host/builtin.h"

#include <string>

#include <sys/stat.h>

#include <nthost/debug.h>

#include "check/fatal.h"
#include "io/device.h"
#include "ob/object.h"

namespace nthost::host {

namespace {

PDRIVER_OBJECT g_driver;
PDEVICE_OBJECT g_host;

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS FindHostPath(PFILE_OBJECT file)
{
    std::string path = ToUtf8(&file->FileName);
    for (char& c : path)
        if (c == '\\') c = '/';
    if (path.empty()) return STATUS_SUCCESS;
    struct stat info;
    if (stat(path.c_str(), &info) == 0) return STATUS_SUCCESS;
    switch (errno) {
    case ENOENT: return STATUS_OBJECT_NAME_NOT_FOUND;
    case ENOTDIR: return STATUS_OBJECT_PATH_NOT_FOUND;
    case EACCES: return STATUS_ACCESS_DENIED;
    default: return STATUS_UNSUCCESSFUL;
    }
}

NTSTATUS NTAPI Create(PDEVICE_OBJECT device, PIRP irp)
{
    PIO_STACK_LOCATION const location = IoGetCurrentIrpStackLocation(irp);
    const ULONG disposition = location->Parameters.Create.Options >> 24;
    if (disposition != FILE_OPEN && disposition != FILE_OPEN_IF) return Complete(irp, STATUS_ACCESS_DENIED);
    if (device != g_host) {
        const bool named = location->FileObject->FileName.Length != 0;
        return Complete(irp, named ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_SUCCESS, FILE_OPENED);
    }
    return Complete(irp, FindHostPath(location->FileObject), FILE_OPENED);
}

NTSTATUS NTAPI End(PDEVICE_OBJECT, PIRP irp) { return Complete(irp, STATUS_SUCCESS); }

NTSTATUS NTAPI Read(PDEVICE_OBJECT device, PIRP irp)
{
    return Complete(irp, device == g_host ? STATUS_INVALID_DEVICE_REQUEST : STATUS_END_OF_FILE);
}

NTSTATUS NTAPI Write(PDEVICE_OBJECT device, PIRP irp)
{
    if (device == g_host) return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    return Complete(irp, STATUS_SUCCESS, IoGetCurrentIrpStackLocation(irp)->Parameters.Write.Length);
}

PDEVICE_OBJECT MakeDevice(const char16_t* name, DEVICE_TYPE type)
{
    std::u16string text = name;
    const auto length = static_cast<USHORT>(text.size() * sizeof(char16_t));
    UNICODE_STRING path = {length, length, reinterpret_cast<PWCH>(text.data())};
    PDEVICE_OBJECT device = nullptr;
    if (!NT_SUCCESS(IoCreateDevice(g_driver, 0, &path, type, 0, FALSE, &device))) Fatal("no built-in devices");
    device->Flags &= ~DO_DEVICE_INITIALIZING;
    return device;
}

} // namespace

void MakeBuiltinDevices()
{
    if (!NT_SUCCESS(io::NewDriverObject(u"nthost", &g_driver))) Fatal("no driver object for the built-in devices");
    g_driver->MajorFunction[IRP_MJ_CREATE] = Create;
    g_driver->MajorFunction[IRP_MJ_CLEANUP] = End;
    g_driver->MajorFunction[IRP_MJ_CLOSE] = End;
    g_driver->MajorFunction[IRP_MJ_READ] = Read;
    g_driver->MajorFunction[IRP_MJ_WRITE] = Write;
    MakeDevice(u"\\Device\\Null", FILE_DEVICE_NULL);
    g_host = MakeDevice(u"\\Device\\Host", FILE_DEVICE_UNKNOWN);
}

void RemoveBuiltinDevices()
{
    while (g_driver->DeviceObject) IoDeleteDevice(g_driver->DeviceObject);
    ob::RemoveName(g_driver);
    ObDereferenceObject(g_driver);
    g_driver = nullptr;
    g_host = nullptr;
}

} // namespace nthost::host
