// Contents of files: reading, writing, and their sizes.
#include <cstdio>
#include <cstring>
#include <fstream>
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
    ReadAll(file, [](std::string_view piece) { std::fwrite(piece.data(), 1, piece.size(), stdout); });
    std::fflush(stdout);
}

void Get(Shell& shell, const Words& words)
{
    const File file = shell.Open(words[1], {.Access = kReading, .Options = FILE_NON_DIRECTORY_FILE});
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
    std::ifstream source(words[1], std::ios::binary | std::ios::ate);
    if (!source) throw HostFailure(fmt::format("open {}: {}", words[1], std::strerror(errno)));
    ProgressLine line(true, "copied", static_cast<uint64_t>(source.tellg()));
    source.seekg(0);
    const File file = shell.Open(words[2], {.Access = FILE_WRITE_DATA | SYNCHRONIZE,
                                            .Disposition = FILE_OVERWRITE_IF,
                                            .Options = FILE_NON_DIRECTORY_FILE});
    std::vector<char> buffer(kChunk);
    for (uint64_t offset = 0;;) {
        source.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
        const auto got = static_cast<size_t>(source.gcount());
        if (got == 0) break;
        file.Write(offset, buffer.data(), got);
        line.Update(1, offset += got);
    }
    if (source.bad()) throw HostFailure(fmt::format("read {}: {}", words[1], std::strerror(errno)));
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
