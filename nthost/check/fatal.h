// The end of the road: conditions under which the host cannot go on. Callable from the fault handler and on threads
// that are not attached.
#pragma once

#include <string>

#include <nthost/check.h>

namespace nthost {

// Prints the message, the current request, the held locks and a stack trace to standard error, and aborts.
[[noreturn]] void Fatal(const char* format, ...) __attribute__((format(printf, 1, 2)));
// A finding after which the host's state cannot be trusted: reported as one, then fatal.
[[noreturn]] void FatalFinding(const char* rule, const std::string& detail);

// What the current thread is and does, which only those above know. Called from anywhere: takes no lock.
struct ThreadTexts {
    std::string (*Lines)(); // ids, IRQL, critical regions, request, held locks; empty if the thread is not attached
    std::string (*Place)(); // the same in short, for findings: " [thread ...]"
};
void SetThreadTexts(const ThreadTexts* texts);
std::string ThreadPlace();
std::string ThreadReport(); // Lines

} // namespace nthost
