// What the host's recorder kept, for people.
#pragma once

#include <string>

namespace tool {

// Counts of every request and plugin call since the process began, what failed and how often, and who waits now.
std::string Counts();

// A file for Perfetto, or any viewer of trace events: threads with their requests, the plugin calls and waits inside.
// Throws when it cannot be written whole.
void WriteTraceEvents(const std::string& file);

} // namespace tool
