// Loading and unloading of drivers: those that are linked into this process, and images. The list of loaded drivers has
// one lock, which is not held while a driver runs: an entry routine may well load nothing, but it may call into other
// drivers.
#include <mutex>
#include <utility>

#include <nthost/check.h>
#include <nthost/debug.h>
#include <nthost/host.h>
#include <nthost/image.h>
#include <nthost/pool.h>
#include <nthost/process.h>
#include <nthost/registry.h>
#include <nthost/sections.h>

#include "ke/callout.h"
#include "host/leftovers.h"
#include "host/loader.h"
#include "image/load.h"
#include "io/device.h"
#include "io/manager.h"
#include "ob/object.h"

namespace nthost {

namespace {

using host::Departure;
using host::LoadedDriver;

std::mutex g_lock;
std::vector<LoadedDriver> g_loaded;
uint64_t g_poolBefore; // before the first of them came

std::string ServiceKey(const std::string& name)
{
    return "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\" + name;
}

void NoteLoading()
{
    const std::lock_guard hold(g_lock);
    if (g_loaded.empty()) g_poolBefore = PoolAllocations();
}

bool IsClaimed(ULONG tag)
{
    for (const LoadedDriver& driver : g_loaded)
        if (driver.Tags.count(tag)) return true;
    return false;
}

// Tags that show up for the first time during an entry routine are its driver's.
LoadedDriver NewLoaded(PDRIVER_OBJECT driver, uint64_t before)
{
    LoadedDriver loaded{driver, {}, nullptr};
    const std::lock_guard hold(g_lock);
    for (const PoolBlock& block : LivePoolBlocks(before))
        if (block.FromDriver && !IsClaimed(block.Tag)) loaded.Tags.insert(block.Tag);
    return loaded;
}

void AddLoaded(LoadedDriver loaded)
{
    const std::lock_guard hold(g_lock);
    g_loaded.push_back(std::move(loaded));
}

// The driver's record, out of the list; whether it was the last goes to *isLast.
LoadedDriver TakeLoaded(PDRIVER_OBJECT driver, bool* isLast)
{
    const std::lock_guard hold(g_lock);
    LoadedDriver taken{driver, {}, nullptr};
    for (LoadedDriver& loaded : g_loaded)
        if (loaded.Object == driver) taken = std::move(loaded);
    std::erase_if(g_loaded, [driver](const LoadedDriver& loaded) { return loaded.Object == driver; });
    *isLast = g_loaded.empty();
    return taken;
}

NTSTATUS CallEntry(PDRIVER_OBJECT driver, const std::string& name)
{
    std::u16string key = FromUtf8(ServiceKey(name));
    const auto length = static_cast<USHORT>(key.size() * sizeof(WCHAR));
    UNICODE_STRING path = {length, static_cast<USHORT>(length + sizeof(WCHAR)), reinterpret_cast<WCHAR*>(key.data())};
    return CallDriver(MustRestore::Everything, "DriverEntry", driver->DriverInit, driver, &path);
}

void OpenDevices(PDRIVER_OBJECT driver)
{
    for (PDEVICE_OBJECT device : io::DevicesOf(driver)) {
        __atomic_fetch_and(&device->Flags, ~DO_DEVICE_INITIALIZING, __ATOMIC_RELEASE);
        ObDereferenceObject(device);
    }
}

std::vector<PDEVICE_OBJECT> DeviceAddresses(PDRIVER_OBJECT driver)
{
    std::vector<PDEVICE_OBJECT> devices = io::DevicesOf(driver);
    for (PDEVICE_OBJECT device : devices) ObDereferenceObject(device);
    return devices;
}

bool HasOpenFiles(PDRIVER_OBJECT driver)
{
    bool open = false;
    for (PDEVICE_OBJECT device : io::DevicesOf(driver)) {
        open = open || io::HasOpens(device);
        ObDereferenceObject(device);
    }
    return open;
}

void DropDriverObject(PDRIVER_OBJECT driver)
{
    ob::RemoveName(driver);
    ObDereferenceObject(driver);
}

void ReportFailedEntry(const LoadedDriver& loaded, const std::string& name, uint64_t before)
{
    bool isLast;
    {
        const std::lock_guard hold(g_lock);
        isLast = g_loaded.empty();
    }
    const Departure departure{loaded, isLast, before, host::LinksTo(loaded.Object), DeviceAddresses(loaded.Object)};
    for (const std::string& line : host::CollectLeftovers(departure)) ReportFinding("driver-leak", name + ": " + line);
}

NTSTATUS MakeDriverObject(const std::string& name, PDRIVER_INITIALIZE entry, const image::Module* image,
                          PDRIVER_OBJECT* driver)
{
    NTSTATUS status = CreateRegistryKey(ServiceKey(name));
    if (!NT_SUCCESS(status)) return status;
    status = io::NewDriverObject(FromUtf8(name), driver);
    if (status == STATUS_OBJECT_NAME_COLLISION) return STATUS_IMAGE_ALREADY_LOADED;
    if (!NT_SUCCESS(status)) return status;
    (*driver)->DriverInit = entry;
    if (image) {
        (*driver)->DriverStart = image->Base;
        (*driver)->DriverSize = static_cast<ULONG>(image->Size);
    }
    return status;
}

NTSTATUS Enter(const std::string& name, PDRIVER_INITIALIZE entry, image::Module* image, PDRIVER_OBJECT* driver)
{
    *driver = nullptr;
    const ActAs system(PsInitialSystemProcess, KernelMode);
    PDRIVER_OBJECT object;
    NTSTATUS status = MakeDriverObject(name, entry, image, &object);
    if (!NT_SUCCESS(status)) return status;

    NoteLoading();
    const uint64_t before = PoolAllocations();
    status = CallEntry(object, name);
    LoadedDriver loaded = NewLoaded(object, before);
    if (!NT_SUCCESS(status)) {
        ReportFailedEntry(loaded, name, before);
        DropDriverObject(object);
        return status;
    }
    OpenDevices(object);
    loaded.Image = image;
    AddLoaded(std::move(loaded));
    *driver = object;
    return status;
}

} // namespace

void host::ForgetLoadedDrivers()
{
    const std::lock_guard hold(g_lock);
    g_loaded.clear();
}

NTSTATUS LoadDriver(const std::string& name, PDRIVER_INITIALIZE entry, PDRIVER_OBJECT* driver)
{
    return Enter(name, entry, nullptr, driver);
}

NTSTATUS LoadImage(const std::string& name, const std::string& path, PDRIVER_OBJECT* driver)
{
    *driver = nullptr;
    image::Module* module;
    NTSTATUS status = image::Load(path, &module);
    if (!NT_SUCCESS(status)) return status;
    status = Enter(name, reinterpret_cast<PDRIVER_INITIALIZE>(module->Base + module->Entry), module, driver);
    if (!NT_SUCCESS(status)) image::Unload(module);
    return status;
}

NTSTATUS UnloadDriver(PDRIVER_OBJECT driver, LeakReport* leaks)
{
    leaks->Lines.clear();
    if (!driver->DriverUnload) return STATUS_INVALID_DEVICE_REQUEST;
    TrimSections(); // which keep file objects of closed files
    io::AwaitDroppedFiles();
    if (!host::AwaitQueuedWork(driver) || HasOpenFiles(driver)) return STATUS_DEVICE_NOT_READY;

    const ActAs system(PsInitialSystemProcess, KernelMode);
    bool isLast;
    const std::vector<std::string> links = host::LinksTo(driver);
    const std::vector<PDEVICE_OBJECT> devices = DeviceAddresses(driver);
    CallDriver(MustRestore::Everything, "DriverUnload", driver->DriverUnload, driver);
    LoadedDriver loaded = TakeLoaded(driver, &isLast);
    // A plugin's entry runs other drivers' code, so while those are loaded nobody can say whose a block is.
    if (!isLast) loaded.Tags.clear();
    leaks->Lines = host::CollectLeftovers({loaded, isLast, g_poolBefore, links, devices});
    DropDriverObject(driver);
    if (loaded.Image) image::Unload(loaded.Image);
    return STATUS_SUCCESS;
}

} // namespace nthost
