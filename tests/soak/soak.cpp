// Everything at once, for as long as one likes: programs on three volumes, the modified-page writer and the trimmer, a
// plugin that fails and raises, kernel routines that fail, cancelled requests, volumes that go and come back. At
// intervals all programs stand still; then nothing may be open or allocated that was not so the first time.
//   gvnd_soak [SECONDS [SEED]]     30, random; exit code 1 for what is wrong, 4 for what is left at the end
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>

#include <nthost/check.h>
#include <nthost/debug.h>
#include <nthost/faults.h>
#include <nthost/pool.h>
#include <nthost/process.h>
#include <nthost/sections.h>
#include <unistd.h>

#include "soak/client.h"
#include "soak/volumes.h"

namespace soak {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr unsigned kClients = 6;
constexpr auto kStuck = 120s; // without a step of one client

uint64_t ResidentKib()
{
    uint64_t size = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> size >> resident;
    return resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024;
}

// A failure of the plugin's, somewhere ahead. A close that is kept from the plugin would leak the plugin's handle.
void FailThePlugin(Volumes& volumes, std::mt19937& random)
{
    static const char* const kOperations[] = {"Lookup",      "Open",        "OpenDir", "Create",       "CreateDir",
                                              "Read",        "Write",       "GetInfo", "SetAttr",      "SetTime",
                                              "SetFileSize", "Rename",      "Delete",  "ReadDirEntry", "FlushFile",
                                              "GetVolInfo",  "AccessCheck", "SetEa",   "GetEa",        "ListEa"};
    static constexpr NTSTATUS kStatuses[] = {STATUS_DISK_FULL, STATUS_INSUFFICIENT_RESOURCES, STATUS_ACCESS_DENIED,
                                             STATUS_OBJECT_NAME_NOT_FOUND, STATUS_CANCELLED};
    const char* const operation = kOperations[random() % std::size(kOperations)];
    const NTSTATUS status = kStatuses[random() % std::size(kStatuses)];
    const unsigned nth = 1 + random() % 20, how = random() % 4;
    volumes.WithLayer(random() % Volumes::kCount, [&](layer::PluginLayer& layer) {
        if (how == 0)
            layer.Raise(operation, status, nth);
        else if (how == 1)
            layer.Fault(operation, nth);
        else
            layer.Fail(operation, status, nth);
    });
}

void WriteModifiedPages(const Volumes& volumes, std::mt19937& random)
{
    const workbench::OpenResult opened =
        workbench::Open(workbench::Text(volumes.Links()[random() % Volumes::kCount] + "\\a"), {});
    PVOID file = nullptr;
    if (!NT_SUCCESS(opened.Status) ||
        !NT_SUCCESS(ObReferenceObjectByHandle(opened.File.Get(), 0, nullptr, KernelMode, &file, nullptr)))
        return;
    (void)nthost::StepModifiedPageWriter(static_cast<PFILE_OBJECT>(file));
    ObDereferenceObject(file);
}

// Until the run ends; during the quiet it only trims.
void MakeTrouble(Run& run, Volumes& volumes, unsigned seed)
{
    static const char* const kRoutines[] = {"ExAllocatePoolWithTag", "ExAllocatePoolWithTag", "IoAllocateMdl",
                                            "ExInitializeResourceLite", "FsRtlAllocateFileLock"};
    std::mt19937 random(seed);
    while (!run.Ended()) {
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
        // A plugin that has lost a handle can never write its file's pages, which would keep the volume for ever.
        const auto unwritable = random() % 8 ? nthost::IfUnwritable::Stays : nthost::IfUnwritable::Goes;
        if (run.WantsQuiet()) {
            (void)nthost::TrimSections(unwritable);
            continue;
        }
        switch (random() % 6) {
        case 0: (void)nthost::TrimSections(unwritable); break;
        case 1: WriteModifiedPages(volumes, random); break;
        case 2:
        case 3: FailThePlugin(volumes, random), ++run.Faults; break;
        default: {
            const nthost::FaultPlan plan(kRoutines[random() % std::size(kRoutines)], 1 + random() % 200);
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
            run.Faults += plan.Injected();
        }
        }
    }
}

void Remount(Run& run, Volumes& volumes, unsigned seed)
{
    std::mt19937 random(seed);
    while (!run.Ended()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 300));
        if (run.Ended() || run.WantsQuiet()) continue;
        volumes.Remount(random() % Volumes::kCount);
        ++run.Remounts;
    }
}

// One look at everything while nobody does anything.
class Quiet {
public:
    Quiet(Run& run, Volumes& volumes) : run_(run), volumes_(volumes) {}

