// What the number of live control blocks costs an open, and a lookup in a name tree by itself. Paths are taken in an
// order that comes back to each only after all others, far from its neighbours: the worst for a tree that lifts what it
// found last. A hundred times more must cost a constant more, plus what the processor's caches no longer hold.

#include <unistd.h>

#include "cases.h"
#include "objects/tree.h"
#include "ratios.h"

namespace bench {

namespace {

constexpr unsigned kCounts[] = {10, 1'000, 100'000, 1'000'000};

template <typename Body>
void ForEachPath(benchmark::State& state, Population& population, Body body)
{
    Order order(population.Paths().size());
    for ([[maybe_unused]] auto _ : state) body(population.Paths()[order.Next()]);
}

void RegisterOpen(Run& run, unsigned count)
{
    const std::string name = "open+close, live, among " + std::to_string(count);
    Register(name, Side::Driver, [&run, count](benchmark::State& state) {
        ForEachPath(state, run.Live(count), [](const Path& path) { NtClose(OpenByDriver(path)); });
    });
    Register(name, Side::Plugin, [&run, count](benchmark::State& state) {
        const Place& place = run.Live(count).Where();
        ForEachPath(state, run.Live(count), [&place](const Path& path) {
            const PluginFd fd = OpenByPlugin(place, path);
            Require(place.Plugin()->Close(place.Context(), NoCancel(), fd), "Close");
        });
    });
    Register(name, Side::Tmpfs, [&run, count](benchmark::State& state) {
        const Place& place = run.Live(count).Where();
        ForEachPath(state, run.Live(count), [&place](const Path& path) { close(OpenByTmpfs(place, path)); });
    });
}

void Lookup(GvTree* tree, const Path& path)
{
    GvTreeEntry* entry = nullptr;
    Require(GvTreeGetEntry(tree, path.ForPlugin(), &entry), "look up");
    benchmark::DoNotOptimize(entry);
}

void RegisterLookup(Run& run, unsigned count)
{
    Register("tree lookup, among " + std::to_string(count), Side::Driver, [&run, count](benchmark::State& state) {
        GvTree* const tree = run.Live(count).Names();
        ForEachPath(state, run.Live(count), [tree](const Path& path) { Lookup(tree, path); });
    });
}

} // namespace

void RegisterTrees(Run& run)
{
    for (const unsigned count : kCounts) RegisterOpen(run, count);
    for (const unsigned count : kCounts) RegisterLookup(run, count);
}

} // namespace bench
