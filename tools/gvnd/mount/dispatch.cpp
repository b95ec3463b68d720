// One entry for each of the kernel's requests. Serve does what is the same for all of them.
#include "gvnd/mount/dispatch.h"

#include <cerrno>
#include <cstring>
#include <functional>
#include <unordered_map>

#include <fmt/format.h>

#include <nthost/debug.h>

#include "gvnd/status.h"

namespace tool::mount {

namespace {

Server& ServerOf(fuse_req_t request) { return *static_cast<Server*>(fuse_req_userdata(request)); }

// The errands under way, by their request. An interrupt names a request, which may have been answered meanwhile.
class Errands {
public:
    void Add(fuse_req_t request, Errand* errand)
    {
        const std::lock_guard lock(mutex_);
        errands_[request] = errand;
    }
    // A request that has been answered is gone, and its address may be another one's by now.
    void Remove(fuse_req_t request, const Errand* errand)
    {
        const std::lock_guard lock(mutex_);
        const auto found = errands_.find(request);
        if (found != errands_.end() && found->second == errand) errands_.erase(found);
    }
    void Cancel(fuse_req_t request)
    {
        const std::lock_guard lock(mutex_);
        if (const auto found = errands_.find(request); found != errands_.end()) found->second->Cancel();
    }

private:
    std::mutex mutex_;
    std::unordered_map<fuse_req_t, Errand*> errands_;
};

Errands errands;

void OnInterrupt(fuse_req_t request, void* data)
{
    AttachThisThread();
    Server& server = *static_cast<Server*>(data);
    if (server.Debug) fmt::print(stderr, "fuse: interrupt\n");
    errands.Cancel(request);
    server.Files.Interrupted(request);
}

void TraceAnswer(Server& server, const std::string& what, int error)
{
    for (const layer::PluginCall& call : server.Volume.Plugin().Calls()) {
        const std::string status = call.Status == STATUS_PENDING ? "still running" : nthost::StatusName(call.Status);
        fmt::print(stderr, "plugin:   {} -> {}\n", call.Text(), status);
    }
    server.Volume.Plugin().Clear();
    fmt::print(stderr, "fuse: {} -> {}\n", what, error ? strerrorname_np(error) : "done");
}

int Contained(const std::string& what, const std::function<int()>& body)
{
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    } catch (const std::exception& error) {
        fmt::print(stderr, "gvnd: {}: {}\n", what, error.what());
        return EIO;
    }
}

// body(bridge) answers and returns 0, or returns the error to answer with. The arguments are formatted for a trace
// only.
template <typename Body, typename... Arguments>
void Serve(fuse_req_t request, const char* name, const Body& body, fmt::format_string<Arguments...> format,
           Arguments&&... arguments)
{
    AttachThisThread();
    Server& server = ServerOf(request);
    std::string what = name;
    if (server.Debug) {
        what += ' ' + fmt::format(format, std::forward<Arguments>(arguments)...);
        fmt::print(stderr, "fuse: {}\n", what);
    }
    int error;
    {
        Errand errand;
        errands.Add(request, &errand);
        fuse_req_interrupt_func(request, OnInterrupt, &server);
        error = Contained(what, [&] { return body(server.Files); });
        errands.Remove(request, &errand);
    }
    if (error) fuse_reply_err(request, error);
    if (server.Debug) TraceAnswer(server, what, error);
}

// The kernel's own permission checks, locks through us, and pages that it keeps written only if asked for.
void Init(void* data, fuse_conn_info* connection)
{
    const unsigned wanted = FUSE_CAP_POSIX_LOCKS | FUSE_CAP_FLOCK_LOCKS | FUSE_CAP_AUTO_INVAL_DATA |
                            FUSE_CAP_READDIRPLUS | FUSE_CAP_READDIRPLUS_AUTO | FUSE_CAP_PARALLEL_DIROPS |
                            (static_cast<Server*>(data)->Files.Writeback() ? FUSE_CAP_WRITEBACK_CACHE : 0);
    connection->want |= connection->capable & wanted;
    // An open that truncates would be an overwrite in NT, which takes extended attributes with it.
    connection->want &= ~static_cast<unsigned>(FUSE_CAP_ATOMIC_O_TRUNC);
}

void Lookup(fuse_req_t request, fuse_ino_t parent, const char* name)
{
    Serve(
        request, "lookup", [&](Bridge& b) { return b.Lookup(request, parent, name); }, "{} '{}'", parent, name);
}

void Forget(fuse_req_t request, fuse_ino_t node, uint64_t lookups)
{
    ServerOf(request).Files.Forget(node, lookups);
    fuse_reply_none(request);
}

void ForgetMany(fuse_req_t request, size_t count, fuse_forget_data* forgets)
{
    for (size_t i = 0; i < count; ++i) ServerOf(request).Files.Forget(forgets[i].ino, forgets[i].nlookup);
    fuse_reply_none(request);
}

void GetAttributes(fuse_req_t request, fuse_ino_t node, fuse_file_info* file)
{
    Serve(
        request, "getattr", [&](Bridge& b) { return b.GetAttributes(request, node, file); }, "{}", node);
}

void SetAttributes(fuse_req_t request, fuse_ino_t node, struct stat* values, int which, fuse_file_info* file)
{
    Serve(
        request, "setattr", [&](Bridge& b) { return b.SetAttributes(request, node, values, which, file); },
        "{} which 0x{:x} size {} mode {:o}", node, which, values->st_size, values->st_mode);
}

void ReadLink(fuse_req_t request, fuse_ino_t node)
{
    Serve(
        request, "readlink", [&](Bridge& b) { return b.ReadSymlink(request, node); }, "{}", node);
}

void MakeNode(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, dev_t)
{
    Serve(
        request, "mknod", [&](Bridge& b) { return b.MakeNode(request, parent, name, mode); }, "{} '{}' mode {:o}",
        parent, name, mode);
}

void MakeDirectory(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode)
{
    Serve(
        request, "mkdir", [&](Bridge& b) { return b.MakeDirectory(request, parent, name, mode); }, "{} '{}' mode {:o}",
        parent, name, mode);
}

void Unlink(fuse_req_t request, fuse_ino_t parent, const char* name)
{
    Serve(
        request, "unlink", [&](Bridge& b) { return b.Unlink(request, parent, name); }, "{} '{}'", parent, name);
}

void RemoveDirectory(fuse_req_t request, fuse_ino_t parent, const char* name)
{
    Serve(
        request, "rmdir", [&](Bridge& b) { return b.RemoveDirectory(request, parent, name); }, "{} '{}'", parent, name);
}

void MakeSymlink(fuse_req_t request, const char* target, fuse_ino_t parent, const char* name)
{
    Serve(
        request, "symlink", [&](Bridge& b) { return b.MakeSymlink(request, target, parent, name); }, "'{}' as {} '{}'",
        target, parent, name);
}

void Rename(fuse_req_t request, fuse_ino_t parent, const char* name, fuse_ino_t newParent, const char* newName,
            unsigned flags)
{
    Serve(
        request, "rename", [&](Bridge& b) { return b.Rename(request, parent, name, newParent, newName, flags); },
        "{} '{}' to {} '{}' flags {}", parent, name, newParent, newName, flags);
}

// NT links are names of their own here; no operation of a plugin makes a second name of a file.
void Link(fuse_req_t request, fuse_ino_t node, fuse_ino_t parent, const char* name)
{
    Serve(
        request, "link", [](Bridge&) { return EPERM; }, "{} as {} '{}'", node, parent, name);
}

void Open(fuse_req_t request, fuse_ino_t node, fuse_file_info* file)
{
    Serve(
        request, "open", [&](Bridge& b) { return b.OpenExisting(request, node, file); }, "{} flags 0x{:x}", node,
        file->flags);
}

void Create(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, fuse_file_info* file)
{
    Serve(
        request, "create", [&](Bridge& b) { return b.Create(request, parent, name, mode, file); },
        "{} '{}' mode {:o} flags 0x{:x}", parent, name, mode, file->flags);
}

void Read(fuse_req_t request, fuse_ino_t node, size_t size, off_t offset, fuse_file_info* file)
{
    Serve(
        request, "read", [&](Bridge& b) { return b.Read(request, size, offset, file); }, "{} {} at {}", node, size,
        offset);
}

void Write(fuse_req_t request, fuse_ino_t node, const char* data, size_t size, off_t offset, fuse_file_info* file)
{
    Serve(
        request, "write", [&](Bridge& b) { return b.Write(request, data, size, offset, file); }, "{} {} at {}", node,
        size, offset);
}

void Flush(fuse_req_t request, fuse_ino_t node, fuse_file_info* file)
{
    Serve(
        request, "flush", [&](Bridge& b) { return b.FlushOnClose(request, file); }, "{}", node);
}

void Release(fuse_req_t request, fuse_ino_t node, fuse_file_info* file)
{
    Serve(
        request, "release", [&](Bridge& b) { return b.Release(request, file); }, "{}", node);
}

void Sync(fuse_req_t request, fuse_ino_t node, int, fuse_file_info* file)
{
    Serve(
        request, "fsync", [&](Bridge& b) { return b.Sync(request, file); }, "{}", node);
}

void Allocate(fuse_req_t request, fuse_ino_t node, int mode, off_t offset, off_t length, fuse_file_info* file)
{
    Serve(
        request, "fallocate", [&](Bridge& b) { return b.Allocate(request, mode, offset, length, file); },
        "{} mode {} {} at {}", node, mode, length, offset);
}

void OpenDirectory(fuse_req_t request, fuse_ino_t node, fuse_file_info* file)
{
    Serve(
        request, "opendir", [&](Bridge& b) { return b.OpenDirectory(request, node, file); }, "{}", node);
}

void ReadDirectory(fuse_req_t request, fuse_ino_t node, size_t size, off_t offset, fuse_file_info* file)
{
    Serve(
        request, "readdir", [&](Bridge& b) { return b.ReadDirectory(request, node, size, offset, file, false); },
        "{} from {}", node, offset);
}

void ReadDirectoryPlus(fuse_req_t request, fuse_ino_t node, size_t size, off_t offset, fuse_file_info* file)
{
    Serve(
        request, "readdirplus", [&](Bridge& b) { return b.ReadDirectory(request, node, size, offset, file, true); },
        "{} from {}", node, offset);
}

void ReleaseDirectory(fuse_req_t request, fuse_ino_t node, fuse_file_info* file)
{
    Serve(
        request, "releasedir", [&](Bridge& b) { return b.ReleaseDirectory(request, file); }, "{}", node);
}

void SyncDirectory(fuse_req_t request, fuse_ino_t node, int, fuse_file_info*)
{
    Serve(
        request, "fsyncdir", [&](Bridge& b) { return b.SyncDirectory(request, node); }, "{}", node);
}

void StatVolume(fuse_req_t request, fuse_ino_t node)
{
    Serve(
        request, "statfs", [&](Bridge& b) { return b.StatVolume(request); }, "{}", node);
}

void SetXattr(fuse_req_t request, fuse_ino_t node, const char* name, const char* value, size_t size, int flags)
{
    Serve(
        request, "setxattr", [&](Bridge& b) { return b.SetXattr(request, node, name, value, size, flags); },
        "{} '{}' {} bytes", node, name, size);
}

void GetXattr(fuse_req_t request, fuse_ino_t node, const char* name, size_t size)
{
    Serve(
        request, "getxattr", [&](Bridge& b) { return b.GetXattr(request, node, name, size); }, "{} '{}'", node, name);
}

void ListXattrs(fuse_req_t request, fuse_ino_t node, size_t size)
{
    Serve(
        request, "listxattr", [&](Bridge& b) { return b.ListXattrs(request, node, size); }, "{}", node);
}

void RemoveXattr(fuse_req_t request, fuse_ino_t node, const char* name)
{
    Serve(
        request, "removexattr", [&](Bridge& b) { return b.RemoveXattr(request, node, name); }, "{} '{}'", node, name);
}

void GetLock(fuse_req_t request, fuse_ino_t node, fuse_file_info* file, struct flock* lock)
{
    Serve(
        request, "getlk", [&](Bridge& b) { return b.TestLock(request, file, lock); }, "{}", node);
}

void SetLock(fuse_req_t request, fuse_ino_t node, fuse_file_info* file, struct flock* lock, int wait)
{
    Serve(
        request, "setlk", [&](Bridge& b) { return b.SetLock(request, file, *lock, wait != 0); }, "{} type {} {} at {}",
        node, lock->l_type, lock->l_len, lock->l_start);
}

void LockWhole(fuse_req_t request, fuse_ino_t node, fuse_file_info* file, int operation)
{
    Serve(
        request, "flock", [&](Bridge& b) { return b.LockWhole(request, file, operation); }, "{} {}", node, operation);
}

} // namespace

