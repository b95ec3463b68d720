// Objects as descriptors (host_store.h). Without its contents open an object is an O_PATH descriptor, so that nothing
// is opened by looking. Relies on no lock.
#include "host_store.h"

#include "errors.h"

#include <climits>
#include <cstdio>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace hostfs {
namespace {

using posixfs::Entry;
using posixfs::Node;
using posixfs::NodeRef;
using posixfs::NodeStat;
using posixfs::Uninterrupted;

template <typename Result>
int ErrorOf(Result result)
{
    return result < 0 ? errno : 0;
}

timespec ToTimespec(const statx_timestamp& stamp)
{
    return {static_cast<time_t>(stamp.tv_sec), static_cast<long>(stamp.tv_nsec)};
}

int StatAt(int directory, const char* name, NodeStat* stat)
{
    struct statx info = {};
    const int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | (*name ? 0 : AT_EMPTY_PATH);
    if (statx(directory, name, flags, STATX_BASIC_STATS | STATX_BTIME, &info) != 0) return errno;
    stat->Mode = info.stx_mode;
    stat->Owner = info.stx_uid;
    stat->Device = makedev(info.stx_dev_major, info.stx_dev_minor);
    stat->Inode = info.stx_ino;
    stat->Size = info.stx_size;
    stat->Blocks = info.stx_blocks;
    stat->BlockSize = info.stx_blksize;
    stat->Accessed = ToTimespec(info.stx_atime);
    stat->Written = ToTimespec(info.stx_mtime);
    stat->Changed = ToTimespec(info.stx_ctime);
    stat->Born.reset();
    if (info.stx_mask & STATX_BTIME) stat->Born = ToTimespec(info.stx_btime);
    return 0;
}

int TakeLength(ssize_t result, size_t* length)
{
    if (result < 0) return errno;
    *length = static_cast<size_t>(result);
    return 0;
}

// A name in a directory whose descriptor somebody else keeps open.
class HostEntry final : public Entry {
public:
    HostEntry(int directory, const std::string& name) : directory_(directory), name_(name) {}

    int Stat(NodeStat* stat) const override { return StatAt(directory_, name_.c_str(), stat); }
    int GetXattr(const char* name, void* value, size_t room, size_t* length) const override
    {
        return TakeLength(lgetxattr((ProcPath(directory_) + '/' + name_).c_str(), name, value, room), length);
    }

private:
    int directory_;
    std::string name_;
};

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

class HostNode final : public Node {
public:
    HostNode(const Beneath* beneath, UniqueFd fd, bool hasContents)
        : beneath_(beneath), fd_(std::move(fd)), hasContents_(hasContents)
    {}
    int Fd() const { return fd_.Get(); }

    int Stat(NodeStat* stat) const override { return StatAt(Fd(), "", stat); }
    int GetXattr(const char* name, void* value, size_t room, size_t* length) const override
    {
        return TakeLength(getxattr(Path().c_str(), name, value, room), length);
    }
    int Access(int mode) const override { return ErrorOf(faccessat(AT_FDCWD, Path().c_str(), mode, AT_EACCESS)); }
    int ChangeMode(mode_t mode) override { return ErrorOf(chmod(Path().c_str(), mode)); }
    int SetTimes(const timespec (&times)[2]) override { return ErrorOf(utimensat(AT_FDCWD, Path().c_str(), times, 0)); }
    int ListXattrs(std::string* names) const override;
    int SetXattr(const char* name, std::string_view value) override
    {
        return ErrorOf(setxattr(Path().c_str(), name, value.data(), value.size(), 0));
    }
    int RemoveXattr(const char* name) override { return ErrorOf(removexattr(Path().c_str(), name)); }
    int ReadLink(std::string* target) const override;
    int OpenContents(int accessMode) override;
    int Sync() override;

    ssize_t Read(void* buffer, size_t length, off_t offset) override
    {
        const ssize_t moved = Uninterrupted([&] { return pread(Fd(), buffer, length, offset); });
        return moved < 0 ? -errno : moved;
    }
    ssize_t Write(const void* buffer, size_t length, off_t offset) override
    {
        const ssize_t moved = Uninterrupted([&] { return pwrite(Fd(), buffer, length, offset); });
        return moved < 0 ? -errno : moved;
    }
    int Truncate(off_t size) override
    {
        return ErrorOf(Uninterrupted([&] { return ftruncate(Fd(), size); }));
    }
    int Allocate(off_t offset, off_t length) override
    {
        return ErrorOf(Uninterrupted([&] { return fallocate(Fd(), FALLOC_FL_KEEP_SIZE, offset, length); }));
    }

