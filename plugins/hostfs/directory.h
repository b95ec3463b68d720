// Reading directories: all names of one, and the numbered listing of one that the driver walks.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <ntifs.h>

namespace hostfs {

// Calls visit with each name but "." and "..", and its DT_ type. The directory may be an O_PATH descriptor. The string
// is one and the same, so that a scan allocates nothing per name.
[[nodiscard]] NTSTATUS ForEachName(int directory, const std::function<void(const std::string&, unsigned char)>& visit);

// A directory's names with a number each, shared by all handles of the directory. While nothing is deleted a number
// means the same name, also over a refresh: names that came later are appended. A name that went leaves no gap. Has its
// own lock.
class DirListing {
public:
    // Takes the directory's names as they are now.
    [[nodiscard]] NTSTATUS Refresh(int directory);
    // The first call takes the names, if nobody has; false behind the end.
    [[nodiscard]] NTSTATUS At(int directory, size_t number, std::string* name, bool* exists);
    // The object turned out to be gone: it leaves the listing, with those behind it that are gone as well. Nothing
    // happens if the number means another name by now.
    void Forget(int directory, size_t number, const std::string& name);

private:
    [[nodiscard]] static NTSTATUS ReadSorted(int directory, std::vector<std::string>* names);
    void Merge(std::vector<std::string> sorted);

    std::mutex lock_;
    std::vector<std::string> names_;
    bool taken_ = false;
};

} // namespace hostfs
