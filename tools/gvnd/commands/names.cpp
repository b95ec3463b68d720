// Making, removing, renaming and linking names. Every open follows links, so a link itself is looked for in its
// directory first: removing a link must not remove what it leads to.
#include <string>
#include <vector>

#include <fmt/format.h>

#include "gvnd/commands/commands.h"
#include "gvnd/commands/info.h"
#include "gvnd/status.h"
#include "gvnd/text.h"

namespace tool {

namespace {

bool IsLink(Shell& shell, const std::string& path)
{
    const auto entry = FindEntry(shell.Volume(), shell.Resolve(path));
    return entry && entry->IsLink();
}

// It goes when the last handle is closed, which is this one if nobody else has it open.
void Delete(Shell& shell, const std::string& path, ULONG type)
{
    const File file = shell.Open(path, {.Access = DELETE | SYNCHRONIZE, .Options = type});
    file.Set(FileDispositionInformation, FILE_DISPOSITION_INFORMATION{TRUE}, "remove");
}

// From the leaves on; links go and what they lead to stays. A directory is listed to its end before it changes.
void RemoveTree(Shell& shell, const std::string& path)
{
    std::vector<Entry> entries;
    try {
        ListDirectory(shell.Open(path, kListing), "", [&](const Entry& entry) { entries.push_back(entry); });
    } catch (const Failure& failure) {
        if (failure.Status() != STATUS_NOT_A_DIRECTORY) throw;
        return Delete(shell, path, FILE_NON_DIRECTORY_FILE);
    }
    for (const Entry& entry : entries) {
        const std::string child = path + (path.ends_with('/') ? "" : "/") + entry.Name;
        if (entry.IsLink())
            shell.Volume().RemoveLink(child);
        else if (entry.IsDirectory())
            RemoveTree(shell, child);
        else
            Delete(shell, child, FILE_NON_DIRECTORY_FILE);
    }
    Delete(shell, path, FILE_DIRECTORY_FILE);
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
    const bool recursive = words.size() > 2;
    if (recursive && words[1] != "-r") throw Usage("usage: rm [-r] PATH");
    const std::string path = shell.Resolve(words.back());
    if (IsLink(shell, path)) return shell.Volume().RemoveLink(path);
    if (!recursive) return Delete(shell, path, FILE_NON_DIRECTORY_FILE);
    if (path.find_first_not_of("/\\") == std::string::npos)
        throw Usage("the root cannot be removed; remove what is in it");
    RemoveTree(shell, path);
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
    const std::string from = shell.Resolve(words[words.size() - 2]);
    const std::string to = shell.Resolve(words.back());
    if (IsLink(shell, from)) throw Usage("a link cannot be renamed; remove it and make another");
    const SplitPath place = SplitLast(to);
    const bool sameDirectory = VolumePath(place.Directory) == VolumePath(SplitLast(from).Directory);
    const Text name(sameDirectory ? place.Last : shell.Volume().NtPath(to));
    const File file = shell.Open(from, {.Access = DELETE | SYNCHRONIZE});
    Require("rename " + ShownPath(file.Path()), workbench::Rename(file.Handle(), name, replace));
}

void Link(Shell& shell, const Words& words)
{
    shell.Volume().MakeLink(shell.Resolve(words[2]), shell.Resolve(words[1]));
}

} // namespace commands

} // namespace tool
