// The commands of the shell, one table row each.
#include "gvnd/shell.h"

#include <charconv>
#include <cstdio>
#include <iostream>
#include <sstream>

#include <fmt/format.h>
#include <readline/history.h>
#include <readline/readline.h>
#include <unistd.h>

#include "gvnd/status.h"

namespace tool {

const Shell::Command Shell::kCommands[] = {
    {"ls", "[-l] [PATH[/PATTERN]]", "list a directory; * and ? in the last component select", 0, 2, &Shell::List},
    {"cat", "PATH", "print a file", 1, 1, &Shell::Cat},
    {"stat", "PATH", "what the directory says of an object", 1, 1, &Shell::Stat},
    {"open", "PATH [ACCESS [SHARE]]", "open a handle: ACCESS of r w x d, SHARE of r w d or - (default r rwd)", 1, 3,
     &Shell::OpenHandle},
    {"close", "HANDLE", "close a handle", 1, 1, &Shell::CloseHandle},
    {"handles", "", "open handles, with their access, sharing and locks", 0, 0, &Shell::ListHandles},
    {"lock", "HANDLE OFFSET LENGTH [shared]", "lock bytes, exclusively by default", 3, 4, &Shell::Lock},
    {"unlock", "HANDLE OFFSET LENGTH", "unlock exactly that range", 3, 3, &Shell::Unlock},
    {"trace", "on|off", "the driver's own trace on standard error", 1, 1, &Shell::Trace},
    {"calls", "on|off", "after each command, the plugin operations that it caused", 1, 1, &Shell::CallsSwitch},
    {"unmount", "", "unmount the volume; open handles must be closed", 0, 0, &Shell::Unmount},
    {"help", "", "this list", 0, 0, &Shell::Help},
};

namespace {

// Blanks separate; double quotes hold blanks.
std::vector<std::string> Split(const std::string& line)
{
    std::vector<std::string> words;
    std::string word;
    bool quoted = false, any = false;
    auto finish = [&] {
        if (any) words.push_back(std::exchange(word, {}));
        any = false;
    };
    for (const char c : line) {
        if (c == '"') {
            quoted = !quoted;
            any = true;
        } else if (!quoted && (c == ' ' || c == '\t')) {
            finish();
        } else if (!quoted && !any && c == '#') {
            break;
        } else {
            word += c;
            any = true;
        }
    }
    if (quoted) throw Usage("a double quote is not closed");
    finish();
    return words;
}

uint64_t Number(const std::string& text)
{
    uint64_t value = 0;
    const bool hex = text.starts_with("0x");
    const char* const first = text.data() + (hex ? 2 : 0);
    const auto [end, error] = std::from_chars(first, text.data() + text.size(), value, hex ? 16 : 10);
    if (error != std::errc() || end != text.data() + text.size() || first == end) {
        throw Usage(fmt::format("'{}' is not a number", text));
    }
    return value;
}

bool Switch(const std::string& word)
{
    if (word == "on") return true;
    if (word == "off") return false;
    throw Usage("say on or off");
}

struct SplitPath {
    std::string Directory;
    std::string Last;
};

SplitPath SplitLast(const std::string& path)
{
    const size_t slash = path.find_last_of("/\\");
    if (slash == std::string::npos) return {"/", path};
    return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

bool IsPattern(const std::string& name) { return name.find_first_of("*?<>\"") != std::string::npos; }

ULONG Letters(const std::string& letters, const std::vector<std::pair<char, ULONG>>& meanings)
{
    ULONG bits = 0;
    if (letters == "-") return bits;
    for (const char letter : letters) {
        bool known = false;
        for (const auto& [name, bit] : meanings) {
            if (name == letter) bits |= bit, known = true;
        }
        if (!known) throw Usage(fmt::format("'{}' is not one of the letters; see help", letter));
    }
    return bits;
}

void PrintEntry(const Entry& entry, bool longForm)
{
    const char* const mark = entry.IsDirectory() ? "/" : entry.IsLink() ? "@" : "";
    if (longForm)
        fmt::print("{}  {:>14}  {}  {}{}\n", AttributeText(entry.Attributes), entry.Size, TimeText(entry.LastWrite),
                   entry.Name, mark);
    else
        fmt::print("{}{}\n", entry.Name, mark);
}

constexpr ACCESS_MASK kListAccess = FILE_LIST_DIRECTORY | SYNCHRONIZE;

} // namespace

bool Shell::Run(const std::string& line)
{
    const Words words = Split(line);
    if (words.empty()) return true;
    if (words[0] == "exit" || words[0] == "quit") return false;
    for (const Command& command : kCommands) {
        if (words[0] != command.Name) continue;
        if (words.size() - 1 < command.Least || words.size() - 1 > command.Most) {
            throw Usage(fmt::format("usage: {} {}", command.Name, command.Arguments));
        }
        if (!session_.Mounted() && command.Run != &Shell::Help && command.Run != &Shell::Trace) {
            throw Usage("the volume has been unmounted; exit and mount it again");
        }
        if (session_.Mounted()) session_.Plugin().Clear();
        (this->*command.Run)(words);
        if (showCalls_) PrintCalls();
        return true;
    }
    throw Usage(fmt::format("unknown command '{}'; `help` lists them", words[0]));
}

void Shell::Help(const Words&)
{
    for (const Command& command : kCommands) {
        fmt::print("  {:<44} {}\n", fmt::format("{} {}", command.Name, command.Arguments), command.Help);
    }
    fmt::print("  {:<44} {}\n", "exit", "leave");
}

void Shell::List(const Words& words)
{
    const bool longForm = words.size() > 1 && words[1] == "-l";
    std::string path = words.size() > (longForm ? 2u : 1u) ? words.back() : "/";
    std::string pattern;
    if (const SplitPath split = SplitLast(path); IsPattern(split.Last)) {
        path = split.Directory;
        pattern = split.Last;
    }
    const File directory = OpenFile(session_.NtPath(path), {.Access = kListAccess, .Options = FILE_DIRECTORY_FILE});
    size_t count = 0;
    ListDirectory(directory, pattern, [&](const Entry& entry) {
        PrintEntry(entry, longForm);
        ++count;
    });
    if (longForm) fmt::print("{} entries\n", count);
}

void Shell::Cat(const Words& words)
{
    const File file = OpenFile(session_.NtPath(words[1]), {.Options = FILE_NON_DIRECTORY_FILE});
    std::vector<char> buffer(1 << 20);
    for (uint64_t offset = 0;;) {
        const size_t got = file.Read(offset, buffer.data(), buffer.size());
        if (got == 0) break;
        std::fwrite(buffer.data(), 1, got, stdout);
        offset += got;
    }
    std::fflush(stdout);
}

void Shell::Stat(const Words& words)
{
    const SplitPath split = SplitLast(words[1]);
    if (split.Last.empty() || IsPattern(split.Last)) throw Usage("stat wants the path of one object, not the root");
    const File directory =
        OpenFile(session_.NtPath(split.Directory), {.Access = kListAccess, .Options = FILE_DIRECTORY_FILE});
    ListDirectory(directory, split.Last, [](const Entry& entry) {
        fmt::print("name        {}\nattributes  {} (0x{:x})\nsize        {}\nallocated   {}\n", entry.Name,
                   AttributeText(entry.Attributes), entry.Attributes, entry.Size, entry.Allocation);
        fmt::print("created     {}\naccessed    {}\nwritten     {}\nchanged     {}\n", TimeText(entry.Creation),
                   TimeText(entry.LastAccess), TimeText(entry.LastWrite), TimeText(entry.Change));
        if (entry.ReparseTag) fmt::print("reparse tag 0x{:x}\n", entry.ReparseTag);
    });
}

void Shell::OpenHandle(const Words& words)
{
    const std::string access = words.size() > 2 ? words[2] : "r";
    const std::string share = words.size() > 3 ? words[3] : "rwd";
    const OpenHow how = {
        .Access = SYNCHRONIZE | Letters(access, {{'r', FILE_READ_DATA | FILE_READ_ATTRIBUTES},
                                                 {'w', FILE_WRITE_DATA},
                                                 {'x', FILE_EXECUTE},
                                                 {'d', DELETE}}),
        .Share = Letters(share, {{'r', FILE_SHARE_READ}, {'w', FILE_SHARE_WRITE}, {'d', FILE_SHARE_DELETE}}),
    };
    File file = OpenFile(session_.NtPath(words[1]), how);
    const unsigned number = nextHandle_++;
    handles_.emplace(number, std::move(file));
    handleNotes_[number] = fmt::format("access {} share {}", access, share);
    fmt::print("handle {}\n", number);
}

const File& Shell::HandleOf(const std::string& number) const
{
    const auto found = handles_.find(static_cast<unsigned>(Number(number)));
    if (found == handles_.end()) throw Usage(fmt::format("there is no handle {}; see `handles`", number));
    return found->second;
}

void Shell::CloseHandle(const Words& words)
{
    HandleOf(words[1]);
    const unsigned number = static_cast<unsigned>(Number(words[1]));
    handles_.erase(number);
    handleNotes_.erase(number);
}

void Shell::ListHandles(const Words&)
{
    for (const auto& [number, file] : handles_) {
        fmt::print("{:>4}  {}  {}\n", number, file.Path(), handleNotes_.at(number));
    }
}

void Shell::Lock(const Words& words)
{
    const bool shared = words.size() > 4;
    if (shared && words[4] != "shared") throw Usage("the last word can only be shared");
    HandleOf(words[1]).Lock(Number(words[2]), Number(words[3]), !shared);
    handleNotes_[static_cast<unsigned>(Number(words[1]))] +=
        fmt::format(" {}lock {}+{}", shared ? "shared-" : "", words[2], words[3]);
}

void Shell::Unlock(const Words& words)
{
    HandleOf(words[1]).Unlock(Number(words[2]), Number(words[3]));
    std::string& note = handleNotes_[static_cast<unsigned>(Number(words[1]))];
    for (const char* const kind : {" lock ", " shared-lock "}) {
        const std::string entry = fmt::format("{}{}+{}", kind, words[2], words[3]);
        if (const size_t at = note.find(entry); at != std::string::npos) {
            note.erase(at, entry.size());
            break;
        }
    }
}

void Shell::Trace(const Words& words) { session_.SetTrace(Switch(words[1])); }

void Shell::CallsSwitch(const Words& words) { showCalls_ = Switch(words[1]); }

void Shell::Unmount(const Words&)
{
    if (!handles_.empty()) throw Usage(fmt::format("{} handles are open; close them first", handles_.size()));
    session_.Unmount();
    fmt::print("unmounted\n");
}

void Shell::PrintCalls()
{
    if (!session_.Mounted()) return;
    for (const layer::PluginCall& call : session_.Plugin().Calls()) {
        fmt::print("  plugin: {}{}\n", call.Text(),
                   NT_SUCCESS(call.Status) ? "" : fmt::format("  -> 0x{:08x}", static_cast<unsigned>(call.Status)));
    }
}

void Shell::RunScript(std::istream& script)
{
    std::string line;
    while (std::getline(script, line) && Run(line)) {}
}

void Shell::RunInteractive()
{
    fmt::print("`help` lists the commands, `exit` leaves.\n");
    while (char* const typed = readline("gvnd> ")) {
        const std::string line = typed;
        std::free(typed);
        if (!line.empty()) add_history(line.c_str());
        try {
            if (!Run(line)) return;
        } catch (const std::exception& error) {
            fmt::print(stderr, "{}\n", error.what());
        }
    }
    fmt::print("\n");
}

} // namespace tool
