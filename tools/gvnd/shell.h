// The shell: commands on the mounted volume, one a line, from a terminal, a file, standard input or the command line.
#pragma once

#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "gvnd/client.h"
#include "gvnd/session.h"

namespace tool {

class Shell {
public:
    explicit Shell(Session& session) : session_(session) {}

    // Runs one line; false after `exit`. A failure is thrown.
    bool Run(const std::string& line);
    // Lines until the end or `exit`. Interactive: prompt and history, and failures are printed and forgotten; else the
    // first failure ends it.
    void RunInteractive();
    void RunScript(std::istream& script);

private:
    using Words = std::vector<std::string>;
    struct Command {
        const char* Name;
        const char* Arguments;
        const char* Help;
        size_t Least;
        size_t Most;
        void (Shell::*Run)(const Words& words);
    };
    static const Command kCommands[];

    void Help(const Words& words);
    void List(const Words& words);
    void Cat(const Words& words);
    void Stat(const Words& words);
    void OpenHandle(const Words& words);
    void CloseHandle(const Words& words);
    void ListHandles(const Words& words);
    void Lock(const Words& words);
    void Unlock(const Words& words);
    void Trace(const Words& words);
    void CallsSwitch(const Words& words);
    void Unmount(const Words& words);

    const File& HandleOf(const std::string& number) const;
    void PrintCalls();

    Session& session_;
    std::map<unsigned, File> handles_;
    std::map<unsigned, std::string> handleNotes_; // access, share and locks, as the user gave them
    unsigned nextHandle_ = 1;
    bool showCalls_ = false;
};

} // namespace tool
