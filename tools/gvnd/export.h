// Copies a tree out of the volume through the front door, and verifies it by reading everything again.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "gvnd/session.h"

namespace tool {

struct ExportTotals {
    uint64_t Directories = 0;
    uint64_t Files = 0;
    uint64_t Bytes = 0;
    uint64_t Skipped = 0; // links, which are not followed
    uint64_t Requests = 0;
    uint64_t PluginCalls = 0;
    double Seconds = 0;
    std::vector<std::string> Problems; // what could not be copied, and what did not agree
};

struct ExportJob {
    std::string From; // path in the volume
    std::string To;   // directory of the machine; made if missing
    bool Progress = false;
};

// Copies, then reads every file of the volume again and compares it with the copy.
ExportTotals ExportTree(Session& session, const ExportJob& job);
void PrintTotals(const ExportTotals& totals);

} // namespace tool
