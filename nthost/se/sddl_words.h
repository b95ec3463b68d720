// The words of SDDL text: SIDs, rights, flags. Each reader takes its word from the front of the text, case ignored, and
// leaves the text alone if it is not there.
#pragma once

#include <optional>
#include <string_view>

#include "se/sid.h"

namespace nthost::se {

using Text = std::u16string_view;

void SkipBlanks(Text* text);
// After blanks.
bool TakeWord(Text* text, Text word);

// A two-letter name or "S-1-...".
std::optional<Sid> TakeSid(Text* text);
// A number in base 16 (0x), 8 (0) or 10, or any number of two-letter names; up to the semicolon. Null for anything
// else.
std::optional<ACCESS_MASK> TakeRights(Text* text);
// The flags of an entry, up to the semicolon.
std::optional<UCHAR> TakeAceFlags(Text* text);

struct ListFlags {
    bool IsProtected = false;
    bool RequestsInheritance = false;
    bool IsInherited = false;
    bool IsNull = false; // no list at all: everybody may do everything
};
ListFlags TakeListFlags(Text* text);

} // namespace nthost::se
