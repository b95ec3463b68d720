// Cases and their table. A case is one operation, measured on up to three sides in the same run: through the driver, by
// the plugin's own functions, and by system call on tmpfs. Times of a shared machine are comparable only as ratios of
// what was measured side by side, and only by their minimum over many short rounds: that is what the table shows.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace bench {

enum class Side { Driver, Plugin, Tmpfs };

// One measured side of a case; cases appear in the table in the order of their first registration.
void Register(const std::string& name, Side side, std::function<void(benchmark::State&)> body);

// From now on cases are registered for callgrind, on the driver's side alone: each is dumped under "NAME x ITERATIONS",
// twice (bench/instructions.py).
void CountInstructions();

class RatioReporter : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context& context) override;
    void ReportRuns(const std::vector<Run>& runs) override;
    void Finalize() override;

private:
    std::map<std::string, double> nanoseconds_; // least of all rounds, by "case/side"
};

} // namespace bench
