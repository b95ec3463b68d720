// Queries and their conversion.
#include "gvnd/mount/attributes.h"

#include <charconv>
#include <cstring>

#include <unistd.h>

#include <fmt/format.h>

#include "gvnd/eas.h"

namespace tool::mount {

namespace {

constexpr int64_t kUnitsPerSecond = 10'000'000;
constexpr int64_t kUnixEpoch = 116'444'736'000'000'000;
constexpr mode_t kPermissions = 07777;
constexpr mode_t kWriteBits = 0222;

// Read-only is NT's to say: other tools than this one change it too.
mode_t Reconciled(mode_t mode, const Facts& facts)
{
    if (facts.IsDirectory()) return mode;
    if (facts.IsReadOnly()) return mode & ~kWriteBits;
    return mode & kWriteBits ? mode : mode | S_IWUSR;
}

bool ParseUnix(std::string_view text, UnixFacts* facts)
{
    const char* at = text.data();
    const char* const end = at + text.size();
    const auto number = [&](auto* value, int base) {
        while (at != end && *at == ' ') ++at;
        const auto [stop, error] = std::from_chars(at, end, *value, base);
        at = stop;
        return error == std::errc();
    };
    return number(&facts->Mode, 8) && number(&facts->Uid, 10) && number(&facts->Gid, 10);
}

std::vector<uint64_t> NameList(std::string_view name)
{
    std::vector<uint64_t> list((FIELD_OFFSET(FILE_GET_EA_INFORMATION, EaName) + name.size() + 1 + 7) / 8);
    auto* const wanted = reinterpret_cast<FILE_GET_EA_INFORMATION*>(list.data());
    wanted->EaNameLength = static_cast<UCHAR>(name.size());
    std::memcpy(wanted->EaName, name.data(), name.size());
    return list;
}

} // namespace

UnixFacts DefaultUnix(ULONG attributes)
{
    const mode_t mode = attributes & FILE_ATTRIBUTE_DIRECTORY ? 0755 : 0644;
    const bool readOnly = attributes & FILE_ATTRIBUTE_READONLY;
    return {.Mode = readOnly ? mode & ~kWriteBits : mode, .Uid = getuid(), .Gid = getgid()};
}

std::string UnixEaValue(const UnixFacts& facts, ULONG attributes)
{
    if (facts == DefaultUnix(attributes)) return {};
    return fmt::format("{:o} {} {}", facts.Mode & kPermissions, facts.Uid, facts.Gid);
}

NTSTATUS QueryUnix(HANDLE handle, Facts* facts)
{
    static const std::vector<uint64_t> names = NameList(kUnixEa);
    std::vector<uint64_t> buffer;
    const NTSTATUS status = QueryEas(handle, &buffer, &names);
    if (!NT_SUCCESS(status) || buffer.empty()) return status;
    const auto* const record = reinterpret_cast<const FILE_FULL_EA_INFORMATION*>(buffer.data());
    UnixFacts kept;
    if (record->EaValueLength == 0) return status;
    if (!ParseUnix({record->EaName + record->EaNameLength + 1, record->EaValueLength}, &kept)) return status;
    facts->Unix = kept;
    facts->Unix.Mode = Reconciled(kept.Mode & kPermissions, *facts);
    return status;
}

NTSTATUS QueryFacts(HANDLE handle, Facts* facts)
{
    constexpr size_t kPath = 64 * 1024;
    alignas(8) static thread_local char buffer[sizeof(FILE_ALL_INFORMATION) + kPath];
    const NTSTATUS status = QueryRaw(handle, FileAllInformation, buffer, sizeof buffer);
    if (!NT_SUCCESS(status)) return status;
    const auto& all = *reinterpret_cast<const FILE_ALL_INFORMATION*>(buffer);
    facts->Attributes = all.BasicInformation.FileAttributes;
    if (all.StandardInformation.Directory) facts->Attributes |= FILE_ATTRIBUTE_DIRECTORY;
    facts->Creation = all.BasicInformation.CreationTime.QuadPart;
    facts->LastAccess = all.BasicInformation.LastAccessTime.QuadPart;
    facts->LastWrite = all.BasicInformation.LastWriteTime.QuadPart;
    facts->Change = all.BasicInformation.ChangeTime.QuadPart;
    facts->Size = static_cast<uint64_t>(all.StandardInformation.EndOfFile.QuadPart);
    facts->Allocation = static_cast<uint64_t>(all.StandardInformation.AllocationSize.QuadPart);
    facts->FileId = static_cast<uint64_t>(all.InternalInformation.IndexNumber.QuadPart);
    facts->Unix = DefaultUnix(facts->Attributes);
    // A plugin without extended attributes keeps no modes, and that is all.
    if (all.EaInformation.EaSize != 0) (void)QueryUnix(handle, facts);
    return STATUS_SUCCESS;
}

NTSTATUS DescribePath(Links& links, const NtName& path, Facts* facts)
{
    Handle handle;
    NTSTATUS status = Open(path, {.Access = kLook | (path == u"\\" ? 0 : DELETE)}, &handle);
    if (status == STATUS_ACCESS_DENIED) {
        if (links.Describe(path, facts)) return STATUS_SUCCESS;
        status = Open(path, {.Access = kLook}, &handle); // no link, so nothing is followed
    }
    return NT_SUCCESS(status) ? QueryFacts(handle.Get(), facts) : status;
}

struct stat StatOf(const Facts& facts, uint64_t nodeId)
{
    struct stat info = {};
    info.st_ino = facts.FileId ? facts.FileId : nodeId;
    info.st_mode = facts.IsLink()        ? S_IFLNK | 0777
                   : facts.IsDirectory() ? S_IFDIR | facts.Unix.Mode
                                         : S_IFREG | facts.Unix.Mode;
    info.st_nlink = 1; // for a directory this says that nothing can be concluded from it
    info.st_uid = facts.Unix.Uid;
    info.st_gid = facts.Unix.Gid;
    info.st_size = static_cast<off_t>(facts.IsDirectory() ? 0 : facts.Size);
    info.st_blocks = static_cast<blkcnt_t>((facts.Allocation + 511) / 512);
    info.st_blksize = 4096;
    info.st_atim = TimespecOf(facts.LastAccess);
    info.st_mtim = TimespecOf(facts.LastWrite);
    info.st_ctim = TimespecOf(facts.Change);
    return info;
}

int64_t NtTimeOf(const timespec& time)
{
    const int64_t units = time.tv_sec * kUnitsPerSecond + time.tv_nsec / 100 + kUnixEpoch;
    return units > 0 ? units : 1; // 0 would leave the time alone
}

timespec TimespecOf(int64_t ntTime)
{
    const int64_t units = ntTime - kUnixEpoch;
    const int64_t fraction = (units % kUnitsPerSecond + kUnitsPerSecond) % kUnitsPerSecond;
    return {.tv_sec = (units - fraction) / kUnitsPerSecond, .tv_nsec = fraction * 100};
}

int64_t NtNow()
{
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    return now.QuadPart;
}

} // namespace tool::mount
