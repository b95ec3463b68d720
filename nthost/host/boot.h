// Start and end of threads, processes, work queues and checks. The object manager comes up before and goes down after.
#pragma once

#include <string>
#include <vector>

namespace nthost::host {

// Makes the system process and the first user process, attaches the calling thread to the latter, starts the workers
// and the clock.
void BootCore(unsigned systemWorkers);
// Runs out the work queues, ends the clock and the workers; after it no work item may be queued. The calling thread
// stays attached.
void StopWorkers();
// Reports system threads that still run, resources and the like not deleted and live pool blocks, closes the first user
// process and the system process with their handles, and detaches the calling thread.
void ShutdownCore(std::vector<std::string>& leaks);

} // namespace nthost::host
