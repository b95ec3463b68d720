// Objects by the client library's handles (object.h). Data passes through memory of our own: the client reads and
// writes on threads of its own and under its own locks, where a caller's buffer that is bad or not paged in must not be
// touched.
#include "object.h"

#include <ntifs.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace glusterfs {
namespace {

constexpr size_t kMostAtOnce = 1 << 20;
// The client applies no mask of the process.
constexpr mode_t kFileMode = 0644;
constexpr mode_t kDirectoryMode = 0755;

template <typename Result>
int ErrorOf(Result result)
{
    return result < 0 ? errno : 0;
}

void Fill(const struct stat& info, posixfs::NodeStat* stat)
{
    *stat = {};
    stat->Mode = info.st_mode;
    stat->Owner = info.st_uid;
    // The device that the client says is made up anew by each connection, and there is only one.
    stat->Inode = info.st_ino;
    stat->Size = static_cast<uint64_t>(info.st_size);
    stat->Blocks = static_cast<uint64_t>(info.st_blocks);
    stat->BlockSize = static_cast<uint32_t>(info.st_blksize);
    stat->Accessed = info.st_atim;
    stat->Written = info.st_mtim;
    stat->Changed = info.st_ctim;
}

// False if one of the two ends is bad or cannot be paged in. Nothing in this frame owns anything, since the exception
// comes back to it.
__attribute__((noinline)) bool CopyGuarded(void* to, const void* from, size_t length)
{
    NT_GUARD guard;
    if (!NtGuardEnter(&guard)) return false;
    std::memcpy(to, from, length);
    NtGuardLeave(&guard);
    return true;
}

unsigned char TypeOf(mode_t mode) { return static_cast<unsigned char>(IFTODT(mode)); }

bool IsDots(const char* name) { return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0; }

} // namespace

Object::Object(Cluster& cluster, glfs_object_t* handle, mode_t mode, glfs_fd_t* file)
    : cluster_(cluster), handle_(handle), mode_(mode)
{
    if (file) UseFile(file);
}

Object::~Object()
{
    if (file_) glfs_close(file_);
    glfs_h_close(handle_);
}

void Object::UseFile(glfs_fd_t* file)
{
    file_ = file;
    // Each open file is an owner of locks of its own.
    static std::atomic<uint64_t> lastOwner{0};
    uint64_t owner[2] = {static_cast<uint64_t>(getpid()), ++lastOwner};
    if (cluster_.Locks()) (void)glfs_fd_set_lkowner(file_, owner, sizeof owner);
}

int Object::Stat(posixfs::NodeStat* stat) const
{
    struct stat info = {};
    // By the open file where there is one: it may have been deleted by another host.
    const int result = file_ ? glfs_fstat(file_, &info) : glfs_h_stat(cluster_.Client(), handle_, &info);
    if (result != 0) return errno;
    Fill(info, stat);
    return 0;
}

int Object::GetXattr(const char* name, void* value, size_t room, size_t* length) const
{
    const int result = file_ ? static_cast<int>(glfs_fgetxattr(file_, name, value, room))
                             : glfs_h_getxattrs(cluster_.Client(), handle_, name, value, room);
    if (result < 0) return errno;
    *length = static_cast<size_t>(result);
    return 0;
}

int Object::Access(int mode) const
{
    if (geteuid() == 0) return 0; // the servers would say so too, one question later
    return ErrorOf(glfs_h_access(cluster_.Client(), handle_, mode));
}

int Object::ChangeMode(mode_t mode)
{
    struct stat wanted = {};
    wanted.st_mode = mode;
    return ErrorOf(glfs_h_setattrs(cluster_.Client(), handle_, &wanted, GFAPI_SET_ATTR_MODE));
}

int Object::SetTimes(const timespec (&accessAndWrite)[2])
{
    struct stat wanted = {};
    wanted.st_atim = accessAndWrite[0];
    wanted.st_mtim = accessAndWrite[1];
    int which = 0;
    if (wanted.st_atim.tv_nsec != UTIME_OMIT) which |= GFAPI_SET_ATTR_ATIME;
    if (wanted.st_mtim.tv_nsec != UTIME_OMIT) which |= GFAPI_SET_ATTR_MTIME;
    return which == 0 ? 0 : ErrorOf(glfs_h_setattrs(cluster_.Client(), handle_, &wanted, which));
}

