// The numbered listing of a directory that the driver walks.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include <ntifs.h>

#include "node.h"

namespace posixfs {

// A directory's names with a number each, shared by all handles of the directory. While nothing is deleted a number
// means the same name, also over a refresh: names that came later are appended. A name that went leaves no gap. Has its
// own lock.
class DirListing {
public:
    // Takes the directory's names as they are now.
    [[nodiscard]] NTSTATUS Refresh(const Node& directory);
    // The first call takes the names, if nobody has; false behind the end.
    [[nodiscard]] NTSTATUS At(const Node& directory, size_t number, std::string* name, bool* exists);
    // The object turned out to be gone: it leaves the listing, with those behind it that are gone as well. Nothing
    // happens if the number means another name by now.
    void Forget(const Node& directory, size_t number, const std::string& name);

private:
    [[nodiscard]] static NTSTATUS ReadSorted(const Node& directory, std::vector<std::string>* names);
    void Merge(std::vector<std::string> sorted);

    std::mutex lock_;
    std::vector<std::string> names_;
    bool taken_ = false;
};

} // namespace posixfs
