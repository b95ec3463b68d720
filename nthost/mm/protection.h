// What a page protection means for a section and its views.
#pragma once

#include <ntifs.h>

namespace nthost::mm {

struct Protection {
    ULONG Value;          // PAGE_...
    ACCESS_MASK File;     // that a section with it needs on its file
    ACCESS_MASK Section;  // that a view with it needs on its section
    ULONG AllowedInViews; // of a section with it
    bool Readable;
    bool Writable;
    bool CopiesOnWrite;
};

// Null unless the value is exactly one of the eight.
const Protection* FindProtection(ULONG value);

} // namespace nthost::mm
