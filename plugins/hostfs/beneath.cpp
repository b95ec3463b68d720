// Resolution beneath the root (beneath.h). No lock, no state but the root's descriptor.
#include "beneath.h"

#include "errors.h"

#include <climits>
#include <cstdlib>
#include <filesystem>

#include <fcntl.h>
#include <linux/magic.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace hostfs {

using namespace posixfs;

namespace {

constexpr int kPathFlags = O_PATH | O_NOFOLLOW | O_CLOEXEC;

int OpenAt2(int directory, const char* path)
{
    open_how how = {};
    how.flags = kPathFlags;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    for (;;) {
        const long fd = syscall(SYS_openat2, directory, path, &how, sizeof how);
        // EAGAIN: the kernel could not rule out an escape while others renamed; that passes.
        if (fd >= 0 || (errno != EINTR && errno != EAGAIN)) return static_cast<int>(fd);
    }
}

// The kernel takes no path of PATH_MAX bytes, but the volume's paths may be longer.
std::string JoinSome(const Components& path, size_t* next)
{
    std::string joined = path[(*next)++];
    while (*next < path.size() && joined.size() + path[*next].size() + 2 < PATH_MAX) joined += '/' + path[(*next)++];
    return joined;
}

bool ProcIsMounted()
{
    struct statfs info = {};
    return statfs("/proc/self/fd", &info) == 0 && info.f_type == PROC_SUPER_MAGIC;
}

} // namespace

UniqueFd::~UniqueFd()
{
    if (fd_ >= 0) close(fd_);
}

std::string ProcPath(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

UniqueFd Reopen(int pathFd, int flags)
{
    const std::string path = ProcPath(pathFd);
    return UniqueFd(Uninterrupted([&] { return open(path.c_str(), flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY); }));
}

NTSTATUS Beneath::Create(const char* directory, Method wanted, std::unique_ptr<Beneath>* beneath)
{
    if (!ProcIsMounted()) return STATUS_NOT_SUPPORTED;
    UniqueFd root(open(directory, O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!root) return LastError();

    // A sandbox may refuse the call with an error of its own, so any failure rules it out.
    const bool oneCall = wanted == Method::OneCall && UniqueFd(OpenAt2(root.Get(), "."));
    std::unique_ptr<Beneath> made(new Beneath(std::move(root), oneCall ? Method::OneCall : Method::Walk));
    if (const NTSTATUS status = made->Describe(directory); !NT_SUCCESS(status)) return status;
    *beneath = std::move(made);
    return STATUS_SUCCESS;
}

NTSTATUS Beneath::Describe(const char* directory)
{
    const std::unique_ptr<char, decltype(&free)> path(realpath(ProcPath(root_.Get()).c_str(), nullptr), free);
    if (!path) return LastError();
    rootPaths_ = {path.get(), std::filesystem::absolute(directory)};
    return STATUS_SUCCESS;
}

UniqueFd Beneath::Child(int directory, const std::string& name) const
{
    if (method_ == Method::OneCall) return UniqueFd(OpenAt2(directory, name.c_str()));
    return UniqueFd(Uninterrupted([&] { return openat(directory, name.c_str(), kPathFlags); }));
}

UniqueFd Beneath::Find(const Components& path) const
{
    if (path.empty()) return Child(root_.Get(), ".");
    UniqueFd at;
    for (size_t next = 0; next < path.size();) {
        const std::string step = method_ == Method::OneCall ? JoinSome(path, &next) : path[next++];
        at = Child(at ? at.Get() : root_.Get(), step);
        if (!at) break;
    }
    return at;
}

} // namespace hostfs
