// Opening and closing. Live: another handle keeps the object open, so the driver joins its control block. Cold: nothing
// is open, so the driver opens every directory on the way and closes them all again. The plugin's side makes the same
// calls by itself; the file system of this machine need not.

#include <deque>
#include <vector>

#include <unistd.h>

#include "cases.h"
#include "ratios.h"

namespace bench {

namespace {

struct Target {
    const char* Name;
    const char* Path;
};

constexpr Target kTargets[] = {
    {"depth 1", "\\file"},
    {"depth 9", "\\1\\2\\3\\4\\5\\6\\7\\8\\file"},
};

void LoopDriver(benchmark::State& state, const Path& path)
{
    for ([[maybe_unused]] auto _ : state) NtClose(OpenByDriver(path));
}

// The path alone, or each directory on the way to it.
void LoopPlugin(benchmark::State& state, const Place& place, const std::string& path, bool wholeWay)
{
    std::deque<Path> paths;
    for (size_t end = 1; wholeWay && (end = path.find('\\', end)) != std::string::npos; ++end)
        paths.emplace_back(place.Link(), path.substr(0, end));
    paths.emplace_back(place.Link(), path);
    std::vector<PluginFd> open;
    for ([[maybe_unused]] auto _ : state) {
        for (const Path& each : paths) open.push_back(OpenByPlugin(place, each));
        for (; !open.empty(); open.pop_back())
            Require(place.Plugin()->Close(place.Context(), NoCancel(), open.back()), "Close");
    }
}

void LoopTmpfs(benchmark::State& state, const Place& place, const Path& path)
{
    for ([[maybe_unused]] auto _ : state) close(OpenByTmpfs(place, path));
}

enum class Warmth { Live, Cold };

void RegisterOpen(Run& run, const Target& target, Warmth warmth)
{
    const bool live = warmth == Warmth::Live;
    const std::string name = std::string("open+close, ") + (live ? "live, " : "cold, ") + target.Name;
    const std::string text = target.Path;
    Register(name, Side::Driver, [&run, text, live](benchmark::State& state) {
        const Path path(run.Common().Link(), text);
        HANDLE const kept = live ? OpenByDriver(path) : nullptr;
        LoopDriver(state, path);
        if (kept) NtClose(kept);
    });
    Register(name, Side::Plugin,
             [&run, text, live](benchmark::State& state) { LoopPlugin(state, run.Common(), text, !live); });
    Register(name, Side::Tmpfs, [&run, text](benchmark::State& state) {
        LoopTmpfs(state, run.Common(), Path(run.Common().Link(), text));
    });
}

} // namespace

void RegisterOpens(Run& run)
{
    for (const Warmth warmth : {Warmth::Live, Warmth::Cold})
        for (const Target& target : kTargets) RegisterOpen(run, target, warmth);
}

} // namespace bench
