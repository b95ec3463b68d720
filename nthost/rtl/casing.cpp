// The case tables, expanded at compile time from the runs in case_table.inc, and the routines that fold one unit. The
// downcase table is the exact inverse of the letter pairs.

#include "rtl/casing.h"

namespace nthost::rtl {
namespace {

struct CaseRun {
    uint16_t First;
    uint16_t Last;
    uint16_t Stride;
    int32_t Delta;
};

constexpr CaseRun kRuns[] = {
#include "rtl/case_table.inc"
};

constexpr unsigned kFinalSigma = 0x03c2;
constexpr unsigned kCapitalSigma = 0x03a3;

struct Builder {
    CaseMap Map{};
    unsigned Pages = 1;

    // Running out of pages is an index out of range, which ends the compilation.
    constexpr void Add(unsigned from, unsigned to)
    {
        uint8_t& page = Map.PageOf[from >> 8];
        if (page == 0) page = static_cast<uint8_t>(Pages++);
        Map.Distance[page][from & 0xff] = static_cast<uint16_t>(to - from);
    }
};

constexpr CaseMap BuildUpcase()
{
    Builder builder;
    for (const CaseRun& run : kRuns)
        for (unsigned c = run.First; c <= run.Last; c += run.Stride)
            builder.Add(c, static_cast<unsigned>(c + run.Delta));
    builder.Add(kFinalSigma, kCapitalSigma);
    return builder.Map;
}

constexpr CaseMap BuildDowncase()
{
    Builder builder;
    for (const CaseRun& run : kRuns)
        for (unsigned c = run.First; c <= run.Last; c += run.Stride)
            builder.Add(static_cast<unsigned>(c + run.Delta), c);
    return builder.Map;
}

} // namespace

constexpr CaseMap UpcaseMap = BuildUpcase();
constexpr CaseMap DowncaseMap = BuildDowncase();

} // namespace nthost::rtl

WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR SourceCharacter) { return nthost::rtl::UpcaseMap(SourceCharacter); }

WCHAR NTAPI RtlDowncaseUnicodeChar(WCHAR SourceCharacter) { return nthost::rtl::DowncaseMap(SourceCharacter); }
