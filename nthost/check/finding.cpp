// Keeps and prints findings. One lock, taken last: a finding may be reported with any other lock held.
#include <nthost/check.h>

#include <atomic>
#include <cstdio>
#include <mutex>

#include "check/fatal.h"
#include "check/stack.h"

namespace nthost {

namespace {

std::mutex findingsLock;
std::vector<Finding> findings;
std::atomic<int> quiet;

} // namespace

void ReportFinding(std::string rule, std::string detail)
{
    Finding finding{std::move(rule), std::move(detail) + ThreadPlace(), CurrentStackText()};
    if (quiet.load() == 0)
        fprintf(stderr, "nthost: finding %s: %s\n%s", finding.Rule.c_str(), finding.Detail.c_str(),
                finding.Stack.c_str());
    std::lock_guard lock(findingsLock);
    findings.push_back(std::move(finding));
}

std::vector<Finding> TakeFindings()
{
    std::lock_guard lock(findingsLock);
    std::vector<Finding> taken;
    taken.swap(findings);
    return taken;
}

QuietFindings::QuietFindings() { ++quiet; }

QuietFindings::~QuietFindings() { --quiet; }

} // namespace nthost
