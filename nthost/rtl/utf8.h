// 16-bit text and UTF-8, one character at a time. What is no character (an unpaired surrogate, a sequence of bytes that
// is cut off or overlong) becomes U+FFFD.
#pragma once

#include <cstddef>
#include <string_view>

#include <ntifs.h>

namespace nthost::rtl {

constexpr char32_t kReplacement = 0xfffd;

// Takes the first character off the text of `units` units (at least 1): its scalar value, and in *used how many units
// it was.
char32_t DecodeUtf16(const WCHAR* text, size_t units, size_t* used);
// The same of UTF-8 text, which is not empty. Of a bad sequence as many bytes are taken off as could have begun a good
// one, so that each gives one U+FFFD.
char32_t DecodeUtf8(std::string_view text, size_t* used);
// Writes at most 4 bytes; returns how many.
size_t EncodeUtf8(char32_t character, char* out);
// How many of the bytes remain when a character cut off at the end is dropped.
size_t WholeUtf8(const char* text, size_t bytes);

} // namespace nthost::rtl
