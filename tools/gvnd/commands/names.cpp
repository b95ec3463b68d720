// Making, removing, renaming and linking names. Every open follows links, so a link itself is looked for in its
// directory first: removing a link must not remove what it leads to.
#include <fmt/format.h>

#include "gvnd/commands/commands.h"
#include "gvnd/commands/info.h"
#include "gvnd/status.h"
#include "gvnd/text.h"

namespace tool {

namespace {

bool IsLink(Shell& shell, const std::string& path)
{
    const auto entry = FindEntry(shell.Volume(), path);
    return entry && entry->IsLink();
}

// It goes when the last handle is closed, which is this one if nobody else has it open.
void Delete(Shell& shell, const std::string& path, ULONG type)
{
    const File file = shell.Open(path, {.Access = DELETE | SYNCHRONIZE, .Options = type});
    file.Set(FileDispositionInformation, FILE_DISPOSITION_INFORMATION{TRUE}, "remove");
}

} // namespace

namespace commands {

void MakeDirectory(Shell& shell, const Words& words)
{
    shell.Open(
        words[1],
        {.Access = FILE_LIST_DIRECTORY | SYNCHRONIZE, .Disposition = FILE_CREATE, .Options = FILE_DIRECTORY_FILE});
}

void Remove(Shell& shell, const Words& words)
{
    if (IsLink(shell, words[1])) return shell.Volume().RemoveLink(words[1]);
    Delete(shell, words[1], FILE_NON_DIRECTORY_FILE);
}

void RemoveDirectory(Shell& shell, const Words& words)
{
    if (IsLink(shell, words[1])) throw Usage("this is a link; use rm");
    Delete(shell, words[1], FILE_DIRECTORY_FILE);
}

// A new name in the same directory is given alone; any other is a whole path, which the I/O manager opens first.
void Move(Shell& shell, const Words& words)
{
    const bool replace = words.size() > 3;
    if (replace && words[1] != "--replace") throw Usage("usage: mv [--replace] PATH NEW-PATH");
    const std::string& from = words[words.size() - 2];
    const std::string& to = words.back();
    if (IsLink(shell, from)) throw Usage("a link cannot be renamed; remove it and make another");
    const SplitPath place = SplitLast(to);
    const bool sameDirectory = VolumePath(place.Directory) == VolumePath(SplitLast(from).Directory);
    const Text name(sameDirectory ? place.Last : shell.Volume().NtPath(to));
    const File file = shell.Open(from, {.Access = DELETE | SYNCHRONIZE});
    Require("rename " + ShownPath(file.Path()), workbench::Rename(file.Handle(), name, replace));
}

void Link(Shell& shell, const Words& words) { shell.Volume().MakeLink(words[2], words[1]); }

} // namespace commands

} // namespace tool
