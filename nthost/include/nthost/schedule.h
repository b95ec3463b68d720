// Deterministic schedules. All threads of nthost (callers, workers, system threads, threads in page faults) run one at
// a time, and another gets its turn only at kernel calls: locks, waits, signals, calls into drivers, completions, page
// faults, interlocked operations. Who gets it is the choice of a seeded strategy, so that a seed is a schedule. Time is
// virtual: it goes on by steps, and jumps to the next deadline when nobody can run.
//
// A scenario boots nthost itself, and has left nothing when it returns. Each is run in a child process, so a schedule
// that crashes, hangs or ends the process is a failure like any other: a finding of nthost, an exception,
// Schedule::Fail, a hang (nobody can run and nobody waits for time; the report has all stacks), or a schedule that does
// not end. The process that explores must have no other thread, and must not have booted.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace nthost {

// Given to a scenario for one schedule.
class Schedule {
public:
    // Runs each body on a thread of its own, attached to the host process, and returns when all have ended. What comes
    // before and after, in the scenario, is not explored: it runs without a switch that is not needed.
    void Run(const std::vector<std::function<void()>>& bodies);
    // The schedule has failed; the first text counts. From any of its threads.
    void Fail(const std::string& what);
};

enum class Strategy {
    Mixed,    // by the seed: random walks of four densities, priorities with one to four change points
    Walk,     // random walks only
    Priority, // priorities with few change points only
    Bounded   // every schedule with one preemption, then with two, in order; the seed counts them from 0
};

// At this choice another thread than the one that would have gone on.
struct ScheduleSwitch {
    uint32_t Choice;
    uint32_t Thread;
};

struct ScheduleFailure {
    uint64_t Seed;
    unsigned Schedules;                   // run until then, this one included
    std::string What;                     // the first line of the report
    std::string Report;                   // what the schedule printed
    std::vector<ScheduleSwitch> Switches; // of the schedule; after Shrink, those that it takes
    std::vector<unsigned> Bodies;         // of Run, by index, that take part; after Shrink, those that it takes
    std::string Text() const;
};

struct ExploreOptions {
    uint64_t FirstSeed = 1;
    unsigned Count = 100;
    Strategy How = Strategy::Mixed;
    std::vector<unsigned> Bodies = {}; // of Run, by index, that take part; all if empty
};

class ScheduleExplorer {
public:
    using Scenario = std::function<void(Schedule&)>;
    explicit ScheduleExplorer(Scenario scenario) : scenario_(std::move(scenario)) {}

    // The first failure, or nothing.
    std::optional<ScheduleFailure> Explore(const ExploreOptions& options = {});
    // The same schedule by its switches, without a seed. Nothing if it passes.
    std::optional<ScheduleFailure> Replay(const ScheduleFailure& failure);
    // Fewer bodies and fewer switches that still fail in the same way.
    ScheduleFailure Shrink(ScheduleFailure failure);

private:
    Scenario scenario_;
};

} // namespace nthost
