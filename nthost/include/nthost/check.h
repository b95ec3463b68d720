// nthost's own checks of what drivers do: what was found, in what order. A finding names the rule, the request and the
// place; the default handler prints it to standard error and keeps it. On when NTHOST_CHECKS is 1 (dev, tsan), absent
// from release builds; findings that would corrupt the host (a pool block freed twice) are fatal everywhere.
#pragma once

#include <string>
#include <vector>

#ifndef NTHOST_CHECKS
#define NTHOST_CHECKS 1
#endif

namespace nthost {

struct Finding {
    std::string Rule;   // stable, short: "irp-completed-twice", "lock-held-at-return", ...
    std::string Detail; // objects, request, thread
    std::string Stack;  // symbolised, one frame a line; empty when not captured
};

// Thread-safe. Tests that provoke a finding take it; the fixture asserts that none is left.
void ReportFinding(std::string rule, std::string detail);
std::vector<Finding> TakeFindings();

// Puts a lock (resource, spin lock, mutex; already initialised) into a class for the lock-order check: orders seen on
// different locks of two classes then count together. Forgotten with the lock.
void NameLock(void* lock, const char* className);

// While one lives, findings are kept but not printed (for tests that provoke them).
class QuietFindings {
public:
    QuietFindings();
    ~QuietFindings();
    QuietFindings(const QuietFindings&) = delete;
    QuietFindings& operator=(const QuietFindings&) = delete;
};

} // namespace nthost
