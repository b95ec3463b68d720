// Export in two passes over the volume's tree: copy, then compare. Each pass lists and reads through the front door
// only.
#include "gvnd/export.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>

#include <fmt/format.h>
#include <unistd.h>

#include "gvnd/client.h"
#include "gvnd/status.h"

namespace tool {

namespace fs = std::filesystem;

namespace {

constexpr size_t kChunk = 1 << 20;
using Clock = std::chrono::steady_clock;

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using HostFile = std::unique_ptr<std::FILE, CloseFile>;

// One line on a terminal, rewritten a few times a second; the second pass knows how much there is.
class ProgressLine {
public:
    ProgressLine(bool wanted, std::string verb) : wanted_(wanted && isatty(STDERR_FILENO)), verb_(std::move(verb)) {}
    ~ProgressLine()
    {
        if (printed_) fmt::print(stderr, "\r\x1b[K");
    }

    void Update(uint64_t files, uint64_t bytes, uint64_t totalBytes)
    {
        const auto now = Clock::now();
        if (!wanted_ || now - last_ < std::chrono::milliseconds(200)) return;
        last_ = now;
        const double seconds = std::chrono::duration<double>(now - start_).count();
        const double rate = bytes / (seconds > 0 ? seconds : 1);
        std::string rest;
        if (totalBytes > bytes && rate > 0) rest = fmt::format(", {:.0f} s left", (totalBytes - bytes) / rate);
        fmt::print(stderr, "\r\x1b[K{} {} files, {:.1f} MB, {:.1f} MB/s{}", verb_, files, bytes / 1e6, rate / 1e6,
                   rest);
        printed_ = true;
    }

private:
    bool wanted_;
    std::string verb_;
    Clock::time_point start_ = Clock::now();
    Clock::time_point last_{};
    bool printed_ = false;
};

class TreeWalk {
public:
    using FileAction = std::function<void(const std::string& path, const fs::path& copy)>;
    TreeWalk(Session& session, ExportTotals& totals, FileAction onFile)
        : session_(session), totals_(totals), onFile_(std::move(onFile))
    {}

    uint64_t Directories = 0;
    uint64_t Skipped = 0;

    void Walk(const std::string& path, const fs::path& copy)
    {
        ++Directories;
        std::vector<Entry> entries;
        const File directory = OpenFile(session_.NtPath(path),
                                        {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE, .Options = FILE_DIRECTORY_FILE});
        ListDirectory(directory, "", [&](const Entry& entry) { entries.push_back(entry); });
        for (const Entry& entry : entries) Visit(entry, path + "\\" + entry.Name, copy / entry.Name);
    }

private:
    void Visit(const Entry& entry, const std::string& path, const fs::path& copy)
    {
        if (entry.IsLink()) {
            ++Skipped;
            return;
        }
        try {
            if (entry.IsDirectory()) {
                fs::create_directories(copy);
                Walk(path, copy);
            } else {
                onFile_(path, copy);
            }
        } catch (const std::exception& error) {
            totals_.Problems.push_back(error.what());
        }
    }

    Session& session_;
    ExportTotals& totals_;
    FileAction onFile_;
};

class Exporter {
public:
    Exporter(Session& session, const ExportJob& job) : session_(session), job_(job), buffer_(kChunk), again_(kChunk) {}

    ExportTotals Run()
    {
        const auto start = Clock::now();
        session_.Plugin().CountOnly(true);
        Copy();
        Verify();
        totals_.PluginCalls = session_.Plugin().Total();
        session_.Plugin().CountOnly(false);
        totals_.Requests = session_.Requests();
        totals_.Seconds = std::chrono::duration<double>(Clock::now() - start).count();
        return std::move(totals_);
    }

private:
    void Copy()
    {
        ProgressLine progress(job_.Progress, "copied");
        TreeWalk walk(session_, totals_, [&](const std::string& path, const fs::path& copy) {
            CopyFile(path, copy);
            progress.Update(totals_.Files, totals_.Bytes, 0);
        });
        fs::create_directories(job_.To);
        walk.Walk(job_.From == "/" ? "" : job_.From, job_.To);
        totals_.Directories = walk.Directories;
        totals_.Skipped = walk.Skipped;
    }

