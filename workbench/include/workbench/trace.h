// The driver's trace, recorded or printed.
#pragma once

#include <cstdint>
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

enum class TracePrinting { Off, Failures, Everything };
// On standard error, as it comes: a line for each message, as TraceLine makes it. Failures: only messages in which a
// failing status stands.
void PrintTrace(TracePrinting what);

// "    0.001234 #17     ! " and the driver's texts: seconds since the first line, the request's number, a mark for a
// failure; behind each status its name; and whole the addresses of the request's packet, file object and device, of
// which the driver prints the low 32 bits.
struct TraceOrigin {
    double Seconds = 0;
    uint64_t Request = 0; // 0: none
    std::vector<const void*> Addresses = {};
};
std::string TraceLine(const std::string& prefix, const std::string& message, const TraceOrigin& origin);
bool TellsOfFailure(const std::string& message);

} // namespace workbench
