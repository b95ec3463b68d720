// Reading and changing a file through a view of it.
#include <algorithm>

#include <fmt/format.h>

#include "gvnd/commands.h"
#include "gvnd/section.h"
#include "gvnd/status.h"
#include "gvnd/text.h"

namespace tool {

namespace {

void Show(Shell& shell, const Words& words)
{
    const File file = shell.Open(words[1], {.Options = FILE_NON_DIRECTORY_FILE});
    const MappedView view(file, MappedView::Mode::Read);
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
    MappedView view(file, MappedView::Mode::Write);
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
