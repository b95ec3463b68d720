// Finding objects beneath the root, and nowhere else. A path is resolved to an O_PATH descriptor, which opens nothing:
// no link is followed, no device or FIFO is touched. Contents are then opened through that descriptor, so that what was
// looked at and what is opened are the same object, even while others exchange names.
//
// Names are looked up as they are spelled, and only when that finds nothing without regard to case. Immutable after its
// creation, so it needs no lock. Component names are trusted to hold no slash and not to be "." or ".." (ParsePath).
#pragma once

#include <memory>
#include <string>
#include <utility>

#include <sys/stat.h>

#include "names.h"

namespace hostfs {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd();
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }

    [[nodiscard]] int Get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};

// An object of another type, a device or a socket, is Special and never served.
enum class Kind { File, Directory, Link, Special };
[[nodiscard]] Kind KindOf(mode_t mode);

// The file that a descriptor stands for, as a path that follows no link on its way. Works for O_PATH descriptors too.
[[nodiscard]] std::string ProcPath(int fd);

// A descriptor for the contents of what an O_PATH descriptor stands for; errno when it fails. Only for files and
// directories.
[[nodiscard]] UniqueFd Reopen(int pathFd, int flags);

// Where a name is, or would be made.
struct Place {
    UniqueFd Parent;
    std::string Given; // as the path spells it
    std::string Leaf;  // as the directory spells it, if it is there
    bool Exists = false;
};

class Beneath {
public:
    enum class Method { OneCall, Walk };

    // STATUS_NOT_SUPPORTED without /proc. Asking for OneCall gets Walk when the kernel lacks it.
    [[nodiscard]] static NTSTATUS Create(const char* directory, Method wanted, std::unique_ptr<Beneath>* beneath);

    [[nodiscard]] int RootFd() const { return root_.Get(); }
    [[nodiscard]] Method MethodUsed() const { return method_; }
    // What absolute link targets are compared with: the root's path without links, and as it was given.
    [[nodiscard]] const std::vector<std::string>& RootPaths() const { return rootPaths_; }
    [[nodiscard]] bool IsRoot(dev_t device, ino_t inode) const { return device == device_ && inode == inode_; }
    [[nodiscard]] dev_t Device() const { return device_; }

    // Any object, a link itself included. STATUS_OBJECT_NAME_NOT_FOUND or STATUS_OBJECT_PATH_NOT_FOUND, by where the
    // path ends to exist.
    [[nodiscard]] NTSTATUS Resolve(const Components& path, UniqueFd* fd) const;
    // STATUS_ACCESS_DENIED for the root, which has no place.
    [[nodiscard]] NTSTATUS Locate(const Components& path, Place* place) const;

private:
    Beneath(UniqueFd root, Method method) : root_(std::move(root)), method_(method) {}
    [[nodiscard]] NTSTATUS Describe(const char* directory);
    [[nodiscard]] UniqueFd OpenExact(const Components& path) const;
    [[nodiscard]] UniqueFd OpenChild(int directory, const std::string& name) const;
    [[nodiscard]] UniqueFd OpenAnyCase(int directory, const std::string& name) const;

    UniqueFd root_;
    Method method_;
    std::vector<std::string> rootPaths_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

// The name in the directory that equals the given one without regard to case, the first in byte order; empty if there
// is none, or if the directory cannot be listed.
[[nodiscard]] std::string FindAnyCase(int directory, const std::string& name);

} // namespace hostfs
