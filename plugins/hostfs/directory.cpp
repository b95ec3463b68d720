// Directory reading and numbered listings (directory.h). DirListing::lock_ guards its names. The
// directory is read under it, since of two refreshes the older one must not come last.
#include "directory.h"

#include "beneath.h"
#include "errors.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace hostfs {
namespace {

struct CloseDirectory {
    void operator()(DIR* stream) const { closedir(stream); }
};
using DirectoryStream = std::unique_ptr<DIR, CloseDirectory>;

// A descriptor of its own: a duplicate would share the position with other scans.
DirectoryStream OpenStream(int directory)
{
    const int fd = Uninterrupted([&] { return openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
    if (fd < 0) return nullptr;
    DirectoryStream stream(fdopendir(fd));
    if (!stream) close(fd);
    return stream;
}

bool IsDots(const char* name) { return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0; }

bool IsServed(int directory, const std::string& name, unsigned char type)
{
    if (type != DT_UNKNOWN) return type == DT_REG || type == DT_DIR || type == DT_LNK;
    struct stat info = {};
    return fstatat(directory, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && KindOf(info.st_mode) != Kind::Special;
}

bool IsGone(int directory, const std::string& name)
{
    struct stat info = {};
    if (fstatat(directory, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) return errno == ENOENT;
    return KindOf(info.st_mode) == Kind::Special;
}

} // namespace

NTSTATUS ForEachName(int directory, const std::function<void(const std::string&, unsigned char)>& visit)
{
    const DirectoryStream stream = OpenStream(directory);
    if (!stream) return LastError();
    std::string name;
    for (;;) {
        errno = 0;
        const dirent* entry = readdir(stream.get());
        if (!entry) return errno == 0 ? STATUS_SUCCESS : LastError();
        if (IsDots(entry->d_name)) continue;
        name = entry->d_name;
        visit(name, entry->d_type);
    }
}

NTSTATUS DirListing::ReadSorted(int directory, std::vector<std::string>* names)
{
    const NTSTATUS status = ForEachName(directory, [&](const std::string& name, unsigned char type) {
        if (IsServed(directory, name, type)) names->push_back(name);
    });
    // The kernel's order may differ from one descriptor to the next.
    std::sort(names->begin(), names->end());
    return status;
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

NTSTATUS DirListing::Refresh(int directory)
{
    const std::lock_guard guard(lock_);
    std::vector<std::string> sorted;
    if (const NTSTATUS status = ReadSorted(directory, &sorted); !NT_SUCCESS(status)) return status;
    Merge(std::move(sorted));
    return STATUS_SUCCESS;
}

NTSTATUS DirListing::At(int directory, size_t number, std::string* name, bool* exists)
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

void DirListing::Forget(int directory, size_t number, const std::string& name)
{
    const std::lock_guard guard(lock_);
    if (number >= names_.size() || names_[number] != name) return;
    const auto first = names_.begin() + static_cast<ptrdiff_t>(number);
    // In one go: a directory that is being emptied would otherwise cost the square of its size.
    const auto last =
        std::find_if(first + 1, names_.end(), [&](const std::string& next) { return !IsGone(directory, next); });
    names_.erase(first, last);
}

} // namespace hostfs
