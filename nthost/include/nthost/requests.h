// Requests as a whole: how many have been sent to drivers, of all kinds; and the one that no service sends.
#pragma once

#include <cstdint>

#include <ntifs.h>

namespace nthost {

uint64_t RequestsSent();

// The request that the calling thread works for: the innermost whose dispatch routine runs here, or the one that a
// worker has taken up as its top-level request. Requests are numbered in the order in which they were sent; 0 is none.
// The addresses are for naming things: what they led to may be over.
struct RequestAtWork {
    uint64_t Number;
    PIRP Irp;
    PDEVICE_OBJECT Device;
    PFILE_OBJECT File;
};
RequestAtWork CurrentRequest();

// Tells the device that the system goes down, as the system does at its end, with no file object. The driver's status;
// STATUS_INSUFFICIENT_RESOURCES without memory.
[[nodiscard]] NTSTATUS SendShutdown(PDEVICE_OBJECT device);

} // namespace nthost
