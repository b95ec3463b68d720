// The records that pass to the driver, each one block of pool memory. STATUS_INSUFFICIENT_RESOURCES when there is none.
#pragma once

#include <gvnd/plugin.h>

#include "metadata.h"
#include "names.h"

namespace posixfs {

class Volume;

[[nodiscard]] NTSTATUS MakeInfo(const Volume& volume, const Facts& facts, PluginFileInfo** info);
[[nodiscard]] NTSTATUS MakeEntry(const Facts& facts, NtTextView name, PluginDirEntry** entry);
// Header and text in one block. STATUS_NAME_TOO_LONG for a text that a counted string cannot hold.
[[nodiscard]] NTSTATUS MakeString(NtTextView text, PUNICODE_STRING* string);

} // namespace posixfs
