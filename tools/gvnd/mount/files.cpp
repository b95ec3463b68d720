// Open files: their life, their data, their space.
#include "gvnd/mount/files.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <linux/falloc.h>

#include <nthost/debug.h>

#include "gvnd/mount/bridge.h"
#include "gvnd/mount/errors.h"
#include "gvnd/mount/locks.h"

namespace tool::mount {

namespace {

OpenFile* FileOf(const fuse_file_info* file) { return reinterpret_cast<OpenFile*>(file->fh); }

ACCESS_MASK AccessFor(int flags, bool writeback)
{
    switch (flags & O_ACCMODE) {
    case O_RDONLY: return FILE_READ_DATA | kLook;
    case O_WRONLY: return FILE_WRITE_DATA | kLook | (writeback ? FILE_READ_DATA : 0);
    default: return FILE_READ_DATA | FILE_WRITE_DATA | kLook;
    }
}

} // namespace

void OpenFile::Suspend()
{
    mutex_.lock();
    handle_.Close();
}

void OpenFile::Resume(const NtName& path)
{
    lost_ = Open(path, {.Access = access_, .Options = FILE_NON_DIRECTORY_FILE, .Share = share_}, &handle_);
    for (const Range& range : locked_) {
        if (handle_) lost_ = mount::Lock(handle_.Get(), range.First, range.Length, range.Exclusive);
    }
    mutex_.unlock();
}

void OpenFile::Close()
{
    const std::lock_guard lock(mutex_);
    handle_.Close();
    lost_ = STATUS_FILE_CLOSED;
}

NTSTATUS OpenFile::Lock(const Range& range)
{
    const NTSTATUS status =
        With([&](HANDLE handle) { return mount::Lock(handle, range.First, range.Length, range.Exclusive); });
    if (NT_SUCCESS(status)) locked_.push_back(range);
    return status;
}

void OpenFile::Unlock(const Range& range)
{
    (void)With([&](HANDLE handle) { return mount::Unlock(handle, range.First, range.Length); });
    if (const auto found = std::find(locked_.begin(), locked_.end(), range); found != locked_.end())
        locked_.erase(found);
}

NTSTATUS ClearReadOnly(const NtName& path)
{
    Handle handle;
    const NTSTATUS status = Open(path, {.Access = FILE_WRITE_ATTRIBUTES}, &handle);
    if (!NT_SUCCESS(status)) return status;
    FILE_BASIC_INFORMATION info = {};
    info.FileAttributes = FILE_ATTRIBUTE_NORMAL;
    return Set(handle.Get(), FileBasicInformation, info);
}

int Bridge::AddFile(fuse_req_t, Node* node, Handle handle, ACCESS_MASK access, fuse_file_info* file)
{
    auto* const made = new OpenFile(node, std::move(handle), access, options_.Share);
    nodes_.AddFile(node, made);
    file->fh = reinterpret_cast<uint64_t>(made);
    // Pages of the last open are still good: the kernel drops them itself when it sees another size or time.
    file->keep_cache = 1;
    return 0;
}

int Bridge::OpenExisting(fuse_req_t request, fuse_ino_t id, fuse_file_info* file)
{
    const std::shared_lock lock(nodes_.Namespace);
    NtName path;
    if (const int error = FindPath(id, &path)) return error;
    const ACCESS_MASK access = AccessFor(file->flags, options_.Writeback);
    Handle handle;
    const NTSTATUS status =
        mount::Open(path, {.Access = access, .Options = FILE_NON_DIRECTORY_FILE, .Share = options_.Share}, &handle);
    if (!NT_SUCCESS(status)) return ErrorOf(status);
    AddFile(request, nodes_.Find(id), std::move(handle), access, file);
    // Nobody will release what the kernel does not know.
    if (fuse_reply_open(request, file) == -ENOENT) (void)RemoveFile(FileOf(file));
    return 0;
}

int Bridge::Create(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, fuse_file_info* file)
{
    Place place;
    const std::shared_lock lock(nodes_.Namespace);
    if (const int error = FindPlace(parent, name, &place)) return error;
    const ACCESS_MASK access = AccessFor(file->flags, options_.Writeback);
    const ULONG disposition = file->flags & O_EXCL ? FILE_CREATE : FILE_OPEN_IF;
    Handle handle;
    Facts facts;
    const int error = MakeObject(request, place, mode, access, FILE_NON_DIRECTORY_FILE, disposition, &handle, &facts);
    if (error) return error;
    const fuse_entry_param entry = EntryOf(place, facts);
    AddFile(request, nodes_.Find(entry.ino), std::move(handle), access, file);
    if (fuse_reply_create(request, &entry, file) == -ENOENT) {
        (void)RemoveFile(FileOf(file));
        nodes_.Forget(entry.ino, 1);
    }
    return 0;
}

int Bridge::Read(fuse_req_t request, size_t size, off_t offset, fuse_file_info* file)
{
    static thread_local std::vector<char> buffer;
    if (buffer.size() < size) buffer.resize(size);
    size_t done = 0;
    const NTSTATUS status = FileOf(file)->With(
        [&](HANDLE handle) { return mount::Read(handle, static_cast<uint64_t>(offset), buffer.data(), size, &done); });
    if (!NT_SUCCESS(status)) return ErrorOf(status);
    fuse_reply_buf(request, buffer.data(), done);
    return 0;
}

int Bridge::Write(fuse_req_t request, const char* data, size_t size, off_t offset, fuse_file_info* file)
{
    size_t done = 0;
    const NTSTATUS status = FileOf(file)->With(
        [&](HANDLE handle) { return mount::Write(handle, static_cast<uint64_t>(offset), data, size, &done); });
    if (!NT_SUCCESS(status)) return ErrorOf(status);
    fuse_reply_write(request, done);
    return 0;
}

// A close by one of those that share the open; byte-range locks of that process go.
int Bridge::FlushOnClose(fuse_req_t request, fuse_file_info* file)
{
    const std::shared_lock lock(nodes_.Namespace);
    locks_.Release(FileOf(file)->Owner(), {LockKind::Ranges, file->lock_owner});
    fuse_reply_err(request, 0);
    return 0;
}

// Namespace is held: a rename takes the files of a directory by their nodes, so none may go meanwhile. True if the file
// was the last of a deleted one.
bool Bridge::RemoveFile(OpenFile* file)
{
    file->Close();
    const bool wasHidden = nodes_.RemoveFile(file->Owner(), file);
    delete file;
    return wasHidden;
}

// Namespace is held exclusively.
void Bridge::RemoveHidden(Node* node)
{
    if (!node->Hidden || !node->Files.empty()) return; // opened again, by way of another descriptor
    const NtName path = nodes_.PathOf(node);
    (void)RemoveName({nodes_.Root(), node->Name, path}, FILE_NON_DIRECTORY_FILE);
    nodes_.Remove(node);
}

// The last close.
int Bridge::Release(fuse_req_t request, fuse_file_info* file)
{
    OpenFile* const closing = FileOf(file);
    Node* const node = closing->Owner();
    bool wasHidden;
    {
        const std::shared_lock lock(nodes_.Namespace);
        locks_.Release(node, {LockKind::Ranges, file->lock_owner});
        if (file->flock_release) locks_.Release(node, {LockKind::Whole, file->lock_owner});
        wasHidden = RemoveFile(closing);
    }
    if (wasHidden) {
        const std::unique_lock lock(nodes_.Namespace);
        RemoveHidden(node);
    }
    fuse_reply_err(request, 0);
    return 0;
}

int Bridge::Sync(fuse_req_t request, fuse_file_info* file)
{
    OpenFile* const opened = FileOf(file);
    // NT lets only a writer flush; what a reader has written is nothing.
    const bool writes = opened->Access() & FILE_WRITE_DATA;
    const NTSTATUS status = writes ? opened->With([](HANDLE handle) { return Flush(handle); }) : STATUS_SUCCESS;
    if (!NT_SUCCESS(status)) return ErrorOf(status);
    fuse_reply_err(request, 0);
    return 0;
}

// Space ahead, and with it the size unless that is to stay. Holes are nothing that NT could make here, nor is space
// behind one: an allocation begins at the file's beginning, and a single byte far out would fill the disk.
int Bridge::Allocate(fuse_req_t request, int mode, off_t offset, off_t length, fuse_file_info* file)
{
    if (mode & ~FALLOC_FL_KEEP_SIZE) return EOPNOTSUPP;
    const int64_t end = offset + length;
    const NTSTATUS status = FileOf(file)->With([&](HANDLE handle) {
        FILE_STANDARD_INFORMATION info = {};
        NTSTATUS result = QueryRaw(handle, FileStandardInformation, &info, sizeof info);
        if (NT_SUCCESS(result) && offset > std::max(info.AllocationSize.QuadPart, info.EndOfFile.QuadPart))
            return STATUS_NOT_SUPPORTED;
        if (NT_SUCCESS(result) && end > info.AllocationSize.QuadPart) {
            FILE_ALLOCATION_INFORMATION allocation = {};
            allocation.AllocationSize.QuadPart = end;
            result = Set(handle, FileAllocationInformation, allocation);
        }
        if (NT_SUCCESS(result) && !(mode & FALLOC_FL_KEEP_SIZE) && end > info.EndOfFile.QuadPart) {
            FILE_END_OF_FILE_INFORMATION size = {};
            size.EndOfFile.QuadPart = end;
            result = Set(handle, FileEndOfFileInformation, size);
        }
        return result;
    });
    if (!NT_SUCCESS(status)) return ErrorOf(status);
    fuse_reply_err(request, 0);
    return 0;
}

std::vector<std::string> Bridge::OpenPaths()
{
    const std::shared_lock lock(nodes_.Namespace);
    std::vector<std::string> paths;
    for (OpenFile* const file : nodes_.AllFiles()) {
        const NtName path = nodes_.PathOf(file->Owner());
        const UNICODE_STRING text = Counted(path);
        std::string shown = nthost::ToUtf8(&text);
        for (char& c : shown) c = c == '\\' ? '/' : c;
        paths.push_back(file->Owner()->Hidden ? "a deleted file" : shown);
    }
    return paths;
}

void Bridge::CloseEverything()
{
    const std::unique_lock lock(nodes_.Namespace);
    for (OpenFile* const file : nodes_.AllFiles()) {
        Node* const node = file->Owner();
        if (RemoveFile(file)) RemoveHidden(node);
    }
}

} // namespace tool::mount