    void Verify()
    {
        ProgressLine progress(job_.Progress, "verified");
        uint64_t files = 0, bytes = 0;
        TreeWalk walk(session_, totals_, [&](const std::string& path, const fs::path& copy) {
            bytes += CompareFile(path, copy);
            progress.Update(++files, bytes, totals_.Bytes);
        });
        walk.Walk(job_.From == "/" ? "" : job_.From, job_.To);
        if (files != totals_.Files && totals_.Problems.empty()) {
            totals_.Problems.push_back(
                fmt::format("{} files were copied but {} found again: the tree changed", totals_.Files, files));
        }
    }

    static HostFile OpenHost(const fs::path& path, const char* mode)
    {
        HostFile file(std::fopen(path.c_str(), mode));
        if (!file) throw Usage(fmt::format("{}: {}", path.string(), std::strerror(errno)));
        return file;
    }

    void CopyFile(const std::string& path, const fs::path& copy)
    {
        const File source = OpenFile(session_.NtPath(path), {.Options = FILE_NON_DIRECTORY_FILE});
        const HostFile target = OpenHost(copy, "wb");
        for (uint64_t offset = 0;;) {
            const size_t got = source.Read(offset, buffer_.data(), buffer_.size());
            if (got == 0) break;
            if (std::fwrite(buffer_.data(), 1, got, target.get()) != got) {
                throw Usage(fmt::format("write {}: {}", copy.string(), std::strerror(errno)));
            }
            offset += got;
            totals_.Bytes += got;
        }
        if (std::fflush(target.get()) != 0) {
            throw Usage(fmt::format("write {}: {}", copy.string(), std::strerror(errno)));
        }
        ++totals_.Files;
    }

    uint64_t CompareFile(const std::string& path, const fs::path& copy)
    {
        const File source = OpenFile(session_.NtPath(path), {.Options = FILE_NON_DIRECTORY_FILE});
        const HostFile target = OpenHost(copy, "rb");
        uint64_t offset = 0;
        for (;;) {
            const size_t got = source.Read(offset, buffer_.data(), buffer_.size());
            const size_t have = std::fread(again_.data(), 1, got ? got : 1, target.get());
            if (have != got || std::memcmp(buffer_.data(), again_.data(), got) != 0) {
                throw Usage(fmt::format("{}: the copy differs behind offset {}", path, offset));
            }
            if (got == 0) return offset;
            offset += got;
        }
    }

    Session& session_;
    const ExportJob& job_;
    ExportTotals totals_;
    std::vector<char> buffer_;
    std::vector<char> again_;
};

} // namespace

ExportTotals ExportTree(Session& session, const ExportJob& job) { return Exporter(session, job).Run(); }

void PrintTotals(const ExportTotals& totals)
{
    constexpr size_t kShown = 10;
    for (size_t i = 0; i < totals.Problems.size() && i < kShown; ++i) fmt::print(stderr, "{}\n", totals.Problems[i]);
    if (totals.Problems.size() > kShown) fmt::print(stderr, "... and {} more\n", totals.Problems.size() - kShown);
    fmt::print("{} files in {} directories, {:.1f} MB; {} links left out\n", totals.Files, totals.Directories,
               totals.Bytes / 1e6, totals.Skipped);
    fmt::print("copied and read again in {:.2f} s, {:.1f} MB/s; {} requests, {} plugin calls\n", totals.Seconds,
               2 * totals.Bytes / 1e6 / (totals.Seconds > 0 ? totals.Seconds : 1), totals.Requests, totals.PluginCalls);
    fmt::print("{}\n",
               totals.Problems.empty() ? "every byte agrees" : fmt::format("{} problems", totals.Problems.size()));
}

} // namespace tool
