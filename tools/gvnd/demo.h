// What the tool does when it is asked for nothing in particular.
#pragma once

namespace tool {

// Shows one file's road through the driver on the embedded plugin, then exports a real directory. Exit code.
int RunDemo();

} // namespace tool
