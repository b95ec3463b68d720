// Names as text: UTF-8, composed as the volume composes them, and folded for comparison. The sequences use ASCII
// letters and one accented letter in its spellings, so two replacements are all the Unicode there is.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace model {

// A letter and its accent become one.
std::string Compose(std::string text);
// Equal for equal names.
std::string Fold(std::string text);
// With one backslash between them.
std::string Join(std::string_view directory, std::string_view name);
std::vector<std::string> Components(std::string_view path);
std::string_view Leaf(std::string_view path);
std::string_view Directory(std::string_view path);
size_t Characters(std::string_view utf8); // 16-bit ones

} // namespace model
