// The memory manager towards the rest of nthost: start and stop of the fault handling, and the hook by which section
// views get their pages.
#pragma once

namespace nthost::mm {

// Asked on every fault, before guards: true if the page is there now and the access can be tried again. Runs on the
// faulting thread, inside the signal handler, which is sound because the fault is synchronous: it may block and may
// call drivers. A hook lets an address that is not its own pass quickly, and takes no lock that the faulting code may
// hold.
using FaultHook = bool (*)(void* address, bool write);

// At most eight, for the life of the process; adding one twice does nothing.
void AddFaultHook(FaultHook hook);

// Takes SIGSEGV and SIGBUS; gives them back.
void Boot();
void Shutdown();

} // namespace nthost::mm
