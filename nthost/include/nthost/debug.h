// Where DbgPrint goes, and formatting of its formats for others. The sink is called with the text of one DbgPrint call,
// UTF-8, at most 512 bytes, from any thread; it must not call NT routines. Nobody listening costs a load and a branch.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include <ntifs.h>

namespace nthost {

using DebugSink = std::function<void(std::string_view text)>;
// Replaces the sink; an empty one stops the output. Waits for calls in progress.
void SetDebugSink(DebugSink sink);
// Whether anyone listens.
bool DebugOutputWanted();

// 16-bit text to UTF-8 (unpaired surrogates become U+FFFD) and back.
std::string ToUtf8(PCUNICODE_STRING text);
std::string ToUtf8(const WCHAR* text, size_t characters);
std::basic_string<char16_t> FromUtf8(std::string_view text);

// "STATUS_ACCESS_DENIED" for the statuses of nt/status.h, else "0xc0000022"-style hexadecimal.
std::string StatusName(NTSTATUS status);

} // namespace nthost
