// The shell: commands on the mounted volume, one a line, from a terminal, a file, standard input or the command line.
// commands.h has the table of commands; they find here what they share.
#pragma once

#include <chrono>
#include <iosfwd>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "gvnd/client.h"
#include "gvnd/session.h"
#include "gvnd/text.h"

namespace tool {

using Words = std::vector<std::string>;

// A handle that `open` has opened, with access, share and locks as the user gave them.
struct OpenHandle {
    File Object;
    std::string Note;
};

class Shell {
public:
    explicit Shell(Session& session) : session_(session) {}

    // Runs one line, whose commands semicolons separate; false after `exit`. A failure is thrown.
    bool Run(const std::string& line);
    // One command by its words, as a part of another.
    void RunWords(const Words& words);
    // Lines until the end or `exit`. Interactive: prompt and history, and failures are printed and forgotten; else the
    // first failure ends it, and is told with the script's name and the number of its line.
    void RunInteractive();
    void RunScript(std::istream& script, const std::string& name);

    Session& Volume() { return session_; }
    // Paths that do not begin at the root begin at the directory of `cd`.
    std::string Resolve(const std::string& path) const { return ResolvePath(directory_, path); }
    const std::string& Directory() const { return directory_; }
    void SetDirectory(std::string directory) { directory_ = std::move(directory); }
    File Open(const std::string& path, const OpenRequest& how = {.Access = kReading}) const
    {
        return OpenFile(session_.NtPath(Resolve(path)), how);
    }
    // By the number that `open` printed.
    OpenHandle& Handle(const std::string& number);
    std::map<unsigned, OpenHandle>& Handles() { return handles_; }
    unsigned AddHandle(File file, std::string note);
    void ShowCalls(bool on) { showCalls_ = on; }

private:
    bool RunCommand(const std::string& command);
    // What the last line caused; the time is the whole line's.
    void PrintCalls(std::chrono::nanoseconds whole);

    Session& session_;
    std::map<unsigned, OpenHandle> handles_;
    std::string directory_ = "/";
    unsigned nextHandle_ = 1;
    bool showCalls_ = false;
};

} // namespace tool
