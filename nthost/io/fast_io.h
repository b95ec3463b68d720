// A driver's fast I/O table: routines that the I/O manager, and for its locks the memory manager, call before or
// instead of sending a request packet.
#pragma once

#include <cstddef>

#include <ntifs.h>

#include "ke/callout.h"

namespace nthost::io {

// Null if the driver of the device has no table, or its table does not reach to the slot or has nothing there.
template <typename Slot>
Slot FastIoRoutine(PDEVICE_OBJECT device, Slot _FAST_IO_DISPATCH::*slot)
{
    const FAST_IO_DISPATCH* const table = device->DriverObject->FastIoDispatch;
    if (!table) return nullptr;
    const auto end = reinterpret_cast<const char*>(&(table->*slot) + 1) - reinterpret_cast<const char*>(table);
    return static_cast<size_t>(end) <= table->SizeOfFastIoDispatch ? table->*slot : nullptr;
}

// True if the driver has done it. The arguments are the routine's own, but for the status block and the device, which
// end every routine's.
template <typename Slot, typename... Args>
bool DoneFast(PDEVICE_OBJECT device, const char* name, Slot _FAST_IO_DISPATCH::*slot, IO_STATUS_BLOCK* result,
              Args... arguments)
{
    const Slot routine = FastIoRoutine(device, slot);
    return routine && CallDriver(MustRestore::Everything, name, routine, arguments..., result, device);
}

} // namespace nthost::io
