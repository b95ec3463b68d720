#include "gvnd/recording.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <nthost/debug.h>
#include <nthost/recorder.h>

namespace tool {

namespace {

using nlohmann::json;
using nthost::RecordedSpan;
using nthost::SpanKind;

double Microseconds(std::chrono::nanoseconds time) { return static_cast<double>(time.count()) / 1000; }

// Three digits of it, with its unit.
std::string Short(std::chrono::nanoseconds time)
{
    double value = static_cast<double>(time.count());
    const char* const units[] = {"ns", "us", "ms", "s"};
    size_t unit = 0;
    for (; value >= 999.5 && unit + 1 < std::size(units); ++unit) value /= 1000;
    return fmt::format("{:.{}f} {}", value, value < 9.995 && unit ? 2 : value < 99.95 && unit ? 1 : 0, units[unit]);
}

const char* CategoryOf(SpanKind kind)
{
    switch (kind) {
    case SpanKind::Request: return "request";
    case SpanKind::Call: return "plugin";
    case SpanKind::Wait: break;
    }
    return "wait";
}

json ArgumentsOf(const RecordedSpan& span)
{
    json arguments = {{"request", span.Request}};
    if (span.Kind == SpanKind::Wait) {
        arguments["address"] = fmt::format("{:#x}", span.Value);
    } else {
        arguments["status"] = nthost::StatusName(span.Status);
        arguments["bytes"] = span.Value;
    }
    return arguments;
}

// A slice of one thread.
json Slice(const RecordedSpan& span, std::string name, std::chrono::nanoseconds begin)
{
    return {{"ph", "X"},
            {"pid", 1},
            {"tid", span.Thread},
            {"cat", CategoryOf(span.Kind)},
            {"name", std::move(name)},
            {"ts", Microseconds(begin)},
            {"dur", Microseconds(span.Begin + span.Length - begin)},
            {"args", ArgumentsOf(span)}};
}

// A request that ended on another thread than the one that sent it belongs to neither: a track of its own, by its
// number.
void AppendAsynchronous(json& events, const RecordedSpan& span)
{
    json event = {{"ph", "b"},
                  {"pid", 1},
                  {"tid", span.BegunBy},
                  {"cat", "pended request"},
                  {"id", span.Request},
                  {"name", span.Name},
                  {"ts", Microseconds(span.Begin)},
                  {"args", ArgumentsOf(span)}};
    events.push_back(event);
    event["ph"] = "e";
    event["ts"] = Microseconds(span.Begin + span.Length);
    event.erase("args");
    events.push_back(std::move(event));
}

std::string NameOf(const RecordedSpan& span)
{
    return span.Kind == SpanKind::Wait ? fmt::format("waits for {}", span.Name) : std::string(span.Name);
}

json TraceEvents()
{
    const std::vector<RecordedSpan> spans = nthost::RecordedSpans();          // by their beginnings
    std::map<std::pair<uint64_t, uint32_t>, std::chrono::nanoseconds> served; // by request and thread
    std::set<uint32_t> threads;
    json events = json::array();
    for (const RecordedSpan& span : spans) {
        threads.insert({span.Thread, span.BegunBy});
        if (span.Kind != SpanKind::Request) served.try_emplace({span.Request, span.Thread}, span.Begin);
    }
    for (const RecordedSpan& span : spans) {
        if (span.Thread == span.BegunBy) {
            events.push_back(Slice(span, NameOf(span), span.Begin));
            continue;
        }
        AppendAsynchronous(events, span);
        // What is known of the work of the thread that ended it begins with the first thing that it did for it.
        if (const auto first = served.find({span.Request, span.Thread}); first != served.end())
            events.push_back(Slice(span, fmt::format("{} (served)", span.Name), first->second));
    }
    for (const uint32_t thread : threads)
        events.push_back({{"ph", "M"},
                          {"pid", 1},
                          {"tid", thread},
                          {"name", "thread_name"},
                          {"args", {{"name", nthost::RecordedThreadName(thread)}}}});
    events.push_back({{"ph", "M"}, {"pid", 1}, {"name", "process_name"}, {"args", {{"name", "gvnd"}}}});
    return events;
}

std::string TableOf(SpanKind kind, const char* title)
{
    std::string text;
    for (const nthost::SpanCounts& counts : nthost::RecordedCounts()) {
        if (counts.Kind != kind) continue;
        if (text.empty())
            text =
                fmt::format("{:<32} {:>9} {:>9} {:>8} {:>8} {:>8}\n", title, "count", "bytes", "median", "p99", "all");
        text += fmt::format("{:<32} {:>9} {:>9} {:>8} {:>8} {:>8}\n", counts.Name, counts.Count, counts.Bytes,
                            Short(counts.Median), Short(counts.P99), Short(counts.Total));
        for (const auto& [status, count] : counts.Failures)
            text += fmt::format("  {:<30} {:>9}\n", status ? nthost::StatusName(status) : "other statuses", count);
    }
    return text;
}

} // namespace

std::string Counts()
{
    std::string text = TableOf(SpanKind::Request, "requests") + TableOf(SpanKind::Call, "plugin calls") +
                       TableOf(SpanKind::Wait, "waits in requests");
    for (const nthost::WaitNow& wait : nthost::WaitsNow())
        text += fmt::format("{} waits for {} at {} since {}, in request {}\n", nthost::RecordedThreadName(wait.Thread),
                            wait.What, wait.Address, Short(wait.Since), wait.Request);
    return text;
}

void WriteTraceEvents(const std::string& file)
{
    std::ofstream out(file);
    out << json{{"displayTimeUnit", "ns"}, {"traceEvents", TraceEvents()}}.dump() << '\n' << std::flush;
    if (!out) throw std::runtime_error(fmt::format("cannot write {}: {}", file, std::strerror(errno)));
}

} // namespace tool
