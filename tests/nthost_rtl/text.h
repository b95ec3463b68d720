// Counted strings for tests: an owner of 16-bit text that turns into what the routines take. The text is kept without a
// terminator in a block of its own, so that reading past its end is an error that the sanitizer sees.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <nthost/debug.h>

class Text {
public:
    // From UTF-8, or of so many units without content.
    explicit Text(std::string_view utf8) : Text(nthost::FromUtf8(utf8)) {}
    explicit Text(const std::u16string& text) : Text(text.size(), text.size())
    {
        for (size_t i = 0; i < text.size(); ++i) buffer_[i] = static_cast<WCHAR>(text[i]);
    }
    Text(size_t units, size_t capacity) : buffer_(new WCHAR[capacity])
    {
        string_ = {static_cast<USHORT>(units * 2), static_cast<USHORT>(capacity * 2), buffer_.get()};
    }

    // An empty string with room, filled with a pattern.
    static Text Room(size_t capacity)
    {
        Text text(0, capacity);
        for (size_t i = 0; i < capacity; ++i) text.buffer_[i] = '#';
        return text;
    }

    operator PUNICODE_STRING() { return &string_; }
    PUNICODE_STRING operator->() { return &string_; }
    std::string Utf8() { return nthost::ToUtf8(&string_); }
    // All units of the room, used or not.
    std::string Whole() { return nthost::ToUtf8(buffer_.get(), string_.MaximumLength / 2); }

private:
    std::unique_ptr<WCHAR[]> buffer_;
    UNICODE_STRING string_;
};
