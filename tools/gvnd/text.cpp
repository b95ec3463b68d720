// Reading and printing of what people type (text.h).
#include "gvnd/text.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "gvnd/status.h"

namespace tool {

namespace {

constexpr int64_t kUnitsPerSecond = 10'000'000;
constexpr int64_t kSecondsTo1970 = 11'644'473'600;

constexpr std::pair<ULONG, char> kAttributeLetters[] = {
    {FILE_ATTRIBUTE_READONLY, 'R'},  {FILE_ATTRIBUTE_HIDDEN, 'H'},  {FILE_ATTRIBUTE_SYSTEM, 'S'},
    {FILE_ATTRIBUTE_DIRECTORY, 'D'}, {FILE_ATTRIBUTE_ARCHIVE, 'A'}, {FILE_ATTRIBUTE_REPARSE_POINT, 'L'},
};

// 0 if the letter is none of those that can be set.
ULONG SettableBit(char letter)
{
    for (const auto& [bit, name] : kAttributeLetters) {
        const bool fixed = name == 'D' || name == 'L';
        if (!fixed && (letter == name || letter == name + ('a' - 'A'))) return bit;
    }
    return 0;
}

unsigned UnitShift(char letter)
{
    switch (letter) {
    case 'K': return 10;
    case 'M': return 20;
    case 'G': return 30;
    case 'T': return 40;
    default: return 0;
    }
}

bool IsPrintable(char c) { return c >= ' ' && c < '\x7f'; }

} // namespace

uint64_t Number(const std::string& text)
{
    uint64_t value = 0;
    const bool hex = text.starts_with("0x");
    const unsigned shift = text.empty() || hex ? 0 : UnitShift(text.back());
    const char* const first = text.data() + (hex ? 2 : 0);
    const char* const last = text.data() + text.size() - (shift ? 1 : 0);
    const auto [end, error] = std::from_chars(first, last, value, hex ? 16 : 10);
    if (error != std::errc() || end != last || first == end || (value << shift) >> shift != value) {
        throw Usage(fmt::format("'{}' is not a number", text));
    }
    return value << shift;
}

bool Switch(const std::string& word)
{
    if (word == "on") return true;
    if (word == "off") return false;
    throw Usage("say on or off");
}

std::string TimeText(int64_t time)
{
    if (time == 0) return "-";
    const time_t seconds = static_cast<time_t>(time / kUnitsPerSecond - kSecondsTo1970);
    tm parts{};
    gmtime_r(&seconds, &parts);
    char text[32];
    return {text, strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts)};
}

int64_t Now()
{
    LARGE_INTEGER time;
    KeQuerySystemTime(&time);
    return time.QuadPart;
}

int64_t ParseTime(const std::string& text)
{
    if (text == "now") return Now();
    std::string normal = text;
    std::replace(normal.begin(), normal.end(), 'T', ' ');
    for (const char* const format : {"%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%d"}) {
        tm parts{};
        const char* const end = strptime(normal.c_str(), format, &parts);
        if (end && *end == '\0') return (timegm(&parts) + kSecondsTo1970) * kUnitsPerSecond;
    }
    throw Usage(fmt::format("'{}' is no time; say 2026-11-24T13:05:00 (UTC), a part of that, or now", text));
}

std::string AttributeText(ULONG attributes)
{
    std::string text;
    for (const auto& [bit, letter] : kAttributeLetters) text += attributes & bit ? letter : '-';
    return text;
}

ULONG ChangeAttributes(ULONG attributes, const std::string& change)
{
    char sign = 0;
    for (const char c : change) {
        if (c == '+' || c == '-' || c == '=') {
            sign = c;
            if (c == '=') attributes &= FILE_ATTRIBUTE_DIRECTORY;
            continue;
        }
        const ULONG bit = SettableBit(c);
        if (bit == 0 || sign == 0) throw Usage(fmt::format("'{}': say +, - or = and letters of r h s a", change));
        attributes = sign == '-' ? attributes & ~bit : attributes | bit;
    }
    return attributes;
}

