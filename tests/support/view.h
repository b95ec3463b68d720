// The workbench's view by the name that tests use.
#pragma once

#include <workbench/view.h>

namespace support {

using workbench::View;

} // namespace support
