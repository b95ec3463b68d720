// Counted 16-bit text from what people write: UTF-8, or 16-bit literals.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <gvnd/plugin.h>

namespace workbench {

// Text and its counted header. The text stands in a block of exactly its size, so that a sanitizer sees who reads
// behind its end. Whoever takes it as an out parameter changes the header alone.
class Text {
public:
    // std::length_error for more than a counted string can hold.
    Text(std::string_view utf8);
    Text(const std::string& utf8) : Text(std::string_view(utf8)) {}
    Text(const char* utf8) : Text(std::string_view(utf8)) {}
    Text(std::u16string_view text);
    Text(const std::u16string& text) : Text(std::u16string_view(text)) {}
    Text(const char16_t* text) : Text(std::u16string_view(text)) {}
    Text(const WCHAR* text) : Text(std::u16string_view(reinterpret_cast<const char16_t*>(text))) {}
    // Empty, with room for so many characters.
    static Text Room(size_t capacity);

    Text(const Text& other);
    Text& operator=(const Text&) = delete;

    PUNICODE_STRING Get() { return &string_; }
    PCUNICODE_STRING Get() const { return &string_; }
    operator PUNICODE_STRING() { return &string_; }
    operator PCUNICODE_STRING() const { return &string_; }
    PUNICODE_STRING operator->() { return &string_; }

    std::string Utf8() const;
    std::u16string Units() const;
    // As a link's or a label's bytes.
    std::string_view Bytes() const { return {reinterpret_cast<const char*>(string_.Buffer), string_.Length}; }

private:
    Text() = default;
    void Point(size_t characters);

    std::vector<WCHAR> text_;
    UNICODE_STRING string_{};
};

// For records that carry text in place: their bytes and length.
std::string Utf8(const WCHAR* text, size_t bytes);

} // namespace workbench