    int Child(const std::string& name, NodeRef* child) const override
    {
        if (!beneath_) return ENOTDIR;
        return Made(beneath_->Child(Fd(), name.empty() ? "." : name), false, child);
    }
    int ChildEntry(const std::string& name, std::unique_ptr<Entry>* entry) const override
    {
        *entry = std::make_unique<HostEntry>(Fd(), name);
        return 0;
    }
    int ForEachName(const posixfs::NameVisitor& visit) const override;
    int CreateFile(const std::string& name, NodeRef* made) override;
    int CreateDirectory(const std::string& name, NodeRef* made) override;
    int CreateLink(const std::string& name, const std::string& target) override
    {
        return ErrorOf(symlinkat(target.c_str(), Fd(), name.c_str()));
    }
    int Remove(const std::string& name, bool isDirectory) override
    {
        return ErrorOf(unlinkat(Fd(), name.c_str(), isDirectory ? AT_REMOVEDIR : 0));
    }
    int Rename(const std::string& name, Node& newDirectory, const std::string& newName, bool replace) override;

private:
    std::string Path() const { return ProcPath(Fd()); }
    int Made(UniqueFd fd, bool hasContents, NodeRef* made) const
    {
        if (!fd) return errno;
        *made = std::make_unique<HostNode>(beneath_, std::move(fd), hasContents);
        return 0;
    }

    const Beneath* beneath_; // none: an object without children
    UniqueFd fd_;
    bool hasContents_;
};

int HostNode::ListXattrs(std::string* names) const
{
    const std::string path = Path();
    for (;;) {
        const ssize_t needed = listxattr(path.c_str(), nullptr, 0);
        if (needed < 0) return errno;
        names->resize(static_cast<size_t>(needed) + 256);
        const ssize_t length = listxattr(path.c_str(), names->data(), names->size());
        if (length >= 0) {
            names->resize(static_cast<size_t>(length));
            return 0;
        }
        if (errno != ERANGE) return errno; // ERANGE: it grew in between
    }
}

int HostNode::ReadLink(std::string* target) const
{
    target->resize(PATH_MAX);
    const ssize_t length = readlinkat(Fd(), "", target->data(), target->size());
    if (length < 0) return errno;
    target->resize(static_cast<size_t>(length));
    return 0;
}

int HostNode::OpenContents(int accessMode)
{
    UniqueFd opened = Reopen(Fd(), accessMode);
    if (!opened) return errno;
    fd_ = std::move(opened);
    hasContents_ = true;
    return 0;
}

int HostNode::Sync()
{
    // A write error is reported to the descriptor that wrote, so another one is only the second choice: for a handle
    // that can move no data itself, while others may have written.
    UniqueFd reopened;
    if (!hasContents_ && !(reopened = Reopen(Fd(), O_RDONLY))) return errno;
    return ErrorOf(Uninterrupted([&] { return fsync(reopened ? reopened.Get() : Fd()); }));
}

int HostNode::ForEachName(const posixfs::NameVisitor& visit) const
{
    const DirectoryStream stream = OpenStream(Fd());
    if (!stream) return errno;
    std::string name;
    for (;;) {
        errno = 0;
        const dirent* entry = readdir(stream.get());
        if (!entry) return errno;
        if (IsDots(entry->d_name)) continue;
        name = entry->d_name;
        visit(name, entry->d_type);
    }
}

int HostNode::CreateFile(const std::string& name, NodeRef* made)
{
    constexpr int kFlags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    return Made(UniqueFd(Uninterrupted([&] { return openat(Fd(), name.c_str(), kFlags, 0666); })), true, made);
}

int HostNode::CreateDirectory(const std::string& name, NodeRef* made)
{
    if (mkdirat(Fd(), name.c_str(), 0777) != 0) return errno;
    constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    return Made(UniqueFd(Uninterrupted([&] { return openat(Fd(), name.c_str(), kFlags); })), true, made);
}

// Where the file system cannot promise in one step not to replace, it is two.
int HostNode::Rename(const std::string& name, Node& newDirectory, const std::string& newName, bool replace)
{
    const int to = static_cast<HostNode&>(newDirectory).Fd();
    if (!replace) {
        if (renameat2(Fd(), name.c_str(), to, newName.c_str(), RENAME_NOREPLACE) == 0) return 0;
        if (errno != EINVAL && errno != ENOSYS) return errno;
        struct stat info = {};
        if (fstatat(to, newName.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0) return EEXIST;
    }
    return ErrorOf(renameat(Fd(), name.c_str(), to, newName.c_str()));
}

} // namespace

NodeRef NodeOf(UniqueFd opened) { return std::make_unique<HostNode>(nullptr, std::move(opened), true); }

HostStore::HostStore(std::unique_ptr<Beneath> beneath) : beneath_(std::move(beneath))
{
    // A descriptor of its own; when there is none left, each use of the root says so.
    root_ = std::make_unique<HostNode>(beneath_.get(), beneath_->Find({}), false);
}

HostStore::~HostStore() = default;

int HostStore::Find(const posixfs::Components& path, NodeRef* node)
{
    UniqueFd found = beneath_->Find(path);
    if (!found) return errno;
    *node = std::make_unique<HostNode>(beneath_.get(), std::move(found), false);
    return 0;
}

int HostStore::StatFileSystem(struct statvfs* info) { return ErrorOf(fstatvfs(beneath_->RootFd(), info)); }

int HostStore::Flush()
{
    const UniqueFd root = Reopen(beneath_->RootFd(), O_RDONLY | O_DIRECTORY);
    return root ? ErrorOf(syncfs(root.Get())) : errno;
}

} // namespace hostfs