namespace {

char EscapedByte(const std::string& text, size_t* at)
{
    const char letter = text[*at];
    switch (letter) {
    case 'n': return '\n';
    case 't': return '\t';
    case '0': return '\0';
    case '\\': return '\\';
    case 'x': {
        unsigned value = 0;
        const char* const digits = text.data() + *at + 1;
        const auto [end, error] = std::from_chars(digits, std::min(digits + 2, text.data() + text.size()), value, 16);
        if (error != std::errc() || end != digits + 2) throw Usage("\\x wants two hexadecimal digits");
        *at += 2;
        return static_cast<char>(value);
    }
    default: throw Usage(fmt::format("'\\{}' means nothing; there are \\n \\t \\0 \\\\ and \\xHH", letter));
    }
}

} // namespace

std::string Unescape(const std::string& text)
{
    std::string bytes;
    for (size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '\\') {
            bytes += text[at];
        } else if (++at == text.size()) {
            throw Usage("a text ends in a single \\");
        } else {
            bytes += EscapedByte(text, &at);
        }
    }
    return bytes;
}

std::string BytesText(std::string_view bytes)
{
    constexpr size_t kShown = 64;
    const std::string_view shown = bytes.substr(0, kShown);
    const char* const more = bytes.size() > kShown ? "..." : "";
    if (std::all_of(shown.begin(), shown.end(), IsPrintable)) return fmt::format("\"{}\"{}", shown, more);
    std::string text;
    for (const char c : shown) text += fmt::format("{:02x}", static_cast<unsigned char>(c));
    return text + more;
}

void PrintHex(uint64_t offset, std::string_view bytes)
{
    constexpr size_t kPerLine = 16;
    for (size_t at = 0; at < bytes.size(); at += kPerLine) {
        const std::string_view line = bytes.substr(at, kPerLine);
        std::string numbers, letters;
        for (const char c : line) {
            numbers += fmt::format("{:02x} ", static_cast<unsigned char>(c));
            letters += IsPrintable(c) ? c : '.';
        }
        fmt::print("{:08x}  {:<48} {}\n", offset + at, numbers, letters);
    }
}

namespace {

// Where a line's last column begins, behind two blanks or more; else where its text does.
size_t HangingIndent(std::string_view line, size_t columns)
{
    const size_t begin = std::min(line.find_first_not_of(' '), line.size());
    const size_t gap = line.rfind("  ", columns / 2 + columns / 4);
    return gap == std::string_view::npos || gap < begin ? begin : gap + 2;
}

} // namespace

std::string Wrapped(std::string_view text, size_t columns)
{
    std::string wrapped;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        std::string line(text.substr(at, end - at));
        at = end + 1;
        const size_t indent = HangingIndent(line, columns);
        while (line.size() > columns) {
            const size_t blank = line.rfind(' ', columns);
            if (blank == std::string::npos || blank <= indent) break; // one word
            wrapped += line.substr(0, line.find_last_not_of(' ', blank) + 1) + '\n';
            line = std::string(indent, ' ') + line.substr(blank + 1);
        }
        wrapped += line + '\n';
    }
    return wrapped;
}

std::string SizeText(uint64_t bytes)
{
    constexpr const char* kUnits[] = {"B", "KB", "MB", "GB", "TB", "PB"};
    double value = static_cast<double>(bytes);
    size_t unit = 0;
    while (value >= 1000 && unit + 1 < std::size(kUnits)) value /= 1000, ++unit;
    return unit == 0 ? fmt::format("{} B", bytes) : fmt::format("{:.1f} {}", value, kUnits[unit]);
}

SplitPath SplitLast(const std::string& path)
{
    const size_t slash = path.find_last_of("/\\");
    if (slash == std::string::npos) return {"/", path};
    return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

std::string ResolvePath(const std::string& directory, const std::string& path)
{
    const auto separates = [](char c) { return c == '/' || c == '\\'; };
    if (!path.empty() && separates(path.front())) return path;
    std::vector<std::string> components;
    const std::string whole = directory + "/" + path;
    for (size_t at = 0; at < whole.size();) {
        const size_t end = std::min(whole.find_first_of("/\\", at), whole.size());
        const std::string component = whole.substr(at, end - at);
        at = end + 1;
        if (component == "..") {
            if (!components.empty()) components.pop_back();
        } else if (!component.empty() && component != ".") {
            components.push_back(component);
        }
    }
    std::string resolved;
    for (const std::string& component : components) resolved += "/" + component;
    // What asks for a directory still does.
    if (resolved.empty() || (!path.empty() && separates(path.back()))) resolved += '/';
    return resolved;
}

bool IsPattern(const std::string& name) { return name.find_first_of("*?<>\"") != std::string::npos; }

} // namespace tool
