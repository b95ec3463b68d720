// Writing to the start of a file, through a handle and through a view. The mapped cases map the file, touch one page
// and unmap it; the writing one also brings the page to the file before it does.

#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "cases.h"
#include "ratios.h"

namespace bench {

namespace {

constexpr const Size& kMapped = kSizes[1];

void WriteByDriver(benchmark::State& state, const Path& path, std::vector<char>& buffer)
{
    HANDLE const file = OpenByDriver(path, FILE_SYNCHRONOUS_IO_NONALERT, FILE_GENERIC_READ | FILE_GENERIC_WRITE);
    for ([[maybe_unused]] auto _ : state) {
        IO_STATUS_BLOCK result;
        LARGE_INTEGER start = {};
        Require(NtWriteFile(file, nullptr, nullptr, nullptr, &result, buffer.data(), static_cast<ULONG>(buffer.size()),
                            &start, nullptr),
                "write");
    }
    NtClose(file);
}

void WriteByPlugin(benchmark::State& state, const Place& place, const Path& path, std::vector<char>& buffer)
{
    const PluginFd fd = OpenByPlugin(place, path, GVND_ACCESS_READ | GVND_ACCESS_WRITE);
    for ([[maybe_unused]] auto _ : state) {
        auto length = static_cast<ULONG>(buffer.size());
        Require(place.Plugin()->Write(place.Context(), NoCancel(), fd, 0, &length, buffer.data()), "Write");
    }
    Require(place.Plugin()->Close(place.Context(), NoCancel(), fd), "Close");
}

void WriteByTmpfs(benchmark::State& state, const Place& place, const Path& path, std::vector<char>& buffer)
{
    const int file = OpenByTmpfs(place, path, O_RDWR);
    for ([[maybe_unused]] auto _ : state) {
        if (pwrite(file, buffer.data(), buffer.size(), 0) != static_cast<ssize_t>(buffer.size())) FailHost("pwrite");
    }
    close(file);
}

void Touch(void* address, bool writes)
{
    auto* const byte = static_cast<volatile char*>(address);
    if (writes) {
        *byte = 'm';
    } else {
        benchmark::DoNotOptimize(*byte);
    }
}

void MapByDriver(benchmark::State& state, const Path& path, bool writes)
{
    HANDLE const file = OpenByDriver(path, FILE_SYNCHRONOUS_IO_NONALERT, FILE_GENERIC_READ | FILE_GENERIC_WRITE);
    HANDLE section = nullptr;
    Require(NtCreateSection(&section, SECTION_MAP_READ | SECTION_MAP_WRITE, nullptr, nullptr, PAGE_READWRITE,
                            SEC_COMMIT, file),
            "make a section");
    for ([[maybe_unused]] auto _ : state) {
        PVOID base = nullptr;
        SIZE_T size = 0;
        Require(
            NtMapViewOfSection(section, NtCurrentProcess(), &base, 0, 0, nullptr, &size, ViewUnmap, 0, PAGE_READWRITE),
            "map");
        Touch(base, writes);
        if (writes) {
            PVOID start = base;
            SIZE_T length = PAGE_SIZE;
            IO_STATUS_BLOCK result;
            Require(NtFlushVirtualMemory(NtCurrentProcess(), &start, &length, &result), "flush");
        }
        Require(NtUnmapViewOfSection(NtCurrentProcess(), base), "unmap");
    }
    NtClose(section);
    NtClose(file);
}

void MapByTmpfs(benchmark::State& state, const Place& place, const Path& path, size_t bytes, bool writes)
{
    const int file = OpenByTmpfs(place, path, O_RDWR);
    for ([[maybe_unused]] auto _ : state) {
        void* const base = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        if (base == MAP_FAILED) FailHost("mmap");
        Touch(base, writes);
        if (writes && msync(base, 4096, MS_SYNC) != 0) FailHost("msync");
        munmap(base, bytes);
    }
    close(file);
}

void RegisterMapped(Run& run, bool writes)
{
    const std::string name = writes ? "map, write a page, flush" : "map, read a page";
    Register(name, Side::Driver, [&run, writes](benchmark::State& state) {
        MapByDriver(state, Path(run.Common().Link(), kMapped.Path), writes);
    });
    Register(name, Side::Tmpfs, [&run, writes](benchmark::State& state) {
        MapByTmpfs(state, run.Common(), Path(run.Common().Link(), kMapped.Path), kMapped.Bytes, writes);
    });
}

} // namespace

void RegisterWrites(Run& run)
{
    for (const Size& size : kSizes) {
        const std::string name = std::string("write ") + size.Name;
        const auto in = [&run, size](auto body) {
            return [&run, size, body](benchmark::State& state) {
                std::vector<char> buffer(size.Bytes, 'b');
                body(state, run.Common(), Path(run.Common().Link(), size.Path), buffer);
            };
        };
        Register(name, Side::Driver,
                 in([](benchmark::State& state, const Place&, const Path& path, std::vector<char>& buffer) {
                     WriteByDriver(state, path, buffer);
                 }));
        Register(name, Side::Plugin, in(WriteByPlugin));
        Register(name, Side::Tmpfs, in(WriteByTmpfs));
    }
    for (const bool writes : {false, true}) RegisterMapped(run, writes);
}

} // namespace bench
