// Numbered listings (directory.h). DirListing::lock_ guards its names. The
// directory is read under it, since of two refreshes the older one must not come last.
#include "directory.h"

#include "errors.h"
#include "resolve.h"

#include <algorithm>

#include <dirent.h>

namespace posixfs {
namespace {

bool IsServed(const Node& directory, const std::string& name, unsigned char type)
{
    if (type != DT_UNKNOWN) return type == DT_REG || type == DT_DIR || type == DT_LNK;
    NodeStat stat;
    return StatChild(directory, name, &stat) == 0 && KindOf(stat.Mode) != Kind::Special;
}

bool IsGone(const Node& directory, const std::string& name)
{
    NodeStat stat;
    if (const int error = StatChild(directory, name, &stat); error != 0) return error == ENOENT;
    return KindOf(stat.Mode) == Kind::Special;
}

} // namespace

NTSTATUS DirListing::ReadSorted(const Node& directory, std::vector<std::string>* names)
{
    const int error = directory.ForEachName([&](const std::string& name, unsigned char type) {
        if (IsServed(directory, name, type)) names->push_back(name);
    });
    // The store's order may differ from one scan to the next.
    std::sort(names->begin(), names->end());
    return error == 0 ? STATUS_SUCCESS : StatusOf(error);
}

void DirListing::Merge(std::vector<std::string> sorted)
{
    std::vector<bool> known(sorted.size());
    const auto gone = [&](const std::string& name) {
        const auto found = std::lower_bound(sorted.begin(), sorted.end(), name);
        if (found == sorted.end() || *found != name) return true;
        known[static_cast<size_t>(found - sorted.begin())] = true;
        return false;
    };
    names_.erase(std::remove_if(names_.begin(), names_.end(), gone), names_.end());
    for (size_t i = 0; i < sorted.size(); ++i) {
        if (!known[i]) names_.push_back(std::move(sorted[i]));
    }
    taken_ = true;
}

NTSTATUS DirListing::Refresh(const Node& directory)
{
    const std::lock_guard guard(lock_);
    std::vector<std::string> sorted;
    if (const NTSTATUS status = ReadSorted(directory, &sorted); !NT_SUCCESS(status)) return status;
    Merge(std::move(sorted));
    return STATUS_SUCCESS;
}

NTSTATUS DirListing::At(const Node& directory, size_t number, std::string* name, bool* exists)
{
    {
        const std::lock_guard guard(lock_);
        if (taken_) {
            *exists = number < names_.size();
            if (*exists) *name = names_[number];
            return STATUS_SUCCESS;
        }
    }
    if (const NTSTATUS status = Refresh(directory); !NT_SUCCESS(status)) return status;
    return At(directory, number, name, exists);
}

void DirListing::Forget(const Node& directory, size_t number, const std::string& name)
{
    const std::lock_guard guard(lock_);
    if (number >= names_.size() || names_[number] != name) return;
    const auto first = names_.begin() + static_cast<ptrdiff_t>(number);
    // In one go: a directory that is being emptied would otherwise cost the square of its size.
    const auto last =
        std::find_if(first + 1, names_.end(), [&](const std::string& next) { return !IsGone(directory, next); });
    names_.erase(first, last);
}

} // namespace posixfs
