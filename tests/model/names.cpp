// Text only; no state.

#include "names.h"

#include <algorithm>

namespace model {
namespace {

void ReplaceAll(std::string* text, std::string_view from, std::string_view to)
{
    for (size_t at = 0; (at = text->find(from, at)) != std::string::npos; at += to.size()) {
        text->replace(at, from.size(), to);
    }
}

} // namespace

std::string Compose(std::string text)
{
    ReplaceAll(&text, "e\u0301", "\u00e9");
    ReplaceAll(&text, "E\u0301", "\u00c9");
    return text;
}

std::string Fold(std::string text)
{
    text = Compose(std::move(text));
    ReplaceAll(&text, "\u00e9", "\u00c9");
    for (char& c : text) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - ('a' - 'A'));
    }
    return text;
}

std::string Join(std::string_view directory, std::string_view name)
{
    std::string path(directory);
    if (!path.ends_with('\\')) path += '\\';
    return path += name;
}

std::vector<std::string> Components(std::string_view path)
{
    std::vector<std::string> components;
    while (!path.empty()) {
        const size_t end = std::min(path.find('\\'), path.size());
        if (end) components.emplace_back(path.substr(0, end));
        path.remove_prefix(std::min(end + 1, path.size()));
    }
    return components;
}

std::string_view Leaf(std::string_view path) { return path.substr(path.rfind('\\') + 1); }

std::string_view Directory(std::string_view path) { return path.substr(0, std::max<size_t>(path.rfind('\\'), 1)); }

size_t Characters(std::string_view utf8)
{
    return static_cast<size_t>(std::count_if(utf8.begin(), utf8.end(), [](char c) { return (c & 0xc0) != 0x80; }));
}

} // namespace model
