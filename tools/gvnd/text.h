// Words that people type and read: numbers, sizes, times, attributes, bytes. Pure functions; what cannot be read throws
// Usage with what was expected.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <ntifs.h>

namespace tool {

// Decimal, hexadecimal behind 0x, or with one of the letters K M G T behind it, which count in 1024.
uint64_t Number(const std::string& text);
// "on" or "off".
bool Switch(const std::string& word);

// 100 ns since 1601 as "2026-11-24 13:05:00" UTC; "-" for 0.
std::string TimeText(int64_t time);
// The same with a T or a blank in the middle, the time of day or the seconds left out, or "now".
int64_t ParseTime(const std::string& text);
int64_t Now();

// "RHSDAL" with dashes for what is not set.
std::string AttributeText(ULONG attributes);
// Applies "+r", "-h+s", "=a", in any order and case; letters r h s a.
ULONG ChangeAttributes(ULONG attributes, const std::string& change);

// \n \t \\ \0 and \xHH.
std::string Unescape(const std::string& text);
// Printable text in double quotes, else hexadecimal; at most 64 bytes of it.
std::string BytesText(std::string_view bytes);
// Lines of sixteen bytes, with their offsets and what can be printed.
void PrintHex(uint64_t offset, std::string_view bytes);

// Lines of at most that many columns. What is broken goes on below the last column of the line, or its beginning.
std::string Wrapped(std::string_view text, size_t columns = 80);

// "1.5 GB".
std::string SizeText(uint64_t bytes);

// A path of the volume as its directory and last component; '/' and '\' both separate.
struct SplitPath {
    std::string Directory;
    std::string Last;
};
SplitPath SplitLast(const std::string& path);
// A path that does not begin at the root begins at the directory; its . and .. are resolved by their text. One from the
// root is left as it is, for the file system to judge.
std::string ResolvePath(const std::string& directory, const std::string& path);
bool IsPattern(const std::string& name);

} // namespace tool
