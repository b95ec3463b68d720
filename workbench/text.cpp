// Counted text.
#include "workbench/text.h"

#include <stdexcept>

#include <nthost/debug.h>

namespace workbench {

namespace {

constexpr size_t kMost = 0xfffe / sizeof(WCHAR);

} // namespace

Text::Text(std::string_view utf8) : Text(nthost::FromUtf8(utf8)) {}

Text::Text(std::u16string_view text) : text_(text.begin(), text.end()) { Point(text.size()); }

Text::Text(const Text& other) : text_(other.text_) { Point(other.string_.Length / sizeof(WCHAR)); }

Text Text::Room(size_t capacity)
{
    Text text;
    text.text_.resize(capacity);
    text.Point(0);
    return text;
}

void Text::Point(size_t characters)
{
    if (text_.size() > kMost) {
        const std::string shown = nthost::ToUtf8(text_.data(), 40);
        throw std::length_error("a name is longer than NT can carry: " + shown + "...");
    }
    text_.reserve(1); // an empty text has an address too
    string_ = {static_cast<USHORT>(characters * sizeof(WCHAR)), static_cast<USHORT>(text_.size() * sizeof(WCHAR)),
               text_.data()};
}

std::string Text::Utf8() const { return nthost::ToUtf8(&string_); }

std::u16string Text::Units() const
{
    return {reinterpret_cast<const char16_t*>(string_.Buffer), string_.Length / sizeof(WCHAR)};
}

std::string Utf8(const WCHAR* text, size_t bytes) { return nthost::ToUtf8(text, bytes / sizeof(WCHAR)); }

} // namespace workbench