int Object::ListXattrs(std::string* names) const
{
    for (;;) {
        const int needed = glfs_h_getxattrs(cluster_.Client(), handle_, nullptr, nullptr, 0);
        if (needed < 0) return errno;
        names->resize(static_cast<size_t>(needed) + 256);
        const int length = glfs_h_getxattrs(cluster_.Client(), handle_, nullptr, names->data(), names->size());
        if (length >= 0) {
            names->resize(static_cast<size_t>(length));
            return 0;
        }
        if (errno != ERANGE) return errno; // ERANGE: it grew in between
    }
}

int Object::SetXattr(const char* name, std::string_view value)
{
    return ErrorOf(glfs_h_setxattrs(cluster_.Client(), handle_, name, value.data(), value.size(), 0));
}

int Object::RemoveXattr(const char* name) { return ErrorOf(glfs_h_removexattrs(cluster_.Client(), handle_, name)); }

int Object::ReadLink(std::string* target) const
{
    target->resize(PATH_MAX);
    const int length = glfs_h_readlink(cluster_.Client(), handle_, target->data(), target->size());
    if (length < 0) return errno;
    target->resize(static_cast<size_t>(length));
    return 0;
}

int Object::OpenContents(int accessMode)
{
    // Each scan opens the directory itself.
    if (S_ISDIR(mode_)) return Access(R_OK);
    glfs_fd_t* const file = glfs_h_open(cluster_.Client(), handle_, accessMode);
    if (!file) return errno;
    UseFile(file);
    return 0;
}

int Object::Sync()
{
    if (S_ISDIR(mode_)) return 0; // the servers keep names in step by themselves
    if (file_) return ErrorOf(glfs_fsync(file_, nullptr, nullptr));
    glfs_fd_t* const file = glfs_h_open(cluster_.Client(), handle_, O_RDWR);
    if (!file) return errno;
    const int error = ErrorOf(glfs_fsync(file, nullptr, nullptr));
    glfs_close(file);
    return error;
}

template <typename Transfer>
ssize_t Object::WithRange(short lockType, off_t offset, size_t length, Transfer&& transfer)
{
    if (!cluster_.Locks()) return transfer();
    const std::lock_guard guard(rangeLock_);
    struct flock range = {};
    range.l_type = lockType;
    range.l_whence = SEEK_SET;
    range.l_start = offset;
    range.l_len = static_cast<off_t>(length);
    if (glfs_posix_lock(file_, F_SETLK, &range) != 0) return errno == EACCES ? -EAGAIN : -errno;
    const ssize_t moved = transfer();
    range.l_type = F_UNLCK;
    (void)glfs_posix_lock(file_, F_SETLK, &range);
    return moved;
}

ssize_t Object::Read(void* buffer, size_t length, off_t offset)
{
    std::vector<char> copy(std::min(length, kMostAtOnce));
    const ssize_t moved = WithRange(F_RDLCK, offset, copy.size(), [&]() -> ssize_t {
        const ssize_t result = glfs_pread(file_, copy.data(), copy.size(), offset, 0, nullptr);
        return result < 0 ? -errno : result;
    });
    if (moved > 0 && !CopyGuarded(buffer, copy.data(), static_cast<size_t>(moved))) return -EFAULT;
    return moved;
}

ssize_t Object::Write(const void* buffer, size_t length, off_t offset)
{
    std::vector<char> copy(std::min(length, kMostAtOnce));
    if (!CopyGuarded(copy.data(), buffer, copy.size())) return -EFAULT;
    const ssize_t moved = WithRange(F_WRLCK, offset, copy.size(), [&]() -> ssize_t {
        const ssize_t result = glfs_pwrite(file_, copy.data(), copy.size(), offset, 0, nullptr, nullptr);
        return result < 0 ? -errno : result;
    });
    if (moved <= 0) return moved;
    const int error = NoteWritten();
    return error == 0 ? moved : -error;
}

// After the write: of a flush of the volume that runs beside it, this file is none of what was written before.
int Object::NoteWritten()
{
    const uint64_t epoch = cluster_.Written().Epoch();
    if (notedIn_.load() == epoch) return 0;
    Gfid name;
    if (glfs_h_extract_handle(handle_, name.data(), GFAPI_HANDLE_LENGTH) < 0) return errno;
    if (!cluster_.Written().Add(name)) return Sync();
    notedIn_ = epoch;
    return 0;
}

