// Extended attributes of one object.
#include <cstring>

#include <fmt/format.h>

#include "gvnd/commands/commands.h"
#include "gvnd/eas.h"
#include "gvnd/status.h"
#include "gvnd/text.h"

namespace tool {

namespace {

File OpenForEas(Shell& shell, const std::string& path, ACCESS_MASK access)
{
    return shell.Open(path, {.Access = access | SYNCHRONIZE});
}

void List(Shell& shell, const Words& words)
{
    for (const auto& [name, value] : ReadEas(OpenForEas(shell, words[2], FILE_READ_EA))) {
        fmt::print("{}  {} bytes  {}\n", name, value.size(), BytesText(value));
    }
}

void Get(Shell& shell, const Words& words)
{
    const std::string value = ReadEa(OpenForEas(shell, words[2], FILE_READ_EA), words[3]);
    fmt::print("{}\n", BytesText(value));
}

void Set(Shell& shell, const Words& words)
{
    const std::string value = Unescape(words[4]);
    if (value.empty()) throw Usage("an extended attribute without a value is none; use ea rm");
    WriteEas(OpenForEas(shell, words[2], FILE_WRITE_EA), {{words[3], value}});
}

// Setting an empty value removes, and is no error where there is nothing, so that is asked first.
void Remove(Shell& shell, const Words& words)
{
    const File file = OpenForEas(shell, words[2], FILE_READ_EA | FILE_WRITE_EA);
    (void)ReadEa(file, words[3]);
    WriteEas(file, {{words[3], ""}});
}

struct Verb {
    const char* Name;
    size_t WordCount;
    void (*Run)(Shell& shell, const Words& words);
};
constexpr Verb kVerbs[] = {{"list", 3, List}, {"get", 4, Get}, {"set", 5, Set}, {"rm", 4, Remove}};

} // namespace

namespace commands {

void Ea(Shell& shell, const Words& words)
{
    for (const Verb& verb : kVerbs) {
        if (words[1] == verb.Name && words.size() == verb.WordCount) return verb.Run(shell, words);
    }
    throw Usage("usage: ea list PATH | ea get PATH NAME | ea set PATH NAME VALUE | ea rm PATH NAME");
}

} // namespace commands

} // namespace tool
