// The order in which the kernel core comes up and goes down.
#include "host/boot.h"

#include <nthost/pool.h>

#include "check/fatal.h"
#include "ex/work.h"
#include "ke/clock.h"
#include "ke/live.h"
#include "ke/lock_order.h"
#include "ps/threads.h"

namespace nthost::host {

namespace {

uint64_t allocationsAtBoot; // what an earlier boot leaked was reported then
PETHREAD clockThread;

void StartClock()
{
    ke::PrepareClock();
    if (!NT_SUCCESS(
            ps::StartSystemThread(PsInitialSystemProcess, ke::RunClock, nullptr, ps::StartedBy::Host, &clockThread)))
        Fatal("no thread for timers");
}

void StopClock()
{
    ke::EndClock();
    (void)KeWaitForSingleObject(clockThread, Executive, KernelMode, FALSE, nullptr);
    ObDereferenceObject(clockThread);
}

} // namespace

void BootCore(unsigned systemWorkers)
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

void ShutdownCore(std::vector<std::string>& leaks)
{
    ps::ShutdownProcesses(leaks);
    ke::ReportLive(leaks);
    for (const PoolBlock& block : LivePoolBlocks(allocationsAtBoot)) leaks.push_back(PoolBlockText(block));
    ForgetAllLocks();
}

} // namespace nthost::host
