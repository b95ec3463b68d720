// The order in which the kernel core comes up and goes down.
#include "ke/boot.h"

#include <nthost/pool.h>

#include "check/lock_order.h"
#include "ex/live.h"
#include "ex/work.h"
#include "ke/clock.h"
#include "ps/threads.h"

namespace nthost::ke {

namespace {

uint64_t allocationsAtBoot; // what an earlier boot leaked was reported then

} // namespace

void Boot(unsigned systemWorkers)
{
    allocationsAtBoot = PoolAllocations();
    ps::BootProcesses();
    ex::BootWorkers(systemWorkers);
    StartClock();
}

// Work may wait for timers, and deferred calls may queue work: the clock stops when nothing is left of the first.
void StopWorkers()
{
    ex::DrainWorkItems();
    StopClock();
    ex::ShutdownWorkers();
}

void Shutdown(std::vector<std::string>& leaks)
{
    ps::ShutdownProcesses(leaks);
    ex::ReportLive(leaks);
    for (const PoolBlock& block : LivePoolBlocks(allocationsAtBoot)) leaks.push_back(PoolBlockText(block));
    ForgetAllLocks();
}

} // namespace nthost::ke
