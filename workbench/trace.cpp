// Sinks for the driver's trace.
#include "workbench/trace.h"

#include <cstdio>

#include <nthost/debug.h>

namespace workbench {

TraceLog::TraceLog()
{
    nthost::SetDebugSink([this](std::string_view text) {
        const std::lock_guard lock(mutex_);
        texts_.emplace_back(text);
    });
}

TraceLog::~TraceLog() { nthost::SetDebugSink({}); }

std::vector<std::string> TraceLog::Texts() const
{
    const std::lock_guard lock(mutex_);
    return texts_;
}

size_t TraceLog::Count(const std::string& part) const
{
    size_t count = 0;
    for (const std::string& text : Texts()) count += text.find(part) != std::string::npos;
    return count;
}

bool TraceLog::Contains(const std::string& part) const { return Count(part) != 0; }

void TraceLog::Clear()
{
    const std::lock_guard lock(mutex_);
    texts_.clear();
}

} // namespace workbench
