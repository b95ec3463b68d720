// Contents of files: reading, writing, and their sizes.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <system_error>
#include <vector>

#include <fmt/format.h>

#include "gvnd/commands/commands.h"
#include "gvnd/progress.h"
#include "gvnd/status.h"
#include "gvnd/text.h"

namespace tool {

namespace {

constexpr size_t kChunk = 1 << 20;

// Each piece of the file, in order.
template <typename Each>
void ReadAll(const File& file, Each&& each)
{
    std::vector<char> buffer(kChunk);
    for (uint64_t offset = 0;;) {
        const size_t got = file.Read(offset, buffer.data(), buffer.size());
        if (got == 0) return;
        each(std::string_view(buffer.data(), got));
        offset += got;
    }
}

void PrintFile(const File& file)
{
    ReadAll(file, [](std::string_view piece) {
        if (std::fwrite(piece.data(), 1, piece.size(), stdout) != piece.size())
            throw HostFailure(fmt::format("output is lost: {}", std::strerror(errno)));
    });
}

LARGE_INTEGER Size(const std::string& word)
{
    LARGE_INTEGER size;
    size.QuadPart = static_cast<LONGLONG>(Number(word));
    return size;
}

} // namespace

namespace commands {

void Cat(Shell& shell, const Words& words)
{
    const File file = shell.Open(words[1], {.Access = kReading, .Options = FILE_NON_DIRECTORY_FILE});
    PrintFile(file);
}

void Get(Shell& shell, const Words& words)
{
    const File file = shell.Open(words[1], {.Access = kReading, .Options = FILE_NON_DIRECTORY_FILE});
    if (words[2] == "-") return PrintFile(file);
    std::ofstream target(words[2], std::ios::binary | std::ios::trunc);
    if (!target) throw HostFailure(fmt::format("create {}: {}", words[2], std::strerror(errno)));
    const auto size = file.Query<FILE_STANDARD_INFORMATION>(FileStandardInformation, "size").EndOfFile.QuadPart;
    ProgressLine line(true, "copied", static_cast<uint64_t>(size));
    uint64_t done = 0;
    ReadAll(file, [&](std::string_view piece) {
        target.write(piece.data(), static_cast<std::streamsize>(piece.size()));
        line.Update(1, done += piece.size());
    });
    target.close();
    if (!target) throw HostFailure(fmt::format("write {}: {}", words[2], std::strerror(errno)));
}

void Put(Shell& shell, const Words& words)
{
    const bool standardInput = words[1] == "-";
    FILE* const opened = standardInput ? nullptr : std::fopen(words[1].c_str(), "rb");
    if (!standardInput && !opened) throw HostFailure(fmt::format("open {}: {}", words[1], std::strerror(errno)));
    const std::unique_ptr<FILE, int (*)(FILE*)> closer(opened, std::fclose);
    FILE* const source = standardInput ? stdin : opened;
    std::error_code unknown;
    const auto size = standardInput ? 0 : std::filesystem::file_size(words[1], unknown);
    ProgressLine line(true, "copied", unknown ? 0 : size);
    const File file = shell.Open(words[2], {.Access = FILE_WRITE_DATA | SYNCHRONIZE,
                                            .Disposition = FILE_OVERWRITE_IF,
                                            .Options = FILE_NON_DIRECTORY_FILE});
    std::vector<char> buffer(kChunk);
    for (uint64_t offset = 0;;) {
        const size_t got = std::fread(buffer.data(), 1, buffer.size(), source);
        if (got == 0) break;
        file.Write(offset, buffer.data(), got);
        line.Update(1, offset += got);
    }
    const bool failed = std::ferror(source) != 0;
    if (standardInput) std::clearerr(stdin); // the prompt goes on behind the end that was typed
    if (failed) throw HostFailure(fmt::format("read {}: {}", words[1], std::strerror(errno)));
}

// Nobody may write to the source meanwhile, which also keeps a file from being copied onto itself.
void Copy(Shell& shell, const Words& words)
{
    const File source =
        shell.Open(words[1], {.Access = kReading, .Share = FILE_SHARE_READ, .Options = FILE_NON_DIRECTORY_FILE});
    const File target = shell.Open(words[2], {.Access = FILE_WRITE_DATA | SYNCHRONIZE,
                                              .Disposition = FILE_OVERWRITE_IF,
                                              .Options = FILE_NON_DIRECTORY_FILE});
    uint64_t offset = 0;
    ReadAll(source, [&](std::string_view piece) {
        target.Write(offset, piece.data(), piece.size());
        offset += piece.size();
    });
}

void Write(Shell& shell, const Words& words)
{
    const std::string bytes = Unescape(words[3]);
    const File file = shell.Open(
        words[1],
        {.Access = FILE_WRITE_DATA | SYNCHRONIZE, .Disposition = FILE_OPEN_IF, .Options = FILE_NON_DIRECTORY_FILE});
    file.Write(Number(words[2]), bytes.data(), bytes.size());
}

void Append(Shell& shell, const Words& words)
{
    const std::string bytes = Unescape(words[2]);
    const File file = shell.Open(
        words[1],
        {.Access = FILE_APPEND_DATA | SYNCHRONIZE, .Disposition = FILE_OPEN_IF, .Options = FILE_NON_DIRECTORY_FILE});
    file.Append(bytes.data(), bytes.size());
}

void Truncate(Shell& shell, const Words& words)
{
    const FILE_END_OF_FILE_INFORMATION info = {.EndOfFile = Size(words[2])};
    shell.Open(words[1], {.Access = FILE_WRITE_DATA | SYNCHRONIZE})
        .Set(FileEndOfFileInformation, info, "set the end of");
}

void Alloc(Shell& shell, const Words& words)
{
    const FILE_ALLOCATION_INFORMATION info = {.AllocationSize = Size(words[2])};
    shell.Open(words[1], {.Access = FILE_WRITE_DATA | SYNCHRONIZE})
        .Set(FileAllocationInformation, info, "set the allocation of");
}

} // namespace commands

} // namespace tool
