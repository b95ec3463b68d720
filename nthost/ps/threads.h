// How threads and processes are made and ended.
#pragma once

#include <string>
#include <vector>

#include "ke/thread.h"
#include "se/token.h"

namespace nthost::ps {

// One reference for the caller; null without memory. Runs nowhere yet.
_ETHREAD* NewThread(PEPROCESS process, KPROCESSOR_MODE mode);
PEPROCESS NewProcess(const std::string& name, se::Token token);
// The process is over: closes its handles, calls the hook, signals it, and gives the caller's reference back.
void EndProcess(PEPROCESS process);

// The current Linux thread becomes this one. Takes over the caller's reference.
void EnterThread(_ETHREAD* thread);
// And stops being it, in two steps: what it left is checked and its requests are cancelled, which may take long; then
// the object is signalled and the reference goes.
void PrepareToLeave();
void LeaveThread(NTSTATUS exitStatus);

// Called on a thread that ends, while it still is one: the I/O manager cancels its requests and waits for them.
using ThreadExitHook = void (*)(PETHREAD thread);
void SetThreadExitHook(ThreadExitHook hook);
// Called when a process has no handles any more, on a thread that acts for it.
using ProcessExitHook = void (*)(PEPROCESS process);
void SetProcessExitHook(ProcessExitHook hook);

enum class StartedBy {
    Driver, // the start routine is driver code, and counts as such
    Host
};
// *thread gets a reference of its own for the caller.
[[nodiscard]] NTSTATUS StartSystemThread(PEPROCESS process, PKSTART_ROUTINE routine, PVOID context, StartedBy by,
                                         PETHREAD* thread);
// Joins the Linux threads of system threads that are signalled.
void JoinEndedThreads();
// One line per system thread that still runs.
void ReportSystemThreads(std::vector<std::string>& lines);

void BootProcesses();
void ShutdownProcesses(std::vector<std::string>& leaks);

} // namespace nthost::ps
