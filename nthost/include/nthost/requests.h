// Requests as a whole: how many have been sent to drivers, of all kinds; and the one that no service sends.
#pragma once

#include <cstdint>

#include <ntifs.h>

namespace nthost {

uint64_t RequestsSent();

// Tells the device that the system goes down, as the system does at its end, with no file object. The driver's status;
// STATUS_INSUFFICIENT_RESOURCES without memory.
[[nodiscard]] NTSTATUS SendShutdown(PDEVICE_OBJECT device);

} // namespace nthost
