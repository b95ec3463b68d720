// Extended attributes through the front door: lists of them as NT carries them, and as a map from name to value.
#pragma once

#include <map>
#include <string>

#include "gvnd/client.h"

namespace tool {

using EaMap = std::map<std::string, std::string>;

// The records of NtSetEaFile and NtCreateFile, in order of names. A value that is empty removes its name. Usage for a
// name or value that a record cannot hold.
std::string EaList(const EaMap& eas);

// All of the file's; none where the file or the plugin has none. The handle needs FILE_READ_EA.
EaMap ReadEas(const File& file);
// One by its name; STATUS_NONEXISTENT_EA_ENTRY if there is none.
std::string ReadEa(const File& file, const std::string& name);
// The handle needs FILE_WRITE_EA.
void WriteEas(const File& file, const EaMap& eas);

} // namespace tool