int Object::Truncate(off_t size)
{
    if (const int error = ErrorOf(glfs_ftruncate(file_, size, nullptr, nullptr)); error != 0) return error;
    return NoteWritten();
}

int Object::Allocate(off_t offset, off_t length)
{
    return ErrorOf(glfs_fallocate(file_, 1, offset, static_cast<size_t>(length)));
}

int Object::Child(const std::string& name, posixfs::NodeRef* child) const
{
    if (name.empty()) {
        glfs_object_t* const copy = glfs_object_copy(handle_);
        if (!copy) return errno;
        *child = std::make_unique<Object>(cluster_, copy, mode_);
        return 0;
    }
    if (!S_ISDIR(mode_)) return S_ISLNK(mode_) ? ELOOP : ENOTDIR;
    struct stat info = {};
    glfs_object_t* const found = glfs_h_lookupat(cluster_.Client(), handle_, name.c_str(), &info, 0);
    if (!found) return errno;
    *child = std::make_unique<Object>(cluster_, found, info.st_mode);
    return 0;
}

int Object::ChildEntry(const std::string& name, std::unique_ptr<posixfs::Entry>* entry) const
{
    posixfs::NodeRef child;
    const int error = Child(name, &child);
    *entry = std::move(child);
    return error;
}

int Object::ForEachName(const posixfs::NameVisitor& visit) const
{
    if (!S_ISDIR(mode_)) return ENOTDIR;
    const auto close = [](glfs_fd_t* directory) { glfs_closedir(directory); };
    const std::unique_ptr<glfs_fd_t, decltype(close)> directory(glfs_h_opendir(cluster_.Client(), handle_), close);
    if (!directory) return errno;
    std::string name;
    for (;;) {
        struct dirent entry;
        struct dirent* found = nullptr;
        struct stat info = {};
        if (glfs_readdirplus_r(directory.get(), &info, &entry, &found) != 0) return errno;
        if (!found) return 0;
        if (IsDots(found->d_name)) continue;
        name = found->d_name;
        visit(name, TypeOf(info.st_mode));
    }
}

int Object::CreateFile(const std::string& name, posixfs::NodeRef* made)
{
    struct stat info = {};
    glfs_fd_t* file = nullptr;
    glfs_object_t* const handle =
        glfs_h_creat_open(cluster_.Client(), handle_, name.c_str(), O_RDWR | O_CREAT | O_EXCL, kFileMode, &info, &file);
    if (!handle) return errno;
    *made = std::make_unique<Object>(cluster_, handle, info.st_mode, file);
    return 0;
}

int Object::CreateDirectory(const std::string& name, posixfs::NodeRef* made)
{
    struct stat info = {};
    glfs_object_t* const handle = glfs_h_mkdir(cluster_.Client(), handle_, name.c_str(), kDirectoryMode, &info);
    if (!handle) return errno;
    *made = std::make_unique<Object>(cluster_, handle, info.st_mode);
    return 0;
}

int Object::CreateLink(const std::string& name, const std::string& target)
{
    struct stat info = {};
    glfs_object_t* const handle = glfs_h_symlink(cluster_.Client(), handle_, name.c_str(), target.c_str(), &info);
    return handle ? ErrorOf(glfs_h_close(handle)) : errno;
}

// The call finds out itself whether it is a directory.
int Object::Remove(const std::string& name, bool)
{
    return ErrorOf(glfs_h_unlink(cluster_.Client(), handle_, name.c_str()));
}

// Not to replace takes two steps: the store has no rename that refuses to. Of two hosts that give two files one name at
// the same moment, the later one replaces; on one host the driver lets one rename into a directory at a time.
int Object::Rename(const std::string& name, posixfs::Node& newDirectory, const std::string& newName, bool replace)
{
    auto& target = static_cast<Object&>(newDirectory);
    if (!replace) {
        posixfs::NodeRef taken;
        const int error = target.Child(newName, &taken);
        if (error != ENOENT) return error == 0 ? EEXIST : error;
    }
    return ErrorOf(glfs_h_rename(cluster_.Client(), handle_, name.c_str(), target.handle_, newName.c_str()));
}

} // namespace glusterfs
