// Lexical resolution of link targets (links.h).
#include "links.h"

#include <algorithm>
#include <string_view>

namespace posixfs {
namespace {

// Applies a Linux path to a list of names; false if ".." would go above the start. At the root of Linux it does not.
bool Follow(std::string_view path, bool fromLinuxRoot, Components* names)
{
    while (!path.empty()) {
        const size_t end = std::min(path.find('/'), path.size());
        const std::string_view name = path.substr(0, end);
        path.remove_prefix(std::min(end + 1, path.size()));
        if (name.empty() || name == ".") continue;
        if (name != "..") {
            names->emplace_back(name);
        } else if (!names->empty()) {
            names->pop_back();
        } else if (!fromLinuxRoot) {
            return false;
        }
    }
    return true;
}

// Cuts a root off the front of an absolute path's names; false if they do not begin with it.
bool CutRoot(const std::string& root, Components* names)
{
    Components rootNames;
    (void)Follow(root, true, &rootNames);
    if (rootNames.size() > names->size() || !std::equal(rootNames.begin(), rootNames.end(), names->begin()))
        return false;
    names->erase(names->begin(), names->begin() + static_cast<ptrdiff_t>(rootNames.size()));
    return true;
}

} // namespace

NTSTATUS TargetFromRoot(const std::string& target, const Components& directory, const std::vector<std::string>& roots,
                        NtText* path)
{
    if (target.empty()) return STATUS_OBJECT_PATH_SYNTAX_BAD;
    const bool absolute = target[0] == '/';
    Components names = absolute ? Components() : directory;
    if (!Follow(target, absolute, &names)) return STATUS_ACCESS_DENIED;
    const auto beginsWithIt = [&](const std::string& root) { return CutRoot(root, &names); };
    if (absolute && std::none_of(roots.begin(), roots.end(), beginsWithIt)) return STATUS_ACCESS_DENIED;

    path->clear();
    for (const std::string& name : names) *path += u'\\' + ToNtName(name);
    if (path->empty()) *path = u"\\";
    return STATUS_SUCCESS;
}

std::string LinkText(const Components& directory, const Components& target)
{
    const auto [up, down] = std::mismatch(directory.begin(), directory.end(), target.begin(), target.end());
    std::string text;
    for (auto name = up; name != directory.end(); ++name) text += "../";
    for (auto name = down; name != target.end(); ++name) text += *name + '/';
    if (text.empty()) return ".";
    text.pop_back();
    return text;
}

} // namespace posixfs
