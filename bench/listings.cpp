// Listing a directory of 10,000 entries from its start to its end, through a 64 KiB buffer: names only, and with sizes,
// times and attributes, which by system call takes one more call per entry.

#include <cstddef>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

#include "cases.h"
#include "ratios.h"

namespace bench {

namespace {

constexpr size_t kBufferBytes = 64 * 1024;

enum class Detail { Names, Everything };

void ByDriver(benchmark::State& state, const Path& path, Detail detail)
{
    std::vector<char> buffer(kBufferBytes);
    const auto infoClass = detail == Detail::Names ? FileNamesInformation : FileBothDirectoryInformation;
    HANDLE const directory = OpenByDriver(path);
    for ([[maybe_unused]] auto _ : state) {
        IO_STATUS_BLOCK result;
        NTSTATUS status = STATUS_SUCCESS;
        for (BOOLEAN restart = TRUE; status != STATUS_NO_MORE_FILES; restart = FALSE) {
            status = NtQueryDirectoryFile(directory, nullptr, nullptr, nullptr, &result, buffer.data(), kBufferBytes,
                                          infoClass, FALSE, nullptr, restart);
            if (status != STATUS_NO_MORE_FILES) Require(status, "list");
        }
    }
    NtClose(directory);
}

void ByPlugin(benchmark::State& state, const Place& place, const Path& path)
{
    const PluginFd fd = OpenByPlugin(place, path);
    for ([[maybe_unused]] auto _ : state) {
        for (ULONG index = 0;; ++index) {
            PluginDirEntry* entry = nullptr;
            const NTSTATUS status = place.Plugin()->ReadDirEntry(place.Context(), NoCancel(), fd, index, &entry);
            if (status == STATUS_NO_MORE_FILES) break;
            Require(status, "ReadDirEntry");
            ExFreePoolWithTag(entry, 0);
        }
    }
    Require(place.Plugin()->Close(place.Context(), NoCancel(), fd), "Close");
}

struct LinuxEntry {
    unsigned long long Id;
    long long Offset;
    unsigned short Length;
    unsigned char Type;
    char Name[1];
};

void StatEach(int directory, const char* buffer, long bytes)
{
    for (long at = 0; at < bytes;) {
        const auto* const entry = reinterpret_cast<const LinuxEntry*>(buffer + at);
        struct stat information;
        if (fstatat(directory, entry->Name, &information, AT_SYMLINK_NOFOLLOW) != 0) FailHost(entry->Name);
        at += entry->Length;
    }
}

void ByTmpfs(benchmark::State& state, const Place& place, const Path& path, Detail detail)
{
    std::vector<char> buffer(kBufferBytes);
    const int directory = OpenByTmpfs(place, path);
    for ([[maybe_unused]] auto _ : state) {
        if (lseek(directory, 0, SEEK_SET) != 0) FailHost("lseek");
        long bytes;
        while ((bytes = syscall(SYS_getdents64, directory, buffer.data(), kBufferBytes)) > 0)
            if (detail == Detail::Everything) StatEach(directory, buffer.data(), bytes);
        if (bytes < 0) FailHost("getdents64");
    }
    close(directory);
}

} // namespace

void RegisterListings(Run& run)
{
    for (const Detail detail : {Detail::Names, Detail::Everything}) {
        const std::string name =
            std::string("list 10,000 entries, ") + (detail == Detail::Names ? "names" : "with attributes");
        const std::string many = "\\many";
        Register(name, Side::Driver, [&run, many, detail](benchmark::State& state) {
            ByDriver(state, Path(run.Common().Link(), many), detail);
        });
        Register(name, Side::Plugin, [&run, many](benchmark::State& state) {
            ByPlugin(state, run.Common(), Path(run.Common().Link(), many));
        });
        Register(name, Side::Tmpfs, [&run, many, detail](benchmark::State& state) {
            ByTmpfs(state, run.Common(), Path(run.Common().Link(), many), detail);
        });
    }
}

} // namespace bench
