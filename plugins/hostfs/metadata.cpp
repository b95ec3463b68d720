// Mapping of stat records and own extended attributes to NT (metadata.h). Stateless.
#include "metadata.h"

#include "errors.h"

#include <algorithm>
#include <charconv>
#include <limits>

#include <fcntl.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace hostfs {
namespace {

const std::string kAttributesName = std::string(kOwnPrefix) + "attrs";
const std::string kCreationName = std::string(kOwnPrefix) + "crtime";

constexpr ULONG kKeptAttributes =
    FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE;
constexpr mode_t kWriteBits = S_IWUSR | S_IWGRP | S_IWOTH;

constexpr LONGLONG kUnitsPerSecond = 10'000'000;
constexpr LONGLONG kUnixEpoch = 116'444'736'000'000'000; // 1970 in NT time

// Linux counts in wider units than NT can hold; such a time becomes the nearest end of NT's range.
LONGLONG ToNtTime(const statx_timestamp& stamp)
{
    LONGLONG time = 0;
    if (__builtin_mul_overflow(LONGLONG{stamp.tv_sec}, kUnitsPerSecond, &time) ||
        __builtin_add_overflow(time, stamp.tv_nsec / 100 + kUnixEpoch, &time))
        return stamp.tv_sec < 0 ? 0 : std::numeric_limits<LONGLONG>::max();
    return std::max<LONGLONG>(time, 0);
}

timespec ToTimespec(LONGLONG ntTime)
{
    if (ntTime == 0) return {0, UTIME_OMIT};
    const LONGLONG units = ntTime - kUnixEpoch;
    const LONGLONG fraction = (units % kUnitsPerSecond + kUnitsPerSecond) % kUnitsPerSecond;
    return {(units - fraction) / kUnitsPerSecond, fraction * 100};
}

// Where stat and extended attributes of one object are read.
struct Source {
    int Directory;
    const char* Name;
    int Flags;
    std::string Path;
    ssize_t (*GetXattr)(const char*, const char*, void*, size_t) noexcept;
};

// Own attributes are short; anything longer is not one of them.
template <typename Number>
std::optional<Number> ReadNumber(const Source& source, const std::string& name, int base)
{
    char text[32];
    const ssize_t length = source.GetXattr(source.Path.c_str(), name.c_str(), text, sizeof text);
    if (length <= 0) return std::nullopt;
    const char* const end = text + length;
    const char* const begin = base == 16 && length > 2 && text[0] == '0' && text[1] == 'x' ? text + 2 : text;
    Number number = 0;
    const auto [stop, error] = std::from_chars(begin, end, number, base);
    if (error != std::errc() || stop != end) return std::nullopt;
    return number;
}

ULONG AttributesOf(Kind kind, mode_t mode, std::optional<ULONG> stored)
{
    if (kind == Kind::Link) return FILE_ATTRIBUTE_REPARSE_POINT;
    ULONG attributes = stored ? *stored & kKeptAttributes : kind == Kind::File ? FILE_ATTRIBUTE_ARCHIVE : 0;
    if (!(mode & S_IWUSR)) attributes |= FILE_ATTRIBUTE_READONLY;
    if (kind == Kind::Directory) attributes |= FILE_ATTRIBUTE_DIRECTORY;
    return attributes;
}

LONGLONG CreationTimeOf(const struct statx& info)
{
    if (info.stx_mask & STATX_BTIME) return ToNtTime(info.stx_btime);
    return std::min(ToNtTime(info.stx_mtime), ToNtTime(info.stx_ctime));
}

void FillFacts(const struct statx& info, Facts* facts)
{
    *facts = {};
    facts->Kind = KindOf(info.stx_mode);
    facts->Mode = info.stx_mode;
    facts->Owner = info.stx_uid;
    facts->Device = makedev(info.stx_dev_major, info.stx_dev_minor);
    facts->Inode = info.stx_ino;

    PluginFileInfo& record = facts->Info;
    record.CreationTime = CreationTimeOf(info);
    record.LastAccessTime = ToNtTime(info.stx_atime);
    record.LastWriteTime = ToNtTime(info.stx_mtime);
    record.ChangeTime = ToNtTime(info.stx_ctime);
    record.FileId = info.stx_ino;
    if (facts->Kind == Kind::File) {
        record.EndOfFile = static_cast<LONGLONG>(info.stx_size);
        record.AllocationSize = static_cast<LONGLONG>(info.stx_blocks) * 512;
    }
}

NTSTATUS DescribeFrom(const Source& source, Facts* facts)
{
    struct statx info = {};
    const int flags = source.Flags | AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;
    if (statx(source.Directory, source.Name, flags, STATX_BASIC_STATS | STATX_BTIME, &info) != 0) return LastError();
    FillFacts(info, facts);

    std::optional<ULONG> stored;
    if (facts->Kind == Kind::File || facts->Kind == Kind::Directory) {
        stored = ReadNumber<ULONG>(source, kAttributesName, 16);
        if (const auto creation = ReadNumber<LONGLONG>(source, kCreationName, 10)) facts->Info.CreationTime = *creation;
    }
    facts->Info.FileAttributes = AttributesOf(facts->Kind, facts->Mode, stored);
    return STATUS_SUCCESS;
}

NTSTATUS ChangeMode(int fd, mode_t mode)
{
    return chmod(ProcPath(fd).c_str(), mode & 07777) == 0 ? STATUS_SUCCESS : LastError();
}

std::string HexText(ULONG number)
{
    char text[16] = "0x";
    const auto [end, error] = std::to_chars(text + 2, std::end(text), number, 16);
    return std::string(text, end);
}

// The file system keeps no extended attributes, so that only the owner's right to write is left.
NTSTATUS SetAttributesInMode(int fd, mode_t mode, ULONG attributes)
{
    if (attributes & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM)) return STATUS_NOT_SUPPORTED;
    if (!(attributes & FILE_ATTRIBUTE_READONLY) || !(mode & kWriteBits)) return STATUS_SUCCESS;
    return ChangeMode(fd, mode & ~kWriteBits);
}

} // namespace

