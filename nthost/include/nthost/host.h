// Starting and stopping the kernel interface in this Linux process. One host per process at a time; it can be booted
// again after a shutdown.
#pragma once

#include <string>
#include <vector>

#include <ntifs.h>

namespace nthost {

struct BootOptions {
    unsigned SystemWorkers = 2; // threads that run work items
};

// Boots, and attaches the calling thread to a first user process.
void Boot(const BootOptions& options = {});

// While one lives, the system is one that has case-sensitive names: opens without OBJ_CASE_INSENSITIVE reach file
// systems as such. By default every open does as if it had asked for OBJ_CASE_INSENSITIVE.
class CaseSensitiveNames {
public:
    CaseSensitiveNames();
    ~CaseSensitiveNames();
    CaseSensitiveNames(const CaseSensitiveNames&) = delete;
    CaseSensitiveNames& operator=(const CaseSensitiveNames&) = delete;
};

// What was still there when it should not have been: one line each, with the stack that made it where known.
struct LeakReport {
    std::vector<std::string> Lines;
    bool Clean() const { return Lines.empty(); }
};

// Ends the system threads, and reports pool blocks, objects, handles and requests that are left. Call on the booting
// thread, with all drivers unloaded and all other threads detached.
LeakReport Shutdown();

// A driver is a DriverEntry linked into this process. The service key is
// \Registry\Machine\System\CurrentControlSet\Services\<name> (it is made if it does not exist); the driver object
// \Driver\<name>. The calling thread enters DriverEntry in kernel mode, in the system process. A failed entry leaves no
// driver object; what the driver then still owns is reported as a finding "driver-leak".
[[nodiscard]] NTSTATUS LoadDriver(const std::string& name, PDRIVER_INITIALIZE entry, PDRIVER_OBJECT* driver);

// Trims sections (nthost/sections.h), then calls DriverUnload once none of its work items is queued or running and no
// file object stands on its devices (else STATUS_DEVICE_NOT_READY; a driver without DriverUnload gives
// STATUS_INVALID_DEVICE_REQUEST), waits for the deferred end of its devices, and reports what the driver left: devices,
// links, pool blocks by tag, resources, threads, requests.
[[nodiscard]] NTSTATUS UnloadDriver(PDRIVER_OBJECT driver, LeakReport* leaks);

} // namespace nthost
