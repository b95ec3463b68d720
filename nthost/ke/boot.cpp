// The order in which the kernel core comes up and goes down.
#include "ke/boot.h"

#include <nthost/pool.h>

#include "check/lock_order.h"
#include "ex/live_resources.h"
#include "ex/work.h"
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
}

void StopWorkers() { ex::ShutdownWorkers(); }

void Shutdown(std::vector<std::string>& leaks)
{
    ps::ShutdownProcesses(leaks);
    ex::ReportLiveResources(leaks);
    for (const PoolBlock& block : LivePoolBlocks(allocationsAtBoot)) leaks.push_back(PoolBlockText(block));
    ForgetAllLocks();
}

} // namespace nthost::ke
