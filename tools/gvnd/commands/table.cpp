// The table of commands, and those that are about the shell itself.
#include "gvnd/commands/commands.h"

#include <fmt/format.h>

#include "gvnd/recording.h"
#include "gvnd/status.h"
#include "gvnd/text.h"

namespace tool {

namespace {

constexpr size_t kAny = 100;

using namespace commands;

constexpr Command kCommands[] = {
    {"Looking", "ls", "[-l] [PATH[/PATTERN]]", "list a directory; * and ? in the last component select", 0, 2, List},
    {"Looking", "cd", "[PATH]", "the directory at which other paths begin; the root without PATH", 0, 1,
     ChangeDirectory},
    {"Looking", "pwd", "", "print that directory", 0, 0, PrintDirectory},
    {"Looking", "find", "PATH [PATTERN]", "everything below PATH, or what has a name like PATTERN", 1, 2, Find},
    {"Looking", "cat", "PATH", "print a file", 1, 1, Cat},
    {"Looking", "stat", "PATH", "everything that can be asked of an object, by information class", 1, 1, Stat},

    {"Contents", "put", "HOST-FILE PATH", "copy a file of this machine, or standard input for -", 2, 2, Put},
    {"Contents", "get", "PATH HOST-FILE", "copy a file to this machine, or standard output for -", 2, 2, Get},
    {"Contents", "cp", "PATH NEW-PATH", "copy what a file contains; NEW-PATH is overwritten", 2, 2, Copy},
    {"Contents", "write", "PATH OFFSET TEXT", "write at an offset; \\n \\t \\0 \\\\ \\xHH in the text", 3, 3, Write},
    {"Contents", "append", "PATH TEXT", "write at the end", 2, 2, Append},
    {"Contents", "truncate", "PATH SIZE", "set the end of the file; SIZE as 4096, 0x1000 or 4K", 2, 2, Truncate},
    {"Contents", "alloc", "PATH SIZE", "set the allocation size, which can also shorten the file", 2, 2, Alloc},
    {"Contents", "map", "PATH show [OFFSET [LENGTH]]", "map the file and print bytes of the view", 2, 4, Map},
    {"Contents", "map", "PATH change OFFSET TEXT", "map the file, change bytes in the view, and flush it", 2, 4, Map},

    {"Names", "mkdir", "PATH", "make a directory", 1, 1, MakeDirectory},
    {"Names", "rm", "[-r] PATH", "remove a file or a link; -r a directory with all in it", 1, 2, Remove},
    {"Names", "rmdir", "PATH", "remove an empty directory", 1, 1, RemoveDirectory},
    {"Names", "mv", "[--replace] PATH NEW-PATH", "rename or move; --replace what has the new name", 2, 3, Move},
    {"Names", "ln", "TARGET PATH", "make a link; TARGET is a path of the volume", 2, 2, Link},

    {"Attributes", "attr", "PATH [+-=rhsa]", "show or change read-only, hidden, system, archive", 1, 2, Attr},
    {"Attributes", "touch", "PATH [created|accessed|written|changed TIME]...",
     "set times, or accessed and written to now; a file that is missing is made; TIME is 2026-11-24T13:05:00 or now", 1,
     9, Touch},
    {"Attributes", "ea", "list PATH", "extended attributes", 2, 4, Ea},
    {"Attributes", "ea", "get|rm PATH NAME", "print or remove one", 2, 4, Ea},
    {"Attributes", "ea", "set PATH NAME VALUE", "make or replace one; escapes as for write", 2, 4, Ea},

    {"Trees", "import", "HOST-DIR PATH", "copy a tree of this machine into the volume, and verify it", 2, 2, Import},
    {"Trees", "export", "PATH HOST-DIR", "copy a tree of the volume to this machine, and verify it", 2, 2, Export},

    {"Handles", "open", "PATH [ACCESS [SHARE]]", "open a handle: ACCESS of r w a x d, SHARE of r w d or - (r rwd)", 1,
     3, Open, Needs::Handles},
    {"Handles", "close", "HANDLE", "close a handle", 1, 1, Close, Needs::Handles},
    {"Handles", "handles", "", "open handles, with their access, sharing and locks", 0, 0, commands::Handles},
    {"Handles", "lock", "HANDLE OFFSET LENGTH [shared]", "lock bytes, exclusively by default", 3, 4, Lock,
     Needs::Handles},
    {"Handles", "unlock", "HANDLE OFFSET LENGTH", "unlock exactly that range", 3, 3, Unlock, Needs::Handles},

    {"Volume", "df", "", "size, free space and what the file system says of itself", 0, 0, Df},
    {"Volume", "label", "[LABEL]", "show or set the label; \"\" removes it", 0, 1, Label},
    {"Volume", "flush", "[PATH]", "write out a file, or the volume", 0, 1, Flush},
    {"Volume", "mounted", "", "ask the file system whether it is mounted", 0, 0, Mounted},
    {"Volume", "unmount", "", "unmount; open handles must be closed", 0, 0, Unmount, Needs::Handles},
    {"Volume", "as", "SID[+GROUP]... COMMAND...",
     "run a command as another user, whom --sddl may keep out: as S-1-5-21-1-2-3-1002 ls", 2, kAny, As, Needs::Handles},

    {"Shell", "trace", "on|failures|off", "the driver's own trace on standard error, or what failed in it", 1, 1, Trace,
     Needs::Nothing},
    {"Shell", "calls", "on|off", "after each command, the plugin operations that it caused, with their times", 1, 1,
     Calls, Needs::Nothing},
    {"Shell", "top", "", "counts and times of all requests and plugin calls so far, what failed, who waits", 0, 0, Top,
     Needs::Nothing},
    {"Shell", "help", "[COMMAND]", "this list, or the lines of one command", 0, 1, Help, Needs::Nothing},
};

void PrintCommand(const Command& command)
{
    const std::string usage = fmt::format("{} {}", command.Name, command.Arguments);
    constexpr size_t kColumn = 34;
    if (usage.size() >= kColumn) {
        fmt::print("{}", Wrapped(fmt::format("  {}\n  {:<{}}  {}", usage, "", kColumn, command.Help)));
    } else {
        fmt::print("{}", Wrapped(fmt::format("  {:<{}}  {}", usage, kColumn, command.Help)));
    }
}

} // namespace

std::span<const Command> Commands() { return kCommands; }

namespace commands {

void Trace(Shell& shell, const Words& words)
{
    using workbench::TracePrinting;
    if (words[1] == "failures") return shell.Volume().SetTrace(TracePrinting::Failures);
    shell.Volume().SetTrace(Switch(words[1]) ? TracePrinting::Everything : TracePrinting::Off);
}

void ChangeDirectory(Shell& shell, const Words& words)
{
    const std::string path = shell.Resolve(words.size() > 1 ? words[1] : "/");
    shell.Open(path, kListing); // which must be there
    shell.SetDirectory(path);
}

void PrintDirectory(Shell& shell, const Words&) { fmt::print("{}\n", shell.Directory()); }

void Calls(Shell& shell, const Words& words) { shell.ShowCalls(Switch(words[1])); }

void Top(Shell&, const Words&) { fmt::print("{}", Counts()); }

void Help(Shell&, const Words& words)
{
    std::string group;
    bool found = false;
    for (const Command& command : kCommands) {
        if (words.size() > 1 && words[1] != command.Name) continue;
        if (words.size() == 1 && group != command.Group) fmt::print("{}\n", group = command.Group);
        PrintCommand(command);
        found = true;
    }
    if (!found) throw Usage(fmt::format("unknown command '{}'", words[1]));
    if (words.size() > 1) return;
    fmt::print("  {:<34}  {}\n", "exit", "leave");
    fmt::print("Paths begin at the volume's root or at the directory of cd; / and \\ both\n"
               "separate. Semicolons separate commands. Double quotes hold blanks, # begins a\n"
               "remark.\n");
}

} // namespace commands

} // namespace tool
