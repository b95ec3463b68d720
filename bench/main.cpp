// One run of everything, ended by the table of ratios. Google Benchmark's own flags work; the ones given here first are
// only defaults. --instructions as the first argument counts instead (bench/instructions.py). Rounds of all cases are
// shuffled, so that a disturbance of the machine hits no side alone.

#include <cstring>

#include <benchmark/benchmark.h>

#include "cases.h"
#include "ratios.h"

int main(int argc, char** argv)
{
    char repetitions[] = "--benchmark_repetitions=50";
    char interleaving[] = "--benchmark_enable_random_interleaving=true";
    char time[] = "--benchmark_min_time=0.004";
    const bool counts = argc > 1 && std::strcmp(argv[1], "--instructions") == 0;
    std::vector<char*> arguments = {argv[0]};
    if (counts) {
        bench::CountInstructions();
        --argc, ++argv;
    } else {
        arguments.insert(arguments.end(), {repetitions, interleaving, time});
    }
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 1;

    bench::Host host;
    bench::Run run(host);
    bench::RegisterOpens(run);
    bench::RegisterReads(run);
    bench::RegisterWrites(run);
    bench::RegisterChanges(run);
    bench::RegisterListings(run);
    bench::RegisterTrees(run);
    bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return 0;
}
