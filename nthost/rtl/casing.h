// Case folding of single 16-bit units. The tables are constants in two levels: a page number for each upper byte, and
// for each page the distance from a unit to its other case. Nothing locks; any IRQL.
#pragma once

#include <cstdint>

#include <ntifs.h>

namespace nthost::rtl {

// Distances are added modulo 2^16. Page 0 is all zero: the pages without letters share it.
struct CaseMap {
    static constexpr unsigned MaximumPages = 24;
    uint8_t PageOf[256];
    uint16_t Distance[MaximumPages][256];

    constexpr WCHAR operator()(WCHAR c) const { return static_cast<WCHAR>(c + Distance[PageOf[c >> 8]][c & 0xff]); }
};

extern const CaseMap UpcaseMap;
extern const CaseMap DowncaseMap;

inline WCHAR Upcase(WCHAR c) { return UpcaseMap(c); }

} // namespace nthost::rtl