const fuse_lowlevel_ops& Operations()
{
    static const fuse_lowlevel_ops operations = [] {
        fuse_lowlevel_ops made = {};
        made.init = Init;
        made.lookup = Lookup;
        made.forget = Forget;
        made.getattr = GetAttributes;
        made.setattr = SetAttributes;
        made.readlink = ReadLink;
        made.mknod = MakeNode;
        made.mkdir = MakeDirectory;
        made.unlink = Unlink;
        made.rmdir = RemoveDirectory;
        made.symlink = MakeSymlink;
        made.rename = Rename;
        made.link = Link;
        made.open = Open;
        made.read = Read;
        made.write = Write;
        made.flush = Flush;
        made.release = Release;
        made.fsync = Sync;
        made.opendir = OpenDirectory;
        made.readdir = ReadDirectory;
        made.releasedir = ReleaseDirectory;
        made.fsyncdir = SyncDirectory;
        made.statfs = StatVolume;
        made.setxattr = SetXattr;
        made.getxattr = GetXattr;
        made.listxattr = ListXattrs;
        made.removexattr = RemoveXattr;
        made.create = Create;
        made.getlk = GetLock;
        made.setlk = SetLock;
        made.forget_multi = ForgetMany;
        made.flock = LockWhole;
        made.fallocate = Allocate;
        made.readdirplus = ReadDirectoryPlus;
        return made;
    }();
    return operations;
}

} // namespace tool::mount
