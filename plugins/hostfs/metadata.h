// Times, sizes, attributes and access of an object. What Linux has no field for lives in extended attributes of the
// file:
//
// - user.gvnd.attrs, hexadecimal: read-only, hidden, system, archive. Without it a file counts as archive alone.
// - user.gvnd.crtime, decimal NT time: the creation time, once it has been set. Without it the birth time counts, or
// where
//   there is none the older of write and change time.
// - user.gvnd.label on the root, UTF-8: the volume's label.
//
// A file is also read-only while its owner may not write it; clearing the attribute gives the owner that right back.
// Where a file system keeps no extended attributes, read-only is that right alone, archive stays as it is, hidden and
// system are refused, and a creation time is not kept. Stateless; objects are named by descriptors, which may be
// O_PATH.
#pragma once

#include <optional>
#include <string>

#include <sys/stat.h>

#include <gvnd/plugin.h>

#include "beneath.h"

namespace hostfs {

// The prefix of Linux names of attributes that a user may set, and of those that are this plugin's own.
constexpr std::string_view kUserPrefix = "user.";
constexpr std::string_view kOwnPrefix = "user.gvnd.";

struct Facts {
    PluginFileInfo Info; // FileId as in Linux; the times in NT form
    hostfs::Kind Kind;
    mode_t Mode;
    uid_t Owner;
    dev_t Device;
    ino_t Inode;
};

// Of the object of a descriptor.
[[nodiscard]] NTSTATUS Describe(int fd, Facts* facts);
// Of an entry of a directory, which is not followed if it is a link.
[[nodiscard]] NTSTATUS DescribeEntry(int directory, const std::string& name, Facts* facts);

// What the process may do with the object, as a PluginAccessMask. Executing is reading: an NT program that asks for all
// access to a document must get it, and Linux's right to execute says what Linux may start.
[[nodiscard]] PluginAccessMask AccessOf(int fd, const Facts& facts);

[[nodiscard]] NTSTATUS SetAttributes(int fd, ULONG attributes);
// Zero leaves a time alone. The change time is the kernel's, so it is left alone too.
[[nodiscard]] NTSTATUS SetTimes(int fd, LONGLONG creation, LONGLONG lastAccess, LONGLONG lastWrite);

// One extended attribute by its whole Linux name; errno and nothing when it cannot be read.
[[nodiscard]] std::optional<std::string> ReadXattr(int fd, const std::string& name);
// 0 or an errno.
[[nodiscard]] int WriteXattr(int fd, const std::string& name, std::string_view value);

} // namespace hostfs
