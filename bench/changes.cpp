// What changes or tells of a file: creation and deletion, information, rename, truncation, an open through a link.

#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "cases.h"
#include "ratios.h"

namespace bench {

namespace {

constexpr ACCESS_MASK kChange = FILE_GENERIC_READ | FILE_GENERIC_WRITE | DELETE;
constexpr ULONG kSynchronous = FILE_SYNCHRONOUS_IO_NONALERT;

void ClosePlugin(const Place& place, PluginFd fd)
{
    Require(place.Plugin()->Close(place.Context(), NoCancel(), fd), "Close");
}

// A case works in a place, on one path of it.
using Body = void (*)(benchmark::State& state, Place& place, const Path& path);

void CreateByDriver(benchmark::State& state, Place&, const Path& path)
{
    for ([[maybe_unused]] auto _ : state)
        NtClose(OpenByDriver(path, kSynchronous | FILE_DELETE_ON_CLOSE, kChange, FILE_CREATE));
}

void CreateByPlugin(benchmark::State& state, Place& place, const Path& path)
{
    for ([[maybe_unused]] auto _ : state) {
        PluginFd fd = 0;
        Require(place.Plugin()->Create(place.Context(), NoCancel(), path.ForPlugin(), &fd), "Create");
        ClosePlugin(place, fd);
        Require(place.Plugin()->Delete(place.Context(), NoCancel(), path.ForPlugin()), "Delete");
    }
}

void CreateByTmpfs(benchmark::State& state, Place& place, const Path& path)
{
    for ([[maybe_unused]] auto _ : state) {
        close(OpenByTmpfs(place, path, O_CREAT | O_EXCL | O_RDWR));
        if (unlinkat(place.Tmpfs(), path.ForTmpfs(), 0) != 0) FailHost("unlink");
    }
}

void StatByDriver(benchmark::State& state, Place&, const Path& path)
{
    HANDLE const file = OpenByDriver(path);
    for ([[maybe_unused]] auto _ : state) {
        IO_STATUS_BLOCK result;
        FILE_NETWORK_OPEN_INFORMATION info;
        Require(NtQueryInformationFile(file, &result, &info, sizeof info, FileNetworkOpenInformation), "query");
    }
    NtClose(file);
}

void StatByPlugin(benchmark::State& state, Place& place, const Path& path)
{
    const PluginFd fd = OpenByPlugin(place, path);
    for ([[maybe_unused]] auto _ : state) {
        PluginFileInfo* info = nullptr;
        Require(place.Plugin()->GetInfo(place.Context(), NoCancel(), fd, &info), "GetInfo");
        ExFreePoolWithTag(info, 0);
    }
    ClosePlugin(place, fd);
}

void StatByTmpfs(benchmark::State& state, Place& place, const Path& path)
{
    const int file = OpenByTmpfs(place, path);
    for ([[maybe_unused]] auto _ : state) {
        struct stat info;
        if (fstat(file, &info) != 0) FailHost("fstat");
    }
    close(file);
}

void TruncateByDriver(benchmark::State& state, Place&, const Path& path)
{
    HANDLE const file = OpenByDriver(path, kSynchronous, kChange);
    FILE_END_OF_FILE_INFORMATION info = {};
    for ([[maybe_unused]] auto _ : state) {
        info.EndOfFile.QuadPart ^= 100;
        IO_STATUS_BLOCK result;
        Require(NtSetInformationFile(file, &result, &info, sizeof info, FileEndOfFileInformation), "set the size");
    }
    NtClose(file);
}

void TruncateByPlugin(benchmark::State& state, Place& place, const Path& path)
{
    const PluginFd fd = OpenByPlugin(place, path, GVND_ACCESS_READ | GVND_ACCESS_WRITE);
    LONGLONG size = 0;
    const LONGLONG allocation = 4096;
    for ([[maybe_unused]] auto _ : state) {
        size ^= 100;
        Require(place.Plugin()->SetFileSize(place.Context(), NoCancel(), fd, &size, &allocation), "SetFileSize");
    }
    ClosePlugin(place, fd);
}

void TruncateByTmpfs(benchmark::State& state, Place& place, const Path& path)
{
    const int file = OpenByTmpfs(place, path, O_RDWR);
    off_t size = 0;
    for ([[maybe_unused]] auto _ : state) {
        size ^= 100;
        if (ftruncate(file, size) != 0) FailHost("ftruncate");
    }
    close(file);
}

// Back and forth between the path and the same with "2" behind it, an even number of times.
struct RenameBuffer {
    FILE_RENAME_INFORMATION Info;
    WCHAR Rest[64];
};

void FillLeaf(RenameBuffer* buffer, const Path& path)
{
    *buffer = {};
    const UNICODE_STRING& full = *path.ForPlugin();
    buffer->Info.FileNameLength = full.Length - sizeof(WCHAR); // both lie in the root
    std::memcpy(buffer->Info.FileName, full.Buffer + 1, buffer->Info.FileNameLength);
}

void RenameByDriver(benchmark::State& state, Place& place, const Path& path)
{
    const Path other(place.Link(), "\\renamed2");
    RenameBuffer there, back;
    FillLeaf(&there, other);
    FillLeaf(&back, path);
    HANDLE const file = OpenByDriver(path, kSynchronous, kChange);
    for ([[maybe_unused]] auto _ : state) {
        IO_STATUS_BLOCK result;
        for (RenameBuffer* name : {&there, &back})
            Require(NtSetInformationFile(file, &result, name, sizeof *name, FileRenameInformation), "rename");
    }
    NtClose(file);
}

void RenameByPlugin(benchmark::State& state, Place& place, const Path& path)
{
    const Path other(place.Link(), "\\renamed2");
    for ([[maybe_unused]] auto _ : state) {
        Require(place.Plugin()->Rename(place.Context(), NoCancel(), path.ForPlugin(), other.ForPlugin()), "Rename");
        Require(place.Plugin()->Rename(place.Context(), NoCancel(), other.ForPlugin(), path.ForPlugin()), "Rename");
    }
}

void RenameByTmpfs(benchmark::State& state, Place& place, const Path& path)
{
    for ([[maybe_unused]] auto _ : state) {
        if (renameat(place.Tmpfs(), path.ForTmpfs(), place.Tmpfs(), "renamed2") != 0) FailHost("rename");
        if (renameat(place.Tmpfs(), "renamed2", place.Tmpfs(), path.ForTmpfs()) != 0) FailHost("rename");
    }
}

void OpenLinkByDriver(benchmark::State& state, Place&, const Path& path)
{
    for ([[maybe_unused]] auto _ : state) NtClose(OpenByDriver(path));
}

void OpenLinkByTmpfs(benchmark::State& state, Place& place, const Path& path)
{
    for ([[maybe_unused]] auto _ : state) close(OpenByTmpfs(place, path));
}

struct Case {
    const char* Name;
    const char* Path;
    Body Driver;
    Body Plugin; // null: nothing to compare with
    Body Tmpfs;
};

constexpr Case kCases[] = {
    {"create+delete", "\\created", CreateByDriver, CreateByPlugin, CreateByTmpfs},
    {"information of an open file", "\\file", StatByDriver, StatByPlugin, StatByTmpfs},
    {"truncate", "\\truncated", TruncateByDriver, TruncateByPlugin, TruncateByTmpfs},
    {"rename, there and back", "\\renamed", RenameByDriver, RenameByPlugin, RenameByTmpfs},
    {"open+close through a link", "\\link", OpenLinkByDriver, nullptr, OpenLinkByTmpfs},
};

} // namespace

void RegisterChanges(Run& run)
{
    for (const Case& row : kCases) {
        const auto in = [&run, &row](Body body) {
            return [&run, &row, body](benchmark::State& state) {
                body(state, run.Common(), Path(run.Common().Link(), row.Path));
            };
        };
        Register(row.Name, Side::Driver, in(row.Driver));
        if (row.Plugin) Register(row.Name, Side::Plugin, in(row.Plugin));
        Register(row.Name, Side::Tmpfs, in(row.Tmpfs));
    }
}

} // namespace bench
