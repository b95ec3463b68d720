// Copies one tree into another and verifies it by reading everything again on both sides: contents byte for byte,
// times, attributes, extended attributes and links. Import and export are this, with their ends exchanged.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "gvnd/tree.h"

namespace tool {

struct CopyTotals {
    uint64_t Directories = 0; // the top one included
    uint64_t Files = 0;
    uint64_t Links = 0;
    uint64_t Bytes = 0;
    double Seconds = 0;
    uint64_t Requests = 0; // that the driver was sent; filled by who has a session
    uint64_t PluginCalls = 0;
    std::vector<std::string> NotRepresentable; // names that the target cannot hold, links that lead out of the tree
    std::vector<std::string> NotKept;          // times, attributes, extended attributes that it has no place for
    std::vector<std::string> Problems;         // what could not be copied, and what did not agree
};

// The top directories must exist; what belongs to them themselves is not copied. What is in the target already and not
// in the source stays.
CopyTotals CopyTree(Tree& from, Tree& to, bool progress);

// Problems on standard error, the rest on standard output; "every byte agrees" if there were none. The exit code.
int PrintTotals(const CopyTotals& totals);

} // namespace tool
