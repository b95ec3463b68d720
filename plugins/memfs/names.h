// Names and counted strings. Needs no lock: everything works on its arguments.
#pragma once

#include "pool.h"

namespace memfs {

constexpr ULONG kMaxNameCharacters = 255;

// Orders names by their upcased characters, with combining marks joined to their letters: a file made as e + acute
// accent has to be found as the one character, in either case. 0 means that they are the same name.
LONG CompareNames(const UNICODE_STRING& left, const UNICODE_STRING& right);

// What a component may be: 1 to 255 characters, none that NT keeps for paths, streams or wildcards, and not . or ..
bool IsLegalName(const UNICODE_STRING& name);

// The copy's text is one block of paged pool, the caller's to free.
[[nodiscard]] NTSTATUS CopyName(const UNICODE_STRING& from, UNICODE_STRING* to);

// A counted string with room for its text, in one block. Null when there is no memory.
UNICODE_STRING* AllocateString(USHORT bytes);

// STATUS_NOT_SUPPORTED if nothing in the text composes. The result is one block, the caller's to free.
[[nodiscard]] NTSTATUS ComposeString(const UNICODE_STRING& from, UNICODE_STRING** composed);

} // namespace memfs
