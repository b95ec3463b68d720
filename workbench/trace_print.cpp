// Trace lines for people. A message of the driver is two texts on one thread, so the prefix waits in the thread for its
// message, and lines of several threads stay whole.
#include "workbench/trace.h"

#include <charconv>
#include <chrono>
#include <cstdio>
#include <utility>

#include <nthost/debug.h>
#include <nthost/requests.h>

namespace workbench {

namespace {

constexpr std::string_view kPrefix = "GVND-> ";

bool IsHexDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }

// Each 0x number of the text, with what stands before it; `each` says what follows it in the result.
template <typename Each>
std::string WithNumbers(const std::string& text, Each&& each)
{
    std::string result;
    size_t at = 0;
    for (size_t found; (found = text.find("0x", at)) != std::string::npos;) {
        size_t end = found + 2;
        while (end < text.size() && IsHexDigit(text[end])) ++end;
        uint64_t value = 0;
        std::from_chars(text.data() + found + 2, text.data() + end, value, 16);
        result += text.substr(at, found - at);
        result += each(std::string_view(text).substr(0, found), text.substr(found, end - found), value);
        at = end;
    }
    return result + text.substr(at);
}

bool HasName(NTSTATUS status) { return nthost::StatusName(status).starts_with("STATUS_"); }

// Errors and warnings with a name are statuses wherever they stand; any other number only where a status is told.
bool IsStatus(std::string_view before, uint64_t value)
{
    if (value > UINT32_MAX || !HasName(static_cast<NTSTATUS>(value))) return false;
    return value >= 0x80000000 || before.ends_with("status: ");
}

std::string Whole(const std::string& number, uint64_t value, const std::vector<const void*>& addresses)
{
    char text[24];
    for (const void* const address : addresses) {
        const auto whole = reinterpret_cast<uintptr_t>(address);
        if (value == 0 || static_cast<uint32_t>(whole) != value) continue;
        std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(whole));
        return text;
    }
    return number;
}

TraceOrigin Origin()
{
    static const auto start = std::chrono::steady_clock::now();
    const nthost::RequestAtWork request = nthost::CurrentRequest();
    TraceOrigin origin{std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), request.Number};
    origin.Addresses = {request.Irp, request.File, request.Device};
    return origin;
}

void PrintOne(std::string_view text, bool failuresOnly)
{
    static thread_local std::string prefix;
    if (text.starts_with(kPrefix)) {
        prefix = text;
        return;
    }
    const std::string message(text);
    const std::string before = std::exchange(prefix, {});
    if (failuresOnly && !TellsOfFailure(message)) return;
    const std::string line = TraceLine(before, message, Origin());
    std::fwrite(line.data(), 1, line.size(), stderr);
}

} // namespace

bool TellsOfFailure(const std::string& message)
{
    bool fails = false;
    WithNumbers(message, [&](std::string_view before, std::string number, uint64_t value) {
        fails = fails || (value >= 0x80000000 && IsStatus(before, value));
        return number;
    });
    return fails;
}

std::string TraceLine(const std::string& prefix, const std::string& message, const TraceOrigin& origin)
{
    char head[64];
    const std::string request = origin.Request ? "#" + std::to_string(origin.Request) : "";
    std::snprintf(head, sizeof head, "%12.6f %-7s %c ", origin.Seconds, request.c_str(),
                  TellsOfFailure(message) ? '!' : ' ');
    std::string body = WithNumbers(message, [&](std::string_view before, std::string number, uint64_t value) {
        if (IsStatus(before, value)) return number + " " + nthost::StatusName(static_cast<NTSTATUS>(value));
        return Whole(number, value, origin.Addresses);
    });
    const size_t end = body.find_last_not_of('\n');
    const bool closesRequest = body.ends_with("\n\n");
    body.erase(end == std::string::npos ? 0 : end + 1);
    return head + prefix + body + (closesRequest ? "\n\n" : "\n");
}

void PrintTrace(TracePrinting what)
{
    if (what == TracePrinting::Off) return nthost::SetDebugSink({});
    const bool failuresOnly = what == TracePrinting::Failures;
    nthost::SetDebugSink([failuresOnly](std::string_view text) { PrintOne(text, failuresOnly); });
}

} // namespace workbench
