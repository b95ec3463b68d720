// Times, sizes, attributes and access of an object. What Linux has no field for lives in extended attributes of the
// file:
//
// - user.gvnd.attrs, hexadecimal: read-only, hidden, system, archive. Without it a file counts as archive alone.
// - user.gvnd.crtime, decimal NT time: the creation time, once it has been set. Without it the birth time counts, or
// where
//   there is none the older of write and change time: a new object on such a store has its creation time set at once.
// - user.gvnd.label on the root, UTF-8: the volume's label.
//
// A file is also read-only while its owner may not write it; clearing the attribute gives the owner that right back.
// Where a file system keeps no extended attributes, read-only is that right alone, archive stays as it is, hidden and
// system are refused, and a creation time is not kept. Stateless.
#pragma once

#include <optional>
#include <string>

#include <gvnd/plugin.h>

#include "node.h"

namespace posixfs {

// The prefix of Linux names of attributes that a user may set, and of those that are this plugin's own.
constexpr std::string_view kUserPrefix = "user.";
constexpr std::string_view kOwnPrefix = "user.gvnd.";

struct Facts {
    PluginFileInfo Info; // FileId as in Linux; the times in NT form
    posixfs::Kind Kind;
    mode_t Mode;
    uid_t Owner;
    dev_t Device;
    ino_t Inode;
    bool KeepsBirth; // the store knows when the object was made
};

[[nodiscard]] NTSTATUS Describe(const Entry& object, Facts* facts);
// Of an entry of a directory, which is not followed if it is a link.
[[nodiscard]] NTSTATUS DescribeEntry(const Node& directory, const std::string& name, Facts* facts);

// What the process may do with the object, as a PluginAccessMask. Executing is reading: an NT program that asks for all
// access to a document must get it, and Linux's right to execute says what Linux may start.
[[nodiscard]] PluginAccessMask AccessOf(const Node& object, const Facts& facts);

[[nodiscard]] NTSTATUS SetAttributes(Node& object, ULONG attributes);
// Zero leaves a time alone. The change time is the kernel's, so it is left alone too.
[[nodiscard]] NTSTATUS SetTimes(Node& object, LONGLONG creation, LONGLONG lastAccess, LONGLONG lastWrite);

// One extended attribute by its whole Linux name: 0 or an errno.
[[nodiscard]] int ReadXattr(const Entry& object, const std::string& name, std::string* value);

} // namespace posixfs
