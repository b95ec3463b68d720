// The memory manager towards the rest of nthost: start and stop of the fault handling, hooks that are asked before a
// fault becomes an exception, and what the end of processes, drivers and the host does to sections.
#pragma once

#include <string>
#include <vector>

#include <ntifs.h>

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

// A process is over: its views go, and sections that nobody uses any more with them.
void EndViews(PEPROCESS process);
// At shutdown, while requests still work: what is mapped is reported and unmapped, and every file object that an unused
// section refers to is let go, even if its changes cannot be written.
void EndSections(std::vector<std::string>* leaks);

} // namespace nthost::mm
