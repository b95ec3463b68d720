// Names: Linux ones are bytes, NT ones are 16-bit text. The mapping loses nothing in either direction:
//
// - A name that is UTF-8 is shown as that text. An unpaired surrogate of an NT name is kept in the three bytes that
// UTF-8
//   would give it.
// - The characters that NT names cannot hold, which are 1 to 31 and " * : < > ? \ |, and every byte that is not part of
//   UTF-8 are shown as one private-use character, U+F000 plus the byte.
// - A Linux name that itself holds one of those private-use characters has the bytes of it shown that way.
//
// Each Linux name so has exactly one NT name. NT text that is no Linux name's NT name is refused, so that two texts
// never mean the same file, and no text can smuggle in a slash.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <ntifs.h>

namespace posixfs {

using NtText = std::u16string;
using NtTextView = std::u16string_view;

// The Linux names from the root down; empty for the root.
using Components = std::vector<std::string>;

[[nodiscard]] NtText TextOf(PCUNICODE_STRING string);

[[nodiscard]] NtText ToNtName(std::string_view linuxName);
// Nothing when no Linux name is shown as this text.
[[nodiscard]] std::optional<std::string> ToLinuxName(NtTextView ntName);

// Without regard to case, as NT compares names.
[[nodiscard]] bool EqualNames(NtTextView a, NtTextView b);

// Compares many Linux names with one NT name; cheap for ASCII.
class NameMatcher {
public:
    explicit NameMatcher(std::string_view linuxName);
    [[nodiscard]] bool Matches(std::string_view candidate) const;

private:
    std::string bytes_;
    NtText text_;
    bool ascii_;
};

// Splits a path of the volume. STATUS_OBJECT_NAME_INVALID for a name that Linux cannot hold, and for "." and "..";
// STATUS_NAME_TOO_LONG for one above 255 bytes.
[[nodiscard]] NTSTATUS ParsePath(PCUNICODE_STRING path, Components* components);

} // namespace posixfs
