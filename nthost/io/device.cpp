// Creating, opening and deleting devices. Deleting takes the name at once; the device leaves its driver's list when the
// last file object on it is gone, and its memory goes with the last pointer reference (work items in flight, for one).
#include "io/device.h"

#include <mutex>
#include <new>
#include <utility>

#include <nthost/check.h>
#include <nthost/faults.h>

#include "check/text.h"

namespace nthost::io {

namespace {

ke::WordLock g_deviceLists;

void LinkToDriver(PDRIVER_OBJECT driver, PDEVICE_OBJECT device)
{
    const std::lock_guard hold(g_deviceLists);
    device->NextDevice = driver->DeviceObject;
    driver->DeviceObject = device;
}

void UnlinkFromDriver(PDEVICE_OBJECT device)
{
    const std::lock_guard hold(g_deviceLists);
    PDEVICE_OBJECT* link = &device->DriverObject->DeviceObject;
    while (*link != device) link = &(*link)->NextDevice;
    *link = device->NextDevice;
    device->NextDevice = nullptr;
}

// Under the state's lock: whether the caller has to bring the deletion to its end.
bool TakeDeletion(PDEVICE_OBJECT device)
{
    DeviceState* const state = StateOf(device);
    if (!state->DeletePending || device->ReferenceCount != 0 || state->Unlinked) return false;
    state->Unlinked = true;
    return true;
}

void EndDeletion(PDEVICE_OBJECT device)
{
    DriverBody* const driver = BodyOf(device->DriverObject);
    ObReferenceObject(driver);
    UnlinkFromDriver(device);
    ObDereferenceObject(device);
    driver->Ended.Raise();
    ObDereferenceObject(driver);
}

bool MarkForDeletion(PDEVICE_OBJECT device)
{
    const std::lock_guard hold(StateOf(device)->Lock);
    return !std::exchange(StateOf(device)->DeletePending, true);
}

void EndDeletionIfUnused(PDEVICE_OBJECT device)
{
    bool ends;
    {
        const std::lock_guard hold(StateOf(device)->Lock);
        ends = TakeDeletion(device);
    }
    if (ends) EndDeletion(device);
}

void DeleteDevice(void* body)
{
    auto* const device = static_cast<PDEVICE_OBJECT>(body);
    DriverBody* const driver = BodyOf(device->DriverObject);
    delete StateOf(device);
    driver->LiveDevices.fetch_sub(1);
    driver->Ended.Raise();
    ObDereferenceObject(driver);
}

USHORT SectorSizeOf(DEVICE_TYPE type)
{
    return type == FILE_DEVICE_DISK || type == FILE_DEVICE_DISK_FILE_SYSTEM ? 512 : 0;
}

PDEVICE_OBJECT NewDevice(PDRIVER_OBJECT driver, ULONG extensionSize, DEVICE_TYPE type)
{
    auto* const state = new (std::nothrow) DeviceState{};
    if (!state) return nullptr;
    auto* const device =
        static_cast<PDEVICE_OBJECT>(ob::CreateObject(&DeviceType, sizeof(DEVICE_OBJECT) + extensionSize));
    if (!device) {
        delete state;
        return nullptr;
    }
    device->Type = IO_TYPE_DEVICE;
    device->Size = static_cast<USHORT>(sizeof(DEVICE_OBJECT) + extensionSize);
    device->DriverObject = driver;
    device->DeviceType = type;
    device->StackSize = 1;
    device->SectorSize = SectorSizeOf(type);
    device->DeviceExtension = extensionSize ? device + 1 : nullptr;
    device->DeviceObjectExtension = state;
    state->Security = DefaultDeviceSecurity();
    device->SecurityDescriptor = const_cast<UCHAR*>(state->Security->data());
    KeInitializeEvent(&device->DeviceLock, SynchronizationEvent, TRUE);
    ObReferenceObject(driver);
    BodyOf(driver)->LiveDevices.fetch_add(1);
    return device;
}

// A name of its own for a device whose driver does not care.
NTSTATUS NameByNumber(PDEVICE_OBJECT device)
{
    static std::atomic<ULONG> next{1};
    WCHAR buffer[sizeof("\\Device\\12345678")];
    UNICODE_STRING name = {0, sizeof buffer, buffer};
    WCHAR digits[9];
    UNICODE_STRING number = {0, sizeof digits, digits};
    NTSTATUS status = RtlIntegerToUnicodeString(next.fetch_add(1) | 0x10000000, 16, &number); // eight digits
    if (NT_SUCCESS(status)) status = RtlAppendUnicodeToString(&name, L"\\Device\\");
    if (NT_SUCCESS(status)) status = RtlAppendUnicodeStringToString(&name, &number);
    return NT_SUCCESS(status) ? ob::InsertName(&name, device) : status;
}

NTSTATUS NameDevice(PDEVICE_OBJECT device, PUNICODE_STRING name)
{
    if (!(device->Flags & DO_DEVICE_HAS_NAME)) return STATUS_SUCCESS;
    return name ? ob::InsertName(name, device) : NameByNumber(device);
}

} // namespace

OBJECT_TYPE DeviceType = {.Name = "Device",
                          .Mapping = FileMapping,
                          .ValidAccess = FILE_ALL_ACCESS,
                          .UsesDispatcherHeader = false,
                          .WaitOffset = 0,
                          .Close = nullptr,
                          .Delete = DeleteDevice,
                          .Live = 0};

NTSTATUS CountOpen(PDEVICE_OBJECT device, bool isRelative)
{
    const std::lock_guard hold(StateOf(device)->Lock);
    const ULONG flags = __atomic_load_n(&device->Flags, __ATOMIC_ACQUIRE);
    if (StateOf(device)->DeletePending || (flags & DO_DEVICE_INITIALIZING)) return STATUS_NO_SUCH_DEVICE;
    if ((flags & DO_EXCLUSIVE) && device->ReferenceCount != 0 && !isRelative) return STATUS_ACCESS_DENIED;
    ++device->ReferenceCount;
    return STATUS_SUCCESS;
}

void UncountOpen(PDEVICE_OBJECT device)
{
    bool ends;
    {
        const std::lock_guard hold(StateOf(device)->Lock);
        --device->ReferenceCount;
        ends = TakeDeletion(device);
    }
    if (ends) EndDeletion(device);
}

std::vector<PDEVICE_OBJECT> DevicesOf(PDRIVER_OBJECT driver)
{
    std::vector<PDEVICE_OBJECT> devices;
    const std::lock_guard hold(g_deviceLists);
    for (PDEVICE_OBJECT device = driver->DeviceObject; device; device = device->NextDevice) {
        ObReferenceObject(device);
        devices.push_back(device);
    }
    return devices;
}

bool IsDeletePending(PDEVICE_OBJECT device)
{
    const std::lock_guard hold(StateOf(device)->Lock);
    return StateOf(device)->DeletePending;
}

bool HasOpens(PDEVICE_OBJECT device)
{
    const std::lock_guard hold(StateOf(device)->Lock);
    return device->ReferenceCount != 0;
}

} // namespace nthost::io

