// Reading from the start of a file. Synchronous, and through a handle opened for asynchronous I/O: then the driver
// pends the request, a worker of the volume reads, and the caller waits for its event. The system call's counterpart of
// that is a read on a second thread, handed over and waited for by semaphore.

#include <semaphore>
#include <thread>
#include <unistd.h>
#include <vector>

#include "cases.h"
#include "ratios.h"

namespace bench {

namespace {

void ReadByDriver(HANDLE file, HANDLE event, std::vector<char>& buffer)
{
    IO_STATUS_BLOCK result;
    LARGE_INTEGER start = {};
    NTSTATUS status = NtReadFile(file, event, nullptr, nullptr, &result, buffer.data(),
                                 static_cast<ULONG>(buffer.size()), &start, nullptr);
    if (status == STATUS_PENDING) {
        NtWaitForSingleObject(event, FALSE, nullptr);
        status = result.Status;
    }
    Require(status, "read");
}

void SynchronousByDriver(benchmark::State& state, const Path& path, std::vector<char>& buffer)
{
    HANDLE const file = OpenByDriver(path);
    for ([[maybe_unused]] auto _ : state) ReadByDriver(file, nullptr, buffer);
    NtClose(file);
}

void PendedByDriver(benchmark::State& state, const Path& path, std::vector<char>& buffer)
{
    HANDLE event = nullptr;
    Require(NtCreateEvent(&event, EVENT_ALL_ACCESS, nullptr, SynchronizationEvent, FALSE), "make an event");
    HANDLE const file = OpenByDriver(path, 0);
    for ([[maybe_unused]] auto _ : state) ReadByDriver(file, event, buffer);
    NtClose(file);
    NtClose(event);
}

void ByPlugin(benchmark::State& state, const Place& place, const Path& path, std::vector<char>& buffer)
{
    const PluginFd fd = OpenByPlugin(place, path);
    for ([[maybe_unused]] auto _ : state) {
        auto length = static_cast<ULONG>(buffer.size());
        Require(place.Plugin()->Read(place.Context(), NoCancel(), fd, 0, &length, buffer.data()), "Read");
    }
    Require(place.Plugin()->Close(place.Context(), NoCancel(), fd), "Close");
}

void ReadByTmpfs(int file, std::vector<char>& buffer)
{
    if (pread(file, buffer.data(), buffer.size(), 0) != static_cast<ssize_t>(buffer.size())) FailHost("pread");
}

void SynchronousByTmpfs(benchmark::State& state, const Place& place, const Path& path, std::vector<char>& buffer)
{
    const int file = OpenByTmpfs(place, path);
    for ([[maybe_unused]] auto _ : state) ReadByTmpfs(file, buffer);
    close(file);
}

void HandedOverByTmpfs(benchmark::State& state, const Place& place, const Path& path, std::vector<char>& buffer)
{
    const int file = OpenByTmpfs(place, path);
    std::binary_semaphore asked(0), answered(0);
    bool stop = false;
    std::thread worker([&] {
        for (;;) {
            asked.acquire();
            if (stop) return;
            ReadByTmpfs(file, buffer);
            answered.release();
        }
    });
    for ([[maybe_unused]] auto _ : state) {
        asked.release();
        answered.acquire();
    }
    stop = true;
    asked.release();
    worker.join();
    close(file);
}

} // namespace

void RegisterReads(Run& run)
{
    for (const bool pended : {false, true})
        for (const Size& size : kSizes) {
            const std::string name = std::string("read ") + size.Name + (pended ? ", pended" : ", synchronous");
            const auto in = [&run, size](auto body) {
                return [&run, size, body](benchmark::State& state) {
                    std::vector<char> buffer(size.Bytes);
                    body(state, run.Common(), Path(run.Common().Link(), size.Path), buffer);
                };
            };
            const auto byDriver = pended ? PendedByDriver : SynchronousByDriver;
            Register(name, Side::Driver,
                     in([byDriver](benchmark::State& state, const Place&, const Path& path, std::vector<char>& buffer) {
                         byDriver(state, path, buffer);
                     }));
            Register(name, Side::Plugin, in(ByPlugin));
            Register(name, Side::Tmpfs, in(pended ? HandedOverByTmpfs : SynchronousByTmpfs));
        }
}

} // namespace bench
