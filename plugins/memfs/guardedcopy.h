// Touches memory that may be a caller's own and may vanish at any moment. An exception runs no destructors on its way
// out, so one that left an operation would leave its lock held for ever; it has to end here.
#pragma once

#include <gvnd/plugin.h>

namespace memfs {

// Runs body(argument), which must hold no lock and no owner of its own; false if an exception ended it. Never inlined:
// what the body changes must live in memory, not in registers of the frame that the exception comes back to.
[[nodiscard]] bool RunGuarded(void (*body)(void*), void* argument);

// Brings the pages of a buffer in before a lock is taken: the fault on a mapped view of a file of this same volume
// comes back as a read of that file. False if the buffer is bad.
[[nodiscard]] bool TouchBuffer(const void* buffer, ULONG length);

} // namespace memfs