using namespace nthost;
using namespace nthost::io;

POBJECT_TYPE IoDeviceObjectType = &DeviceType;

NTSTATUS NTAPI IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize, PUNICODE_STRING DeviceName,
                              DEVICE_TYPE DeviceType, ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                              PDEVICE_OBJECT* DeviceObject)
{
    *DeviceObject = nullptr;
    if (FaultInjected("IoCreateDevice")) return STATUS_INSUFFICIENT_RESOURCES;
    PDEVICE_OBJECT const device = NewDevice(DriverObject, DeviceExtensionSize, DeviceType);
    if (!device) return STATUS_INSUFFICIENT_RESOURCES;
    device->Characteristics = DeviceCharacteristics;
    const bool hasName = DeviceName || (DeviceCharacteristics & FILE_AUTOGENERATED_DEVICE_NAME);
    device->Flags = DO_DEVICE_INITIALIZING | (Exclusive ? DO_EXCLUSIVE : 0) | (hasName ? DO_DEVICE_HAS_NAME : 0);
    if (const NTSTATUS status = NameDevice(device, DeviceName); !NT_SUCCESS(status)) {
        ObDereferenceObject(device);
        return status;
    }
    LinkToDriver(DriverObject, device);
    *DeviceObject = device;
    return STATUS_SUCCESS;
}

VOID NTAPI IoDeleteDevice(PDEVICE_OBJECT DeviceObject)
{
    ObReferenceObject(DeviceObject); // the last close may come meanwhile
    if (MarkForDeletion(DeviceObject)) {
        ob::RemoveName(DeviceObject);
        EndDeletionIfUnused(DeviceObject);
    } else {
        ReportFinding("device-deleted-twice", "device " + HexText(DeviceObject));
    }
    ObDereferenceObject(DeviceObject);
}

NTSTATUS NTAPI IoCreateSymbolicLink(PUNICODE_STRING SymbolicLinkName, PUNICODE_STRING DeviceName)
{
    if (FaultInjected("IoCreateSymbolicLink")) return STATUS_INSUFFICIENT_RESOURCES;
    return ob::CreateSymbolicLink(SymbolicLinkName, DeviceName);
}

NTSTATUS NTAPI IoDeleteSymbolicLink(PUNICODE_STRING SymbolicLinkName)
{
    if (FaultInjected("IoDeleteSymbolicLink")) return STATUS_INSUFFICIENT_RESOURCES;
    return ob::DeleteSymbolicLink(SymbolicLinkName);
}
