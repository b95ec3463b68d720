// Deterministic failures: a test makes the n-th pool allocation, or the n-th call of a named kernel routine, fail, and
// a sweep runs one scenario for n = 1, 2, 3 ... until a run injects nothing. Armed by one test thread at a time; the
// counted calls may come from any thread.
#pragma once

#include <atomic>
#include <functional>
#include <string>

namespace nthost {

namespace detail {
extern std::atomic<bool> anyFaultArmed;
bool CountForFaults(const char* routine);
} // namespace detail

// Call sites that can be made to fail consult this by their routine's name ("ExAllocatePoolWithTag", "IoAllocateMdl",
// "PsCreateSystemThread", "ExInitializeResourceLite", "IoAllocateWorkItem", "ZwCreateFile", ...). One relaxed load when
// nothing is armed.
inline bool FaultInjected(const char* routine)
{
    return detail::anyFaultArmed.load(std::memory_order_relaxed) && detail::CountForFaults(routine);
}

enum class Repeat { No, Yes };

// Whether calls count that are made in a cleanup or a close which the I/O manager sends. A driver that cannot do one of
// these keeps the file for good, with nobody to tell, so it takes a test that can make up for it. One that is sent by
// hand always counts: its sender learns its status, and can send it again.
enum class Closings { Spared, Counted };

class FaultPlan {
public:
    // Fails the n-th call (from 1) of the routine, once; with repeat also all later ones. Only calls made while driver
    // code is running on the thread count, so that the host's own work is never hit.
    FaultPlan(std::string routine, unsigned n, Repeat repeat = Repeat::No, Closings closings = Closings::Spared);
    ~FaultPlan();
    FaultPlan(const FaultPlan&) = delete;
    FaultPlan& operator=(const FaultPlan&) = delete;

    unsigned Calls() const;    // counted so far
    unsigned Injected() const; // failures so far
};

// Runs scenario with the n-th call failing, for n = 1, 2, ... until a run injects nothing; returns the number of sites.
unsigned SweepFaults(const std::string& routine, const std::function<void(unsigned n)>& scenario);

} // namespace nthost
