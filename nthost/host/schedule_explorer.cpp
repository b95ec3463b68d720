// Runs a scenario's schedules in child processes. What a schedule writes about itself stands in memory shared with the
// parent, so that it is there when the child ends in the middle of it.
#include <nthost/schedule.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nthost/check.h>
#include <nthost/process.h>

#include "check/fatal.h"
#include "ke/schedule.h"

namespace nthost {

namespace {

constexpr unsigned kSecondsOfASchedule = 60; // of a native hang, which is a fault of the scheduler or of a scenario
constexpr int kFailedExit = 87;

struct Shared {
    uint64_t Seed;
    unsigned Schedules; // begun
    unsigned Bodies;
    char What[512];
    ke::ScheduleLog Base, Log;
};

// What to run: seeds, or one schedule by its switches.
struct Order {
    ExploreOptions Seeds;
    const ScheduleFailure* Replayed = nullptr;
};

struct ChildState {
    Shared* Memory;
    ke::SchedulePlan Plan;
    ke::ScheduleLog* Log;
    const std::vector<unsigned>* Bodies; // null: all
};

ChildState* g_child;

class SharedMemory {
public:
    SharedMemory()
        : memory_(static_cast<Shared*>(
              mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)))
    {
        if (memory_ == MAP_FAILED) Fatal("no memory for schedules");
    }
    ~SharedMemory() { munmap(memory_, sizeof(Shared)); }
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;
    Shared* operator->() const { return memory_; }
    Shared* Get() const { return memory_; }

private:
    Shared* memory_;
};

void Note(const std::string& what)
{
    if (g_child->Memory->What[0]) return;
    snprintf(g_child->Memory->What, sizeof g_child->Memory->What, "%s", what.c_str());
    fprintf(stderr, "nthost: schedule failed: %s\n", what.c_str());
}

// One schedule in the child. Does not return if it fails.
void RunOne(const ScheduleExplorer::Scenario& scenario, const ke::SchedulePlan& plan, ke::ScheduleLog* log)
{
    g_child->Plan = plan;
    g_child->Log = log;
    alarm(kSecondsOfASchedule);
    ke::BeginSchedule();
    Schedule schedule;
    try {
        scenario(schedule);
    } catch (const std::exception& error) {
        Note(error.what());
    }
    ke::EndSchedule();
    for (const Finding& finding : TakeFindings()) Note(finding.Rule + ": " + finding.Detail);
    if (!g_child->Memory->What[0]) return;
    fflush(stderr);
    _exit(kFailedExit);
}

[[noreturn]] void RunChild(const ScheduleExplorer::Scenario& scenario, const Order& order, Shared* memory)
{
    ChildState state{memory, {}, nullptr, order.Replayed ? &order.Replayed->Bodies : &order.Seeds.Bodies};
    g_child = &state;
    if (order.Replayed) {
        const auto& switches = order.Replayed->Switches;
        ++memory->Schedules;
        RunOne(scenario, {Strategy::Mixed, 0, true, switches.data(), switches.size(), 0, nullptr}, &memory->Log);
        _exit(0);
    }
    if (memory->Base.Choices == 0) RunOne(scenario, {Strategy::Mixed, 0, true, nullptr, 0, 0, nullptr}, &memory->Base);
    while (memory->Schedules < order.Seeds.Count) {
        memory->Seed = order.Seeds.FirstSeed + memory->Schedules++;
        RunOne(scenario, {order.Seeds.How, memory->Seed, false, nullptr, 0, memory->Base.Choices, memory->Base.Widths},
               &memory->Log);
    }
    _exit(0);
}

std::string ReadAll(int fd)
{
    std::string text;
    char piece[4096];
    lseek(fd, 0, SEEK_SET);
    for (ssize_t got; (got = read(fd, piece, sizeof piece)) > 0;) text.append(piece, static_cast<size_t>(got));
    constexpr size_t most = 200'000;
    return text.size() > most ? text.substr(0, most) : text;
}

// The line that says most about the end of a process that could not say it itself.
std::string FirstWords(const std::string& report, int status)
{
    for (const char* key : {"nthost: hang", "nthost: the schedule", "ERROR: AddressSanitizer", "runtime error",
                            "WARNING: ThreadSanitizer", "nthost: fatal", "nthost: finding"}) {
        const size_t at = report.find(key);
        if (at != std::string::npos) return report.substr(at, report.find('\n', at) - at);
    }
    return WIFSIGNALED(status) ? std::string("ended by ") + strsignal(WTERMSIG(status))
                               : "ended with code " + std::to_string(WEXITSTATUS(status));
}

std::optional<ScheduleFailure> Run(const ScheduleExplorer::Scenario& scenario, const Order& order)
{
    const SharedMemory memory;
    const int output = memfd_create("schedule", 0);
    fflush(stdout);
    fflush(stderr);
    const pid_t child = fork();
    if (child < 0) Fatal("no process for a schedule");
    if (child == 0) {
        dup2(output, STDERR_FILENO);
        RunChild(scenario, order, memory.Get());
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {}
    const std::string report = ReadAll(output);
    close(output);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return std::nullopt;

    ScheduleFailure failure{memory->Seed, memory->Schedules, memory->What, report, {}, {}};
    if (failure.What.empty()) failure.What = FirstWords(report, status);
    if (order.Replayed) failure.Seed = order.Replayed->Seed, failure.Schedules = order.Replayed->Schedules;
    const ke::ScheduleLog& log = memory->Schedules ? memory->Log : memory->Base;
    failure.Switches.assign(log.Switches, log.Switches + log.SwitchCount);
    failure.Bodies = order.Replayed ? order.Replayed->Bodies : order.Seeds.Bodies;
    if (failure.Bodies.empty())
        for (unsigned i = 0; i < memory->Bodies; ++i) failure.Bodies.push_back(i);
    return failure;
}

// Addresses and numbers differ from schedule to schedule.
std::string KindOf(const ScheduleFailure& failure) { return failure.What.substr(0, failure.What.find(" 0x")); }

// Drops pieces of the switches, half of them first, then smaller ones, as long as what is left still fails.
void ShrinkSwitches(ScheduleExplorer& explorer, ScheduleFailure& failure)
{
    for (size_t piece = std::max<size_t>(failure.Switches.size() / 2, 1); piece > 0; piece /= 2) {
        for (size_t at = 0; at < failure.Switches.size();) {
            ScheduleFailure smaller = failure;
            const auto begin = smaller.Switches.begin() + static_cast<std::ptrdiff_t>(at);
            smaller.Switches.erase(begin,
                                   begin + static_cast<std::ptrdiff_t>(std::min(piece, smaller.Switches.size() - at)));
            const auto still = explorer.Replay(smaller);
            if (!still || KindOf(*still) != KindOf(failure)) {
                at += piece;
                continue;
            }
            smaller.What = still->What;
            smaller.Report = still->Report;
            failure = std::move(smaller);
        }
    }
}

// Drops one body after another. Without it choices fall elsewhere, so others are tried where the same do not fail.
void ShrinkBodies(ScheduleExplorer& explorer, ScheduleFailure& failure)
{
    constexpr unsigned tries = 200;
    for (size_t at = 0; at < failure.Bodies.size() && failure.Bodies.size() > 1;) {
        ScheduleFailure fewer = failure;
        fewer.Bodies.erase(fewer.Bodies.begin() + static_cast<std::ptrdiff_t>(at));
        auto still = explorer.Replay(fewer);
        if (!still || KindOf(*still) != KindOf(failure))
            still = explorer.Explore({.Count = tries, .Bodies = fewer.Bodies});
        if (!still || KindOf(*still) != KindOf(failure)) {
            ++at;
            continue;
        }
        still->Seed = failure.Seed;
        still->Schedules = failure.Schedules;
        failure = std::move(*still);
    }
}

} // namespace

void Schedule::Run(const std::vector<std::function<void()>>& bodies)
{
    g_child->Memory->Bodies = static_cast<unsigned>(bodies.size());
    const auto isWanted = [](unsigned body) {
        const auto* const wanted = g_child->Bodies;
        return !wanted || wanted->empty() || std::find(wanted->begin(), wanted->end(), body) != wanted->end();
    };
    std::vector<std::thread> threads;
    ke::BeginChoices(g_child->Plan, g_child->Log);
    for (unsigned i = 0; i < bodies.size(); ++i) {
        if (isWanted(i))
            threads.push_back(StartThread(HostProcess(), [&bodies, i, this] {
                try {
                    bodies[i]();
                } catch (const std::exception& error) {
                    Fail(error.what());
                }
            }));
    }
    for (std::thread& thread : threads) JoinThread(thread);
    ke::EndChoices();
}

void Schedule::Fail(const std::string& what) { Note(what); }

std::string ScheduleFailure::Text() const
{
    std::string text = "schedule " + std::to_string(Schedules) + ", seed " + std::to_string(Seed) + ": " + What + "\n" +
                       std::to_string(Switches.size()) + " switches:";
    for (const ScheduleSwitch& step : Switches)
        text += " " + std::to_string(step.Choice) + ">" + std::to_string(step.Thread);
    text += "\nbodies:";
    for (const unsigned body : Bodies) text += " " + std::to_string(body);
    return text + "\n" + Report;
}

std::optional<ScheduleFailure> ScheduleExplorer::Explore(const ExploreOptions& options)
{
    return nthost::Run(scenario_, {options, nullptr});
}

std::optional<ScheduleFailure> ScheduleExplorer::Replay(const ScheduleFailure& failure)
{
    return nthost::Run(scenario_, {{}, &failure});
}

ScheduleFailure ScheduleExplorer::Shrink(ScheduleFailure failure)
{
    ShrinkBodies(*this, failure);
    ShrinkSwitches(*this, failure);
    return failure;
}

} // namespace nthost