NTSTATUS Describe(int fd, Facts* facts) { return DescribeFrom({fd, "", AT_EMPTY_PATH, ProcPath(fd), getxattr}, facts); }

NTSTATUS DescribeEntry(int directory, const std::string& name, Facts* facts)
{
    return DescribeFrom({directory, name.c_str(), 0, ProcPath(directory) + '/' + name, lgetxattr}, facts);
}

PluginAccessMask AccessOf(int fd, const Facts& facts)
{
    if (facts.Kind == Kind::Link) return GVND_ACCESS_READ;
    const std::string path = ProcPath(fd);
    const auto may = [&](int mode) { return faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0; };
    const bool isOwner = geteuid() == 0 || geteuid() == facts.Owner;
    const bool mayWrite = may(W_OK);

    PluginAccessMask access = 0;
    if (may(R_OK)) access |= GVND_ACCESS_READ | GVND_ACCESS_EXECUTE;
    if (mayWrite && !(facts.Info.FileAttributes & FILE_ATTRIBUTE_READONLY)) access |= GVND_ACCESS_WRITE;
    if (mayWrite || isOwner) access |= GVND_ACCESS_WRITE_ATTRIBUTES;
    return access;
}

NTSTATUS SetAttributes(int fd, ULONG attributes)
{
    Facts facts;
    if (const NTSTATUS status = Describe(fd, &facts); !NT_SUCCESS(status)) return status;
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) && facts.Kind != Kind::Directory) return STATUS_INVALID_PARAMETER;

    // First the mode: a file that may not be written takes no extended attribute either.
    mode_t mode = facts.Mode;
    const bool opens = !(attributes & FILE_ATTRIBUTE_READONLY) && !(mode & S_IWUSR);
    if (opens) {
        mode |= S_IWUSR;
        if (const NTSTATUS status = ChangeMode(fd, mode); !NT_SUCCESS(status)) return status;
    }
    const int error = WriteXattr(fd, kAttributesName, HexText(attributes & kKeptAttributes));
    const NTSTATUS status = error == 0            ? STATUS_SUCCESS
                            : error == EOPNOTSUPP ? SetAttributesInMode(fd, mode, attributes)
                                                  : StatusOf(error);
    if (!NT_SUCCESS(status) && opens) (void)ChangeMode(fd, facts.Mode);
    return status;
}

NTSTATUS SetTimes(int fd, LONGLONG creation, LONGLONG lastAccess, LONGLONG lastWrite)
{
    if (creation < 0 || lastAccess < 0 || lastWrite < 0) return STATUS_INVALID_PARAMETER;
    if (creation != 0) {
        const int error = WriteXattr(fd, kCreationName, std::to_string(creation));
        if (error != 0 && error != EOPNOTSUPP) return StatusOf(error);
    }
    if (lastAccess == 0 && lastWrite == 0) return STATUS_SUCCESS;
    const timespec times[] = {ToTimespec(lastAccess), ToTimespec(lastWrite)};
    return utimensat(AT_FDCWD, ProcPath(fd).c_str(), times, 0) == 0 ? STATUS_SUCCESS : LastError();
}

std::optional<std::string> ReadXattr(int fd, const std::string& name)
{
    const std::string path = ProcPath(fd);
    std::string value(256, '\0');
    for (;;) {
        const ssize_t length = getxattr(path.c_str(), name.c_str(), value.data(), value.size());
        if (length >= 0) {
            value.resize(static_cast<size_t>(length));
            return value;
        }
        if (errno != ERANGE) return std::nullopt;
        // It may grow again before the next attempt.
        const ssize_t needed = getxattr(path.c_str(), name.c_str(), nullptr, 0);
        if (needed < 0) return std::nullopt;
        value.resize(static_cast<size_t>(needed) + 256);
    }
}

int WriteXattr(int fd, const std::string& name, std::string_view value)
{
    return setxattr(ProcPath(fd).c_str(), name.c_str(), value.data(), value.size(), 0) == 0 ? 0 : errno;
}

} // namespace hostfs
