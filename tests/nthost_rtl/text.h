// Counted strings for tests of the string routines: what the workbench has, and room whose filling shows what was
// touched.
#pragma once

#include <algorithm>

#include <nthost/debug.h>
#include <workbench/text.h>

using workbench::Text;

// An empty string with room, filled with '#'.
inline Text Room(size_t capacity)
{
    Text text = Text::Room(capacity);
    std::fill_n(text->Buffer, capacity, L'#');
    return text;
}

// All characters of the room, used or not.
inline std::string Whole(Text& text) { return workbench::Utf8(text->Buffer, text->MaximumLength); }
