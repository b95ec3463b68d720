// Mapping of stat records and own extended attributes to NT (metadata.h). Stateless.
#include "metadata.h"

#include "errors.h"

#include <algorithm>
#include <charconv>
#include <limits>

#include <fcntl.h>
#include <unistd.h>

namespace posixfs {
namespace {

const std::string kAttributesName = std::string(kOwnPrefix) + "attrs";
const std::string kCreationName = std::string(kOwnPrefix) + "crtime";

constexpr ULONG kKeptAttributes =
    FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE;
constexpr mode_t kWriteBits = S_IWUSR | S_IWGRP | S_IWOTH;

constexpr LONGLONG kUnitsPerSecond = 10'000'000;
constexpr LONGLONG kUnixEpoch = 116'444'736'000'000'000; // 1970 in NT time

// Linux counts in wider units than NT can hold; such a time becomes the nearest end of NT's range.
LONGLONG ToNtTime(const timespec& stamp)
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

// Own attributes are short; anything longer is not one of them.
template <typename Number>
std::optional<Number> ReadNumber(const Entry& object, const std::string& name, int base)
{
    char text[32];
    size_t length = 0;
    if (object.GetXattr(name.c_str(), text, sizeof text, &length) != 0 || length == 0) return std::nullopt;
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

LONGLONG CreationTimeOf(const NodeStat& stat)
{
    return stat.Born ? ToNtTime(*stat.Born) : std::min(ToNtTime(stat.Written), ToNtTime(stat.Changed));
}

void FillFacts(const NodeStat& stat, Facts* facts)
{
    *facts = {};
    facts->Kind = KindOf(stat.Mode);
    facts->Mode = stat.Mode;
    facts->Owner = stat.Owner;
    facts->Device = stat.Device;
    facts->Inode = stat.Inode;
    facts->KeepsBirth = stat.Born.has_value();

    PluginFileInfo& record = facts->Info;
    record.CreationTime = CreationTimeOf(stat);
    record.LastAccessTime = ToNtTime(stat.Accessed);
    record.LastWriteTime = ToNtTime(stat.Written);
    record.ChangeTime = ToNtTime(stat.Changed);
    record.FileId = stat.Inode;
    if (facts->Kind == Kind::File) {
        record.EndOfFile = static_cast<LONGLONG>(stat.Size);
        record.AllocationSize = static_cast<LONGLONG>(stat.Blocks) * 512;
    }
}

NTSTATUS ChangeMode(Node& object, mode_t mode)
{
    const int error = object.ChangeMode(mode & 07777);
    return error == 0 ? STATUS_SUCCESS : StatusOf(error);
}

std::string HexText(ULONG number)
{
    char text[16] = "0x";
    const auto [end, error] = std::to_chars(text + 2, std::end(text), number, 16);
    return std::string(text, end);
}

// The file system keeps no extended attributes, so that only the owner's right to write is left.
NTSTATUS SetAttributesInMode(Node& object, mode_t mode, ULONG attributes)
{
    if (attributes & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM)) return STATUS_NOT_SUPPORTED;
    if (!(attributes & FILE_ATTRIBUTE_READONLY) || !(mode & kWriteBits)) return STATUS_SUCCESS;
    return ChangeMode(object, mode & ~kWriteBits);
}

} // namespace

NTSTATUS Describe(const Entry& object, Facts* facts)
{
    NodeStat stat;
    if (const int error = object.Stat(&stat); error != 0) return StatusOf(error);
    FillFacts(stat, facts);

    std::optional<ULONG> stored;
    if (facts->Kind == Kind::File || facts->Kind == Kind::Directory) {
        stored = ReadNumber<ULONG>(object, kAttributesName, 16);
        if (const auto creation = ReadNumber<LONGLONG>(object, kCreationName, 10)) facts->Info.CreationTime = *creation;
    }
    facts->Info.FileAttributes = AttributesOf(facts->Kind, facts->Mode, stored);
    return STATUS_SUCCESS;
}

NTSTATUS DescribeEntry(const Node& directory, const std::string& name, Facts* facts)
{
    std::unique_ptr<Entry> entry;
    const int error = directory.ChildEntry(name, &entry);
    return error == 0 ? Describe(*entry, facts) : StatusOf(error);
}

PluginAccessMask AccessOf(const Node& object, const Facts& facts)
{
    if (facts.Kind == Kind::Link) return GVND_ACCESS_READ;
    const auto may = [&](int mode) { return object.Access(mode) == 0; };
    const bool isOwner = geteuid() == 0 || geteuid() == facts.Owner;
    const bool mayWrite = may(W_OK);

    PluginAccessMask access = 0;
    if (may(R_OK)) access |= GVND_ACCESS_READ | GVND_ACCESS_EXECUTE;
    if (mayWrite && !(facts.Info.FileAttributes & FILE_ATTRIBUTE_READONLY)) access |= GVND_ACCESS_WRITE;
    if (mayWrite || isOwner) access |= GVND_ACCESS_WRITE_ATTRIBUTES;
    return access;
}

NTSTATUS SetAttributes(Node& object, ULONG attributes)
{
    Facts facts;
    if (const NTSTATUS status = Describe(object, &facts); !NT_SUCCESS(status)) return status;
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) && facts.Kind != Kind::Directory) return STATUS_INVALID_PARAMETER;

    // First the mode: a file that may not be written takes no extended attribute either.
    mode_t mode = facts.Mode;
    const bool opens = !(attributes & FILE_ATTRIBUTE_READONLY) && !(mode & S_IWUSR);
    if (opens) {
        mode |= S_IWUSR;
        if (const NTSTATUS status = ChangeMode(object, mode); !NT_SUCCESS(status)) return status;
    }
    const int error = object.SetXattr(kAttributesName.c_str(), HexText(attributes & kKeptAttributes));
    const NTSTATUS status = error == 0            ? STATUS_SUCCESS
                            : error == EOPNOTSUPP ? SetAttributesInMode(object, mode, attributes)
                                                  : StatusOf(error);
    if (!NT_SUCCESS(status) && opens) (void)ChangeMode(object, facts.Mode);
    return status;
}

NTSTATUS SetTimes(Node& object, LONGLONG creation, LONGLONG lastAccess, LONGLONG lastWrite)
{
    if (creation < 0 || lastAccess < 0 || lastWrite < 0) return STATUS_INVALID_PARAMETER;
    if (creation != 0) {
        const int error = object.SetXattr(kCreationName.c_str(), std::to_string(creation));
        if (error != 0 && error != EOPNOTSUPP) return StatusOf(error);
    }
    if (lastAccess == 0 && lastWrite == 0) return STATUS_SUCCESS;
    const timespec times[] = {ToTimespec(lastAccess), ToTimespec(lastWrite)};
    const int error = object.SetTimes(times);
    return error == 0 ? STATUS_SUCCESS : StatusOf(error);
}

int ReadXattr(const Entry& object, const std::string& name, std::string* value)
{
    value->resize(256);
    for (;;) {
        size_t length = 0;
        const int error = object.GetXattr(name.c_str(), value->data(), value->size(), &length);
        if (error == 0) value->resize(length);
        if (error != ERANGE) return error;
        // It may grow again before the next attempt.
        if (const int failed = object.GetXattr(name.c_str(), nullptr, 0, &length); failed != 0) return failed;
        value->resize(length + 256);
    }
}

} // namespace posixfs
