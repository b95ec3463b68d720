// Import and export: the copier with a directory of this machine at one end and the mounted volume at the other.
#pragma once

#include <string>

#include "gvnd/copy.h"
#include "gvnd/session.h"

namespace tool {

// What is in the directory `from` goes into the volume's directory `to`, which is made with its parents if missing.
// Progress on standard error if that is a terminal.
CopyTotals ImportTree(Session& session, const std::string& from, const std::string& to);
// What is in the volume's directory `from` goes into the directory `to`, made likewise.
CopyTotals ExportTree(Session& session, const std::string& from, const std::string& to);

} // namespace tool
