// getattr, setattr, statfs.
#include <cerrno>

#include "gvnd/eas.h"
#include "gvnd/mount/bridge.h"
#include "gvnd/mount/errors.h"
#include "gvnd/mount/files.h"

namespace tool::mount {

namespace {

constexpr int kTimes =
    FUSE_SET_ATTR_ATIME | FUSE_SET_ATTR_MTIME | FUSE_SET_ATTR_ATIME_NOW | FUSE_SET_ATTR_MTIME_NOW | FUSE_SET_ATTR_CTIME;
constexpr int kUnix = FUSE_SET_ATTR_MODE | FUSE_SET_ATTR_UID | FUSE_SET_ATTR_GID;

OpenFile* FileOf(const fuse_file_info* file) { return file ? reinterpret_cast<OpenFile*>(file->fh) : nullptr; }

NTSTATUS SetSize(HANDLE handle, int64_t size)
{
    FILE_END_OF_FILE_INFORMATION info = {};
    info.EndOfFile.QuadPart = size;
    return Set(handle, FileEndOfFileInformation, info);
}

NTSTATUS SetTimes(HANDLE handle, const struct stat& values, int which)
{
    FILE_BASIC_INFORMATION info = {};
    if (which & FUSE_SET_ATTR_ATIME) info.LastAccessTime.QuadPart = NtTimeOf(values.st_atim);
    if (which & FUSE_SET_ATTR_MTIME) info.LastWriteTime.QuadPart = NtTimeOf(values.st_mtim);
    if (which & FUSE_SET_ATTR_CTIME) info.ChangeTime.QuadPart = NtTimeOf(values.st_ctim);
    if (which & FUSE_SET_ATTR_ATIME_NOW) info.LastAccessTime.QuadPart = NtNow();
    if (which & FUSE_SET_ATTR_MTIME_NOW) info.LastWriteTime.QuadPart = NtNow();
    return Set(handle, FileBasicInformation, info);
}

// The owner's right to write is NT's read-only attribute, of files; the rest is kept beside. Where nothing can be kept
// beside, a change of owner is refused, and of the mode the rest is lost.
NTSTATUS SetUnix(HANDLE handle, const struct stat& values, int which)
{
    Facts facts;
    NTSTATUS status = QueryFacts(handle, &facts);
    if (!NT_SUCCESS(status)) return status;
    UnixFacts wanted = facts.Unix;
    if (which & FUSE_SET_ATTR_MODE) wanted.Mode = values.st_mode & 07777;
    if (which & FUSE_SET_ATTR_UID) wanted.Uid = values.st_uid;
    if (which & FUSE_SET_ATTR_GID) wanted.Gid = values.st_gid;
    if (wanted == facts.Unix) return STATUS_SUCCESS;

    const bool readOnly = !facts.IsDirectory() && !(wanted.Mode & 0222);
    const ULONG attributes =
        readOnly ? facts.Attributes | FILE_ATTRIBUTE_READONLY
                 : facts.Attributes & ~static_cast<ULONG>(facts.IsDirectory() ? 0 : FILE_ATTRIBUTE_READONLY);
    const auto setAttributes = [&] {
        FILE_BASIC_INFORMATION info = {};
        info.FileAttributes = attributes ? attributes : FILE_ATTRIBUTE_NORMAL;
        return Set(handle, FileBasicInformation, info);
    };
    // A file that is read-only may take no extended attributes either.
    if (facts.IsReadOnly() && !readOnly && !facts.IsDirectory()) {
        if (status = setAttributes(); !NT_SUCCESS(status)) return status;
        facts.Attributes = attributes;
    }
    const std::string list = EaList({{std::string(kUnixEa), UnixEaValue(wanted, attributes)}});
    status = SetEas(handle, list);
    const bool cannotKeep = status == STATUS_EAS_NOT_SUPPORTED || status == STATUS_NOT_SUPPORTED;
    if (cannotKeep && (wanted.Uid != facts.Unix.Uid || wanted.Gid != facts.Unix.Gid)) return STATUS_PRIVILEGE_NOT_HELD;
    if (!NT_SUCCESS(status) && !cannotKeep) return status;
    return attributes == facts.Attributes ? STATUS_SUCCESS : setAttributes();
}

} // namespace

int Bridge::OpenFor(fuse_ino_t node, ACCESS_MASK access, Handle* handle)
{
    NtName path;
    if (const int error = FindPath(node, &path)) return error;
    return ErrorOf(mount::Open(path, {.Access = access}, handle));
}

int Bridge::ReplyAttributes(fuse_req_t request, fuse_ino_t id, const Facts& facts)
{
    const struct stat info = StatOf(facts, id);
    fuse_reply_attr(request, &info, options_.Timeout);
    return 0;
}

int Bridge::GetAttributes(fuse_req_t request, fuse_ino_t id, fuse_file_info* file)
{
    Facts facts;
    NTSTATUS status;
    if (OpenFile* const opened = FileOf(file)) {
        status = opened->With([&](HANDLE handle) { return QueryFacts(handle, &facts); });
    } else {
        const std::shared_lock lock(nodes_.Namespace);
        NtName path;
        if (const int error = FindPath(id, &path)) return error;
        status = DescribePath(links_, path, &facts);
    }
    if (!NT_SUCCESS(status)) return ErrorOf(status);
    return ReplyAttributes(request, id, facts);
}

int Bridge::SetAttributes(fuse_req_t request, fuse_ino_t id, struct stat* values, int which, fuse_file_info* file)
{
    const std::shared_lock lock(nodes_.Namespace);
    NtName path;
    if (const int error = FindPath(id, &path)) return error;
    Facts facts;
    // Nothing of a link itself can be set. Programs that copy trees try it, and would take a refusal for a failed copy.
    if (links_.Describe(path, &facts)) return ReplyAttributes(request, id, facts);
    NTSTATUS status = STATUS_SUCCESS;
    if (which & FUSE_SET_ATTR_SIZE) {
        OpenFile* const opened = FileOf(file);
        if (opened && opened->Access() & FILE_WRITE_DATA) {
            status = opened->With([&](HANDLE handle) { return SetSize(handle, values->st_size); });
        } else {
            Handle handle;
            if (const int error = OpenFor(id, FILE_WRITE_DATA, &handle)) return error;
            status = SetSize(handle.Get(), values->st_size);
        }
        if (!NT_SUCCESS(status)) return ErrorOf(status);
    }
    Handle handle;
    const ACCESS_MASK access =
        kLook | (which & (kTimes | kUnix) ? FILE_WRITE_ATTRIBUTES : 0) | (which & kUnix ? FILE_WRITE_EA : 0);
    if (const int error = OpenFor(id, access, &handle)) return error;
    if (which & kUnix) status = SetUnix(handle.Get(), *values, which);
    if (NT_SUCCESS(status) && (which & kTimes)) status = SetTimes(handle.Get(), *values, which);
    if (NT_SUCCESS(status)) status = QueryFacts(handle.Get(), &facts);
    if (!NT_SUCCESS(status)) return ErrorOf(status);
    return ReplyAttributes(request, id, facts);
}

int Bridge::StatVolume(fuse_req_t request)
{
    Handle root;
    const std::shared_lock lock(nodes_.Namespace);
    NTSTATUS status = mount::Open(u"\\", {.Options = FILE_DIRECTORY_FILE}, &root);
    FILE_FS_FULL_SIZE_INFORMATION size = {};
    if (NT_SUCCESS(status)) status = QueryVolume(root.Get(), FileFsFullSizeInformation, &size, sizeof size);
    if (!NT_SUCCESS(status)) return ErrorOf(status);
    struct statvfs info = {};
    info.f_bsize = info.f_frsize = static_cast<unsigned long>(size.SectorsPerAllocationUnit) * size.BytesPerSector;
    info.f_blocks = static_cast<fsblkcnt_t>(size.TotalAllocationUnits.QuadPart);
    info.f_bfree = static_cast<fsblkcnt_t>(size.ActualAvailableAllocationUnits.QuadPart);
    info.f_bavail = static_cast<fsblkcnt_t>(size.CallerAvailableAllocationUnits.QuadPart);
    info.f_namemax = 255;
    fuse_reply_statfs(request, &info);
    return 0;
}

} // namespace tool::mount
