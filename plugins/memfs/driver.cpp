// The kernel service: makes a volume, fetches the service table from the control device, mounts, and unmounts when it
// is unloaded. The list of instances has a lock of its own; in the kernel it has one entry, in a process that hosts
// several services from this code there are more.

#include "locks.h"
#include <gvnd/memfs.h>
#include "settings.h"

namespace memfs {
namespace {

struct Instance {
    Instance* Next;
    PDRIVER_OBJECT Driver;
    const GvServices* Services;
    PluginOps* Ops;
    PDEVICE_OBJECT Device;
};

KSPIN_LOCK InstancesLock; // zero is a free lock
Instance* Instances;

void AddInstance(Instance* instance)
{
    SpinLock lock(InstancesLock);
    instance->Next = Instances;
    Instances = instance;
}

Instance* TakeInstance(PDRIVER_OBJECT driver)
{
    SpinLock lock(InstancesLock);
    Instance** link = &Instances;
    while (*link && (*link)->Driver != driver) link = &(*link)->Next;
    Instance* const found = *link;
    if (found) *link = found->Next;
    return found;
}

NTSTATUS OpenControlDevice(HANDLE* device)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, GVND_CONTROL_DEVICE_NAME);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    IO_STATUS_BLOCK status;
    return ZwCreateFile(device, FILE_READ_DATA | FILE_WRITE_DATA | SYNCHRONIZE, &attributes, &status, nullptr, 0,
                        FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
}

// The table outlives the handle.
NTSTATUS FetchServices(const GvServices** services)
{
    HANDLE device;
    if (const NTSTATUS status = OpenControlDevice(&device); !NT_SUCCESS(status)) return status;
    IO_STATUS_BLOCK result;
    const NTSTATUS status =
        ZwDeviceIoControlFile(device, nullptr, nullptr, nullptr, &result, IOCTL_GVND_GET_SERVICE_TABLE, nullptr, 0,
                              services, sizeof(*services));
    ZwClose(device);
    return status;
}

NTSTATUS CreateVolume(Settings& settings, PluginOps** ops)
{
    MemFsOptions options = {};
    options.CapacityBytes = settings.Capacity;
    options.Label = settings.Label.Get();
    return MemFsCreate(&options, ops);
}

NTSTATUS Mount(Settings& settings, Instance* instance)
{
    if (const NTSTATUS status = FetchServices(&instance->Services); !NT_SUCCESS(status)) return status;
    if (const NTSTATUS status = CreateVolume(settings, &instance->Ops); !NT_SUCCESS(status)) return status;
    const NTSTATUS status =
        instance->Services->Mount(settings.BackingPath.Get(), settings.DeviceName.Get(), settings.LinkName.Get(),
                                  settings.Sddl.Get(), instance->Ops, &instance->Device);
    if (!NT_SUCCESS(status)) MemFsDestroy(instance->Ops);
    return status;
}

// The volume goes when its last file is closed, and its table and this code are in use until then: so the unload waits.
VOID NTAPI Unload(PDRIVER_OBJECT driver)
{
    Instance* const instance = TakeInstance(driver);
    (void)instance->Services->UnmountRequest(instance->Device); // can only refuse above PASSIVE_LEVEL
    MemFsWaitUntilUnmounted(instance->Ops);
    MemFsDestroy(instance->Ops);
    Free(instance);
}

} // namespace
} // namespace memfs

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath)
{
    using namespace memfs;
    Settings settings;
    if (const NTSTATUS status = ReadSettings(registryPath, &settings); !NT_SUCCESS(status)) return status;
    Block<Instance> instance(Allocate<Instance>(NonPagedPoolNx));
    if (!instance) return STATUS_INSUFFICIENT_RESOURCES;
    instance->Driver = driver;
    if (const NTSTATUS status = Mount(settings, instance.Get()); !NT_SUCCESS(status)) return status;
    driver->DriverUnload = Unload;
    AddInstance(instance.Release());
    return STATUS_SUCCESS;
}
