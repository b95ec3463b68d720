// Weights, words and noise.

#include "content_operation.h"

#include <algorithm>

#include <nthost/debug.h>

namespace model {
namespace {

struct VerbRow {
    unsigned Weight;
    ContentVerb Verb;
    const char* Word;
};
constexpr VerbRow kVerbs[] = {
    {22, ContentVerb::Read, "read"},
    {24, ContentVerb::Write, "write"},
    {5, ContentVerb::SetEnd, "set end"},
    {2, ContentVerb::SetAllocation, "set allocation"},
    {2, ContentVerb::Overwrite, "overwrite"},
    {2, ContentVerb::Flush, "flush"},
    {3, ContentVerb::QueryEnd, "query end"},
    {3, ContentVerb::QueryPosition, "query position"},
    {3, ContentVerb::SetPosition, "set position"},
    {6, ContentVerb::Map, "map"},
    {5, ContentVerb::Unmap, "unmap"},
    {10, ContentVerb::ReadView, "read view"},
    {10, ContentVerb::WriteView, "write view"},
    {4, ContentVerb::FlushView, "flush view"},
    {2, ContentVerb::WriteBack, "write back changed pages"},
    {2, ContentVerb::Trim, "trim sections"},
    {5, ContentVerb::WriteFromView, "write from view"},
};
constexpr const char* kThrough[] = {"synchronous", "asynchronous", "appending"};

// The driver cuts writes at 64 KiB, pages are 4 KiB.
constexpr ULONG kLimits[] = {0, 1, 16, 600, 600, 5000, 5000, 5000, 20000, 70000, 150000};
constexpr LONGLONG kLargest = 300'000;

ULONG Below(std::mt19937* random, ULONG limit) { return static_cast<ULONG>((*random)() % limit); }

const VerbRow& DrawVerb(std::mt19937* random)
{
    unsigned total = 0;
    for (const VerbRow& row : kVerbs) total += row.Weight;
    unsigned at = Below(random, total);
    const VerbRow* row = kVerbs;
    while (at >= row->Weight) at -= (row++)->Weight;
    return *row;
}

// Small files are where ends meet, so small offsets come most.
LONGLONG DrawOffset(std::mt19937* random)
{
    constexpr ULONG limits[] = {100, 5000, 5000, 20000, 80000, kLargest};
    const ULONG offset = Below(random, limits[Below(random, std::size(limits))]);
    const bool aligned = Below(random, 6) == 0;
    return aligned ? offset & ~0xfffu : offset;
}

std::string PlaceOf(const ContentOperation& operation)
{
    if (operation.At == At::Position) return " at the position";
    return operation.At == At::End ? " at the end" : " at " + std::to_string(operation.Offset);
}

std::string Noisy(size_t length)
{
    std::mt19937 random(1);
    std::string noise(length, '\0');
    std::generate(noise.begin(), noise.end(), [&] { return static_cast<char>(random()); });
    return noise;
}

} // namespace

ContentOperation DrawContent(std::mt19937* random)
{
    const ULONG limit = kLimits[Below(random, std::size(kLimits))];
    const ULONG kind = Below(random, 10);
    const ULONG place = Below(random, 10);
    ContentOperation operation{};
    operation.Verb = DrawVerb(random).Verb;
    operation.Through = kind < 5 ? Through::Synchronous : kind < 9 ? Through::Asynchronous : Through::Appending;
    operation.At = place < 7 ? At::Offset : place < 9 ? At::Position : At::End;
    operation.Offset = DrawOffset(random);
    operation.Length = limit ? 1 + Below(random, limit) : 0;
    operation.Fill = Below(random, 10000);
    operation.View = Below(random, kViews);
    operation.ViewOffset = static_cast<ULONG>(DrawOffset(random));
    return operation;
}

std::string Describe(const ContentOperation& operation)
{
    const auto is = [&](ContentVerb verb) { return operation.Verb == verb; };
    const auto row = std::find_if(std::begin(kVerbs), std::end(kVerbs), [&](const VerbRow& it) { return is(it.Verb); });
    std::string text = row->Word;
    const std::string view = " #" + std::to_string(operation.View);
    const std::string length = ", " + std::to_string(operation.Length) + " bytes";
    if (is(ContentVerb::Read) || is(ContentVerb::Write)) {
        return text + ", " + kThrough[static_cast<int>(operation.Through)] + "," + PlaceOf(operation) + length;
    }
    if (is(ContentVerb::SetEnd) || is(ContentVerb::SetAllocation) || is(ContentVerb::SetPosition)) {
        return text + " " + std::to_string(operation.Offset);
    }
    if (is(ContentVerb::Map) || is(ContentVerb::Unmap)) return text + view;
    if (is(ContentVerb::WriteFromView)) {
        return text + view + " at " + std::to_string(operation.ViewOffset) + length + "," + PlaceOf(operation);
    }
    const bool touches = is(ContentVerb::ReadView) || is(ContentVerb::WriteView) || is(ContentVerb::FlushView);
    return touches ? text + view + " at " + std::to_string(operation.ViewOffset) + length : text;
}

std::string Describe(const ContentOutcome& outcome)
{
    return nthost::StatusName(outcome.Status) + ", information " + std::to_string(outcome.Information) + ", value " +
           std::to_string(outcome.Value) + ", " + std::to_string(outcome.Bytes.size()) + " bytes";
}

std::string Noise(ULONG fill, ULONG length)
{
    static const std::string noise = Noisy(200'000);
    return noise.substr(fill, length);
}

} // namespace model
