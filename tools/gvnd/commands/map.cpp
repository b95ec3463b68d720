// Reading and changing a file through a view of it.
#include <algorithm>

#include <fmt/format.h>
#include <workbench/view.h>

#include "gvnd/commands/commands.h"
#include "gvnd/status.h"
#include "gvnd/text.h"

namespace tool {

namespace {

// The whole file, mapped as the handle was opened for. Failures name the request; a page that cannot be had is one with
// the status of its exception.
class MappedFile {
public:
    MappedFile(const File& file, workbench::View::Kind kind)
        : path_(ShownPath(file.Path())),
          size_(static_cast<uint64_t>(
              file.Query<FILE_STANDARD_INFORMATION>(FileStandardInformation, "size").EndOfFile.QuadPart)),
          view_(file.Handle(), kind)
    {
        Require((view_.HasSection() ? "map " : "make a section of ") + path_, view_.Status());
    }

    uint64_t Size() const { return size_; }
    std::string Read(uint64_t offset, size_t length) const
    {
        CheckRange(offset, length);
        std::string bytes;
        Require(fmt::format("read {} in its view at {}", path_, offset), view_.Get(offset, &bytes, length));
        return bytes;
    }
    void Write(uint64_t offset, const std::string& bytes) const
    {
        CheckRange(offset, bytes.size());
        Require(fmt::format("change {} in its view at {}", path_, offset), view_.Put(offset, bytes));
    }
    void Flush() const { Require("flush the view of " + path_, view_.Flush()); }

private:
    void CheckRange(uint64_t offset, size_t length) const
    {
        if (offset > size_ || length > size_ - offset) {
            throw Usage(fmt::format("the file has {} bytes, and a view does not make it longer", size_));
        }
    }

    std::string path_;
    uint64_t size_;
    workbench::View view_;
};

void Show(Shell& shell, const Words& words)
{
    const File file = shell.Open(words[1], {.Access = kReading, .Options = FILE_NON_DIRECTORY_FILE});
    const MappedFile view(file, workbench::View::Kind::ReadOnly);
    const uint64_t offset = words.size() > 3 ? Number(words[3]) : 0;
    const uint64_t rest = view.Size() > offset ? view.Size() - offset : 0;
    const uint64_t length = words.size() > 4 ? Number(words[4]) : std::min<uint64_t>(rest, 256);
    PrintHex(offset, view.Read(offset, length));
}

void Change(Shell& shell, const Words& words)
{
    const std::string bytes = Unescape(words[4]);
    const File file = shell.Open(
        words[1], {.Access = FILE_READ_DATA | FILE_WRITE_DATA | SYNCHRONIZE, .Options = FILE_NON_DIRECTORY_FILE});
    const MappedFile view(file, workbench::View::Kind::ReadWrite);
    view.Write(Number(words[3]), bytes);
    view.Flush();
}

} // namespace

namespace commands {

void Map(Shell& shell, const Words& words)
{
    if (words[2] == "show") return Show(shell, words);
    if (words[2] == "change" && words.size() == 5) return Change(shell, words);
    throw Usage("usage: map PATH show [OFFSET [LENGTH]] | map PATH change OFFSET TEXT");
}

} // namespace commands

} // namespace tool
