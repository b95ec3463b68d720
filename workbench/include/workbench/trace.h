// The driver's trace, recorded or printed.
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace workbench {

// What was traced while this lives, message by message. One at a time, and none beside PrintTrace.
class TraceLog {
public:
    TraceLog();
    ~TraceLog();
    TraceLog(const TraceLog&) = delete;
    TraceLog& operator=(const TraceLog&) = delete;

    // Whole DbgPrint texts in order: each message of the driver is one prefix and one text.
    std::vector<std::string> Texts() const;
    bool Contains(const std::string& part) const;
    size_t Count(const std::string& part) const;
    void Clear();

private:
    mutable std::mutex mutex_;
    std::vector<std::string> texts_;
};

// On standard error, as it comes.
void PrintTrace(bool on);

} // namespace workbench
