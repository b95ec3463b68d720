// Handles that stay open between commands, and byte-range locks on them.
#include <utility>

#include <fmt/format.h>

#include "gvnd/commands/commands.h"
#include "gvnd/status.h"
#include "gvnd/text.h"

namespace tool {

namespace {

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

} // namespace

namespace commands {

void Open(Shell& shell, const Words& words)
{
    const std::string access = words.size() > 2 ? words[2] : "r";
    const std::string share = words.size() > 3 ? words[3] : "rwd";
    const OpenRequest how = {
        .Access = SYNCHRONIZE | Letters(access, {{'r', FILE_READ_DATA | FILE_READ_ATTRIBUTES},
                                                 {'w', FILE_WRITE_DATA},
                                                 {'a', FILE_APPEND_DATA},
                                                 {'x', FILE_EXECUTE},
                                                 {'d', DELETE}}),
        .Share = Letters(share, {{'r', FILE_SHARE_READ}, {'w', FILE_SHARE_WRITE}, {'d', FILE_SHARE_DELETE}}),
    };
    const std::string note = fmt::format("access {} share {}", access, share);
    fmt::print("handle {}\n", shell.AddHandle(shell.Open(words[1], how), note));
}

void Close(Shell& shell, const Words& words)
{
    shell.Handle(words[1]);
    shell.Handles().erase(static_cast<unsigned>(Number(words[1])));
}

void Handles(Shell& shell, const Words&)
{
    for (const auto& [number, handle] : shell.Handles()) {
        fmt::print("{:>4}  {}  {}\n", number, ShownPath(handle.Object.Path()), handle.Note);
    }
}

void Lock(Shell& shell, const Words& words)
{
    const bool shared = words.size() > 4;
    if (shared && words[4] != "shared") throw Usage("the last word can only be shared");
    OpenHandle& handle = shell.Handle(words[1]);
    handle.Object.Lock(Number(words[2]), Number(words[3]), !shared);
    handle.Note += fmt::format(" {}lock {}+{}", shared ? "shared-" : "", words[2], words[3]);
}

void Unlock(Shell& shell, const Words& words)
{
    OpenHandle& handle = shell.Handle(words[1]);
    handle.Object.Unlock(Number(words[2]), Number(words[3]));
    for (const char* const kind : {" lock ", " shared-lock "}) {
        const std::string entry = fmt::format("{}{}+{}", kind, words[2], words[3]);
        if (const size_t at = handle.Note.find(entry); at != std::string::npos) {
            handle.Note.erase(at, entry.size());
            break;
        }
    }
}

} // namespace commands

} // namespace tool
