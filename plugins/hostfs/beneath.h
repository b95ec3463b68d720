// Finding objects beneath the root, and nowhere else. A path is resolved to an O_PATH descriptor, which opens nothing:
// no link is followed, no device or FIFO is touched. Contents are then opened through that descriptor, so that what was
// looked at and what is opened are the same object, even while others exchange names.
//
// Immutable after its creation, so it needs no lock. Component names are trusted to hold no slash and not to be "." or
// ".." (ParsePath).
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <ntifs.h>

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

// The file that a descriptor stands for, as a path that follows no link on its way. Works for O_PATH descriptors too.
[[nodiscard]] std::string ProcPath(int fd);

// A descriptor for the contents of what an O_PATH descriptor stands for; errno when it fails. Only for files and
// directories.
[[nodiscard]] UniqueFd Reopen(int pathFd, int flags);

class Beneath {
public:
    enum class Method { OneCall, Walk };

    // STATUS_NOT_SUPPORTED without /proc. Asking for OneCall gets Walk when the kernel lacks it.
    [[nodiscard]] static NTSTATUS Create(const char* directory, Method wanted, std::unique_ptr<Beneath>* beneath);

    [[nodiscard]] int RootFd() const { return root_.Get(); }
    [[nodiscard]] Method MethodUsed() const { return method_; }
    // What absolute link targets are compared with: the root's path without links, and as it was given.
    [[nodiscard]] const std::vector<std::string>& RootPaths() const { return rootPaths_; }

    // Nothing and errno when there is none. The paths are names as they are spelled, empty for the root.
    [[nodiscard]] UniqueFd Find(const posixfs::Components& path) const;
    [[nodiscard]] UniqueFd Child(int directory, const std::string& name) const;

private:
    Beneath(UniqueFd root, Method method) : root_(std::move(root)), method_(method) {}
    [[nodiscard]] NTSTATUS Describe(const char* directory);

    UniqueFd root_;
    Method method_;
    std::vector<std::string> rootPaths_;
};

} // namespace hostfs
