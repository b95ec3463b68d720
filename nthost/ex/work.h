// Start and end of the system worker threads.
#pragma once

namespace nthost::ex {

// `count` threads per kind of queue (one for the hyper-critical one).
void BootWorkers(unsigned count);
// Returns when no item is queued or running; items may queue further ones.
void DrainWorkItems();
// Drains, then ends and joins the threads.
void ShutdownWorkers();

} // namespace nthost::ex
