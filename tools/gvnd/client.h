// The workbench by the names that the tool uses: an open file, listings, failures that name their request. Pathnames in
// failures are those that the user would give.
#pragma once

#include <workbench/file.h>
#include <workbench/volume.h>

namespace tool {

using workbench::Entry;
using workbench::File;
using workbench::kListing;
using workbench::kReading;
using workbench::ListDirectory;
using workbench::OpenFile;
using workbench::OpenRequest;
using workbench::RecordWithText;
using workbench::ShownPath;
using workbench::Text;
using workbench::VolumePath;

} // namespace tool
