// What a driver leaves behind when it goes: devices, links, pool, work items, requests, resources. With one driver
// loaded everything that drivers made is its own. With several, pool blocks go by tag: a tag belongs to the driver in
// whose DriverEntry it was first seen; what belongs to nobody is reported when the last driver goes.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include <ntifs.h>

namespace nthost::image {
struct Module;
}

namespace nthost::host {

struct LoadedDriver {
    PDRIVER_OBJECT Object;
    std::set<ULONG> Tags; // of pool blocks, its own
    image::Module* Image; // null for a driver that is linked into the process
};

// Names of symbolic links that lead to a device of the driver.
std::vector<std::string> LinksTo(PDRIVER_OBJECT driver);
// Waits for the devices that the driver deleted; false if one is still referenced after five seconds.
bool AwaitDeletedDevices(PDRIVER_OBJECT driver);
// Until no work item of the driver is queued or running; false when that takes too long.
bool AwaitQueuedWork(PDRIVER_OBJECT driver);

struct Departure {
    const LoadedDriver& Driver;
    bool IsLast;                         // no other driver is loaded
    uint64_t PoolBefore;                 // serial of the last block allocated before the first driver came
    std::vector<std::string> Links;      // that led to its devices before it went
    std::vector<PDEVICE_OBJECT> Devices; // that it had then; not referenced, for comparison only
};

// One line per thing left. Devices and links that were left are taken away, so that the driver can be loaded again.
std::vector<std::string> CollectLeftovers(const Departure& departure);

} // namespace nthost::host
