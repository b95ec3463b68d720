// Processes and the threads in them. A Linux thread must be attached to a process before it calls any NT routine; the
// thread that boots nthost is attached to the first user process, System's own threads to the system process.
#pragma once

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <ntifs.h>

namespace nthost {

// Whom a process acts for. SIDs in text form, "S-1-..."; one that is malformed ends the program. Everybody is in
// Everyone (S-1-1-0) too.
struct User {
    std::string Sid = "S-1-5-21-1-2-3-1001";
    std::vector<std::string> Groups = {"S-1-5-11", "S-1-5-4", "S-1-5-32-545"}; // authenticated, interactive, Users
    std::vector<std::string> DenyOnlyGroups;                                   // can take rights, not give them
    std::vector<ULONG> Privileges = {SE_CHANGE_NOTIFY_PRIVILEGE};
};

// Owns one reference on a process object with a token of its own and an empty handle table. Closing the last handle is
// the process's business: ~Process closes all handles that are still open, as process exit does.
class Process {
public:
    explicit Process(std::string name, const User& user = {});
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    PEPROCESS Object() const { return object_; }

private:
    PEPROCESS object_;
};

// The process that Boot made for the booting thread.
PEPROCESS HostProcess();

// Attaches the current Linux thread for its lifetime. previousMode is what Nt services take as their caller's mode.
class ThreadAttachment {
public:
    explicit ThreadAttachment(PEPROCESS process, KPROCESSOR_MODE previousMode = UserMode);
    ~ThreadAttachment();
    ThreadAttachment(const ThreadAttachment&) = delete;
    ThreadAttachment& operator=(const ThreadAttachment&) = delete;
};

// A std::thread whose body runs attached.
std::thread StartThread(PEPROCESS process, std::function<void()> body, KPROCESSOR_MODE previousMode = UserMode);
// Joins it, in a schedule too (nthost/schedule.h).
void JoinThread(std::thread& thread);

// The current thread acts for another process while this lives (its handles, its mode).
class ActAs {
public:
    explicit ActAs(PEPROCESS process, KPROCESSOR_MODE previousMode = UserMode);
    ~ActAs();
    ActAs(const ActAs&) = delete;
    ActAs& operator=(const ActAs&) = delete;

private:
    PEPROCESS process_;
    KPROCESSOR_MODE mode_;
};

} // namespace nthost
