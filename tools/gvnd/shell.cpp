// Lines, words, and which command they mean.
#include "gvnd/shell.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <system_error>
#include <utility>

#include <fmt/format.h>
#include <nthost/debug.h>
#include <readline/history.h>
#include <readline/readline.h>

#include "gvnd/commands/commands.h"
#include "gvnd/status.h"
#include "gvnd/text.h"

namespace tool {

namespace {

// Blanks separate; double quotes hold blanks.
Words Split(const std::string& line)
{
    Words words;
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

// Semicolons separate commands, but not in double quotes or a remark.
std::vector<std::string> SplitCommands(const std::string& line)
{
    std::vector<std::string> commands(1);
    bool quoted = false;
    for (const char c : line) {
        const bool wordBegins =
            commands.back().empty() || commands.back().back() == ' ' || commands.back().back() == '\t';
        if (!quoted && wordBegins && c == '#') break;
        if (c == '"') quoted = !quoted;
        if (!quoted && c == ';')
            commands.emplace_back();
        else
            commands.back() += c;
    }
    return commands;
}

const Command& FindCommand(const std::string& name)
{
    for (const Command& command : Commands()) {
        if (name == command.Name) return command;
    }
    throw Usage(fmt::format("unknown command '{}'; `help` lists them", name));
}

} // namespace

bool Shell::Run(const std::string& line)
{
    for (const std::string& command : SplitCommands(line))
        if (!RunCommand(command)) return false;
    return true;
}

bool Shell::RunCommand(const std::string& command)
{
    const Words words = Split(command);
    if (words.empty()) return true;
    if (words[0] == "exit" || words[0] == "quit") return false;
    if (session_.Mounted()) session_.Plugin().Clear();
    const auto start = std::chrono::steady_clock::now();
    try {
        RunWords(words);
    } catch (...) { // when the calls are wanted most
        if (showCalls_) PrintCalls(std::chrono::steady_clock::now() - start);
        throw;
    }
    if (showCalls_) PrintCalls(std::chrono::steady_clock::now() - start);
    return true;
}

void Shell::RunWords(const Words& words)
{
    const Command& command = FindCommand(words[0]);
    if (words.size() - 1 < command.Least || words.size() - 1 > command.Most) {
        throw Usage(fmt::format("usage: {} {}\n  {}", command.Name, command.Arguments, command.Help));
    }
    if (!session_.Mounted() && command.Needs != Needs::Nothing) {
        throw Usage("the volume has been unmounted; exit and mount it again");
    }
    command.Run(*this, words);
    // A full disk and a closed pipe show here at the latest; what follows would be lost as well.
    if (std::fflush(stdout) != 0 || std::ferror(stdout))
        throw HostFailure(fmt::format("output is lost: {}", std::strerror(errno)));
}

OpenHandle& Shell::Handle(const std::string& number)
{
    const auto found = handles_.find(static_cast<unsigned>(Number(number)));
    if (found == handles_.end()) throw Usage(fmt::format("there is no handle {}; see `handles`", number));
    return found->second;
}

unsigned Shell::AddHandle(File file, std::string note)
{
    handles_.emplace(nextHandle_, OpenHandle{std::move(file), std::move(note)});
    return nextHandle_++;
}

namespace {

double Microseconds(std::chrono::nanoseconds time) { return static_cast<double>(time.count()) / 1000; }

std::string Ending(NTSTATUS status)
{
    if (status == STATUS_PENDING) return "  -> did not return";
    if (NT_SUCCESS(status)) return {};
    return fmt::format("  -> 0x{:08x} {}", static_cast<unsigned>(status), nthost::StatusName(status));
}

} // namespace

void Shell::PrintCalls(std::chrono::nanoseconds whole)
{
    if (!session_.Mounted()) return;
    const std::vector<layer::PluginCall> calls = session_.Plugin().Calls();
    if (calls.empty()) return;
    std::chrono::nanoseconds inside{};
    size_t failed = 0;
    for (const layer::PluginCall& call : calls) {
        fmt::print("  plugin: {:<40} {:>9.1f} us{}\n", call.Text(), Microseconds(call.Took), Ending(call.Status));
        inside += call.Took;
        failed += !NT_SUCCESS(call.Status) || call.Status == STATUS_PENDING;
    }
    fmt::print("  plugin: {} calls, {} failed, {:.1f} us of the command's {:.1f} us\n", calls.size(), failed,
               Microseconds(inside), Microseconds(whole));
}

void Shell::RunScript(std::istream& script, const std::string& name)
{
    std::string line;
    for (unsigned number = 1; std::getline(script, line); ++number) {
        try {
            if (!Run(line)) return;
        } catch (...) {
            fmt::print(stderr, "{}:{}: {}\n", name, number, line);
            throw;
        }
    }
}

namespace {

// Where the lines that were typed are kept; empty if there is nowhere to keep them, which is no failure.
std::string HistoryFile()
{
    const char* const state = std::getenv("XDG_STATE_HOME");
    const char* const home = std::getenv("HOME");
    std::filesystem::path directory;
    if (state && *state == '/')
        directory = state;
    else if (home && *home)
        directory = std::filesystem::path(home) / ".local/state";
    else
        return {};
    std::error_code failed;
    std::filesystem::create_directories(directory / "gvnd", failed);
    return failed ? std::string() : (directory / "gvnd/history").string();
}

// Each line goes out as it is typed: two shells at once lose nothing, and neither does one that is killed.
void Remember(const std::string& line, const std::string& file)
{
    if (line.empty()) return;
    add_history(line.c_str());
    if (file.empty()) return;
    if (append_history(1, file.c_str()) == ENOENT) write_history(file.c_str());
}

} // namespace

void Shell::RunInteractive()
{
    const std::string history = HistoryFile();
    if (!history.empty()) read_history(history.c_str());
    fmt::print("`help` lists the commands, `exit` leaves.\n");
    while (char* const typed = readline("gvnd> ")) {
        const std::string line = typed;
        std::free(typed);
        Remember(line, history);
        try {
            if (!Run(line)) return;
        } catch (const std::exception& error) {
            fmt::print(stderr, "{}\n", Advised(error));
        }
    }
    fmt::print("\n");
}

} // namespace tool
