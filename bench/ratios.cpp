// The table of ratios, and the counting of instructions.

#include "ratios.h"

#include <algorithm>
#include <cstdio>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else
#define CALLGRIND_TOGGLE_COLLECT
#define CALLGRIND_DUMP_STATS_AT(name)
#define CALLGRIND_ZERO_STATS
#endif

namespace bench {

namespace {

constexpr const char* kSides[] = {"driver", "plugin", "tmpfs"};

std::vector<std::string>& Cases()
{
    static std::vector<std::string> cases;
    return cases;
}

std::string Key(const std::string& name, Side side) { return name + "/" + kSides[static_cast<int>(side)]; }

std::string Time(double nanoseconds)
{
    char text[32];
    if (nanoseconds < 0) return "-";
    if (nanoseconds < 10'000)
        std::snprintf(text, sizeof text, "%.0f ns", nanoseconds);
    else if (nanoseconds < 10'000'000)
        std::snprintf(text, sizeof text, "%.1f us", nanoseconds / 1e3);
    else
        std::snprintf(text, sizeof text, "%.1f ms", nanoseconds / 1e6);
    return text;
}

std::string Ratio(double value, double base)
{
    if (value < 0 || base < 0) return "-";
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", value / base);
    return text;
}

bool countsInstructions;

// What goes on while it lives is counted, under this name.
class Counted {
public:
    explicit Counted(const std::string& name) : name_(name)
    {
        CALLGRIND_ZERO_STATS;
        CALLGRIND_TOGGLE_COLLECT;
    }
    ~Counted()
    {
        CALLGRIND_TOGGLE_COLLECT;
        CALLGRIND_DUMP_STATS_AT(name_.c_str());
    }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;

private:
    std::string name_;
};

// Few and many times, after a round that makes what the case works on: the difference is without beginning and end.
void RegisterCounting(const std::string& name, const std::function<void(benchmark::State&)>& body)
{
    constexpr benchmark::IterationCount warm = 2, few = 5, many = 25;
    for (const auto iterations : {warm, few, many}) {
        const auto counted = [name, body, iterations](benchmark::State& state) {
            if (iterations == warm) return body(state);
            const Counted counting(name + " x " + std::to_string(iterations));
            body(state);
        };
        benchmark::RegisterBenchmark(name.c_str(), counted)->Iterations(iterations);
    }
}

} // namespace

void CountInstructions() { countsInstructions = true; }

void Register(const std::string& name, Side side, std::function<void(benchmark::State&)> body)
{
    if (countsInstructions) {
        if (side == Side::Driver) RegisterCounting(name, body);
        return;
    }
    std::vector<std::string>& cases = Cases();
    if (std::find(cases.begin(), cases.end(), name) == cases.end()) cases.push_back(name);
    // By the clock: a pended request spends its time on other threads.
    benchmark::RegisterBenchmark(Key(name, side).c_str(), std::move(body))->UseRealTime();
}

bool RatioReporter::ReportContext(const Context&) { return true; }

void RatioReporter::ReportRuns(const std::vector<Run>& runs)
{
    for (const Run& run : runs) {
        if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
        const double time = run.real_accumulated_time * 1e9 / static_cast<double>(run.iterations);
        const auto [entry, isNew] = nanoseconds_.emplace(run.run_name.function_name, time);
        if (!isNew) entry->second = std::min(entry->second, time);
    }
}

void RatioReporter::Finalize()
{
    const auto least = [this](const std::string& name, Side side) {
        const auto found = nanoseconds_.find(Key(name, side));
        return found == nanoseconds_.end() ? -1.0 : found->second;
    };
    std::printf("%-42s %10s %10s %10s %14s %13s\n", "", "driver", "plugin", "tmpfs", "driver/plugin", "driver/tmpfs");
    for (const std::string& name : Cases()) {
        const double driver = least(name, Side::Driver);
        const double plugin = least(name, Side::Plugin);
        const double tmpfs = least(name, Side::Tmpfs);
        if (driver < 0 && plugin < 0 && tmpfs < 0) continue; // filtered out
        std::printf("%-42s %10s %10s %10s %14s %13s\n", name.c_str(), Time(driver).c_str(), Time(plugin).c_str(),
                    Time(tmpfs).c_str(), Ratio(driver, plugin).c_str(), Ratio(driver, tmpfs).c_str());
    }
}

} // namespace bench
