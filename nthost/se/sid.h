// SIDs by value, and their text form.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <ntifs.h>

namespace nthost::se {

// As long as the longest.
struct Sid {
    ULONG Words[(FIELD_OFFSET(SID, SubAuthority) / sizeof(ULONG)) + SID_MAX_SUB_AUTHORITIES] = {};

    PSID Get() const { return const_cast<ULONG*>(Words); }
};

// Copies a valid SID.
Sid SidOf(PSID sid);

// "S-1-5-32-544" at the start of the text; *used characters of it. Authorities in decimal, or in hexadecimal with 0x.
std::optional<Sid> ParseSid(std::u16string_view text, size_t* used);
// The whole text, ASCII; anything else ends the process, since it is a mistake in the program.
Sid SidFromText(std::string_view text);

} // namespace nthost::se
