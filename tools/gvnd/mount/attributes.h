// Objects as stat shows them: NT's facts, and what NT has no place for. Mode, owner and group that differ from what a
// new object of the mounting user would have are kept in one extended attribute, so that nothing is kept for most.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <sys/stat.h>

#include "gvnd/mount/requests.h"
#include "gvnd/session.h"

namespace tool::mount {

// The extended attribute: "MODE UID GID", the mode in octal. Not shown among the others.
inline constexpr std::string_view kUnixEa = "$GVUNIX";

struct UnixFacts {
    mode_t Mode = 0; // permissions alone
    uid_t Uid = 0;
    gid_t Gid = 0;
    bool operator==(const UnixFacts&) const = default;
};

struct Facts {
    ULONG Attributes = 0;
    int64_t Creation = 0, LastAccess = 0, LastWrite = 0, Change = 0; // NT times
    uint64_t Size = 0;
    uint64_t Allocation = 0;
    uint64_t FileId = 0;
    UnixFacts Unix;

    bool IsDirectory() const { return Attributes & FILE_ATTRIBUTE_DIRECTORY; }
    bool IsLink() const { return Attributes & FILE_ATTRIBUTE_REPARSE_POINT; }
    bool IsReadOnly() const { return Attributes & FILE_ATTRIBUTE_READONLY; }
};

// What an object has of which nothing is kept.
UnixFacts DefaultUnix(ULONG attributes);
// The value to keep; empty, which removes it, for the default.
std::string UnixEaValue(const UnixFacts& facts, ULONG attributes);

// Access that QueryFacts needs.
constexpr ACCESS_MASK kLook = FILE_READ_ATTRIBUTES | FILE_READ_EA;
[[nodiscard]] NTSTATUS QueryFacts(HANDLE handle, Facts* facts);
[[nodiscard]] NTSTATUS QueryUnix(HANDLE handle, Facts* facts);

struct stat StatOf(const Facts& facts, uint64_t nodeId);

int64_t NtTimeOf(const timespec& time);
timespec TimespecOf(int64_t ntTime);
int64_t NtNow();

// Links, which every open follows: what is done with one itself goes to the plugin directly, as Session says.
class Links {
public:
    explicit Links(Session& session) : session_(session) {}
    // False if the path is no link.
    bool Describe(const NtName& path, Facts* facts);
    [[nodiscard]] NTSTATUS Delete(const NtName& path);
    [[nodiscard]] NTSTATUS Rename(const NtName& from, const NtName& to);
    [[nodiscard]] NTSTATUS ReadTarget(const NtName& path, NtName* target);

private:
    Session& session_;
};

// The object at the path, which may be a link. Links are told from what they lead to by asking for more than a plain
// open, which they refuse.
[[nodiscard]] NTSTATUS DescribePath(Links& links, const NtName& path, Facts* facts);

} // namespace tool::mount