    void Look()
    {
        // What another thread trims at this moment is on its way.
        for (unsigned tries = 0; tries < 1000 && volumes_.ControlBlocks(); ++tries) {
            (void)nthost::TrimSections(nthost::IfUnwritable::Goes);
            std::this_thread::sleep_for(5ms);
        }
        if (const std::string wrong = volumes_.Empty(); !wrong.empty()) return run_.Complain(wrong);
        nthost::PoolUsage now = nthost::PoolTotals();
        for (unsigned tries = 0; tries < 1000 && looks_ && now.LiveBlocks > first_.LiveBlocks; ++tries) {
            std::this_thread::sleep_for(5ms);
            now = nthost::PoolTotals();
        }
        if (looks_++ == 0) {
            first_ = now;
        } else if (now.LiveBlocks > first_.LiveBlocks) {
            std::string text = "pool has grown from " + std::to_string(first_.LiveBlocks) + " to " +
                               std::to_string(now.LiveBlocks) + " blocks";
            for (const nthost::PoolBlock& block : nthost::LivePoolBlocks(serial_))
                text += "\n" + nthost::PoolBlockText(block);
            run_.Complain(text);
        }
        serial_ = nthost::PoolAllocations();
        if (looks_ == 2) warmKib_ = ResidentKib();
    }
    unsigned Looks() const { return looks_; }
    uint64_t WarmKib() const { return warmKib_; }

private:
    Run& run_;
    Volumes& volumes_;
    unsigned looks_ = 0;
    nthost::PoolUsage first_;
    uint64_t serial_ = 0, warmKib_ = 0;
};

// Ends the program with what each client does, if one has not come on for long.
class Watch {
public:
    explicit Watch(Run& run) : run_(run), seen_(kClients), since_(kClients, Clock::now()) {}

    void Look()
    {
        for (unsigned i = 0; i < kClients; ++i) {
            const uint64_t steps = run_.ProgressOf(i).Steps;
            if (steps != seen_[i]) seen_[i] = steps, since_[i] = Clock::now();
            if (Clock::now() - since_[i] < kStuck) continue;
            std::fprintf(stderr, "soak: stuck; the clients are at:\n");
            for (const Progress& progress : run_.AllProgress())
                std::fprintf(stderr, "  %s after %llu steps\n", progress.Doing.load(),
                             static_cast<unsigned long long>(progress.Steps.load()));
            std::abort();
        }
    }

private:
    Run& run_;
    std::vector<uint64_t> seen_;
    std::vector<Clock::time_point> since_;
};

int Soak(std::chrono::seconds time, unsigned seed, const std::filesystem::path& directory)
{
    workbench::Host host;
    workbench::Require("load the driver", host.LoadGvnd());
    nthost::SetDebugSink({});
    Run run(kClients);
    uint64_t steps = 0, calls = 0;
    {
        Volumes volumes(host, directory);
        std::vector<std::unique_ptr<nthost::Process>> processes;
        std::vector<std::thread> threads;
        for (unsigned i = 0; i < kClients; ++i) {
            processes.push_back(std::make_unique<nthost::Process>("client" + std::to_string(i)));
            threads.push_back(nthost::StartThread(processes.back()->Object(), [&run, &volumes, i, seed] {
                Client(run, i, volumes.Links(), seed + i).Work();
            }));
        }
        threads.push_back(nthost::StartThread(nthost::HostProcess(), [&] { MakeTrouble(run, volumes, seed + 100); }));
        threads.push_back(nthost::StartThread(nthost::HostProcess(), [&] { Remount(run, volumes, seed + 200); }));

        Quiet quiet(run, volumes);
        Watch watch(run);
        const auto start = Clock::now();
        const auto interval = std::max<Clock::duration>(time / 12, 1s);
        for (auto next = start + interval; Clock::now() < start + time && !run.Ended();) {
            std::this_thread::sleep_for(50ms);
            watch.Look();
            if (Clock::now() < next) continue;
            run.WhileQuiet([&] { quiet.Look(); });
            next += interval;
        }
        run.End();
        for (std::thread& thread : threads) thread.join();
        steps = run.Steps();
        calls = volumes.PluginCalls();
        std::printf("%llu steps, %llu plugin calls, %llu faults, %llu remounts, %u looks; %llu MiB resident when warm, "
                    "%llu at the end\n",
                    static_cast<unsigned long long>(steps), static_cast<unsigned long long>(calls),
                    static_cast<unsigned long long>(run.Faults.load()),
                    static_cast<unsigned long long>(run.Remounts.load()), quiet.Looks(),
                    static_cast<unsigned long long>(quiet.WarmKib() / 1024),
                    static_cast<unsigned long long>(ResidentKib() / 1024));
        (void)nthost::TrimSections(nthost::IfUnwritable::Goes);
    }
    const workbench::Report report = host.Finish();
    report.Print();
    for (const std::string& complaint : run.Complaints()) std::fprintf(stderr, "soak: %s\n", complaint.c_str());
    return run.Complaints().empty() ? report.ExitCode() : 1;
}

} // namespace
} // namespace soak

int main(int argc, char** argv)
{
    const unsigned seconds = argc > 1 ? static_cast<unsigned>(std::strtoul(argv[1], nullptr, 0)) : 30;
    const unsigned seed = argc > 2 ? static_cast<unsigned>(std::strtoul(argv[2], nullptr, 0)) : std::random_device()();
    std::printf("seed %u\n", seed);
    std::fflush(stdout);
    std::string directory = std::filesystem::temp_directory_path() / "gvnd-soak-XXXXXX";
    if (!mkdtemp(directory.data())) return std::perror("make a directory"), 2;
    const int result = soak::Soak(std::chrono::seconds(seconds), seed, directory);
    std::filesystem::remove_all(directory);
    return result;
}
