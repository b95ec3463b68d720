// The memory manager towards the rest of nthost: its start, and what the end of the host does to sections.
#pragma once

#include <string>
#include <vector>

#include <ntifs.h>

namespace nthost::mm {

// Page faults on views are resolved from then on, and a process that ends takes its views with it, and sections that
// nobody uses any more.
void Boot();
// At shutdown, while requests still work: what is mapped is reported and unmapped, and every file object that an unused
// section refers to is let go, even if its changes cannot be written.
void EndSections(std::vector<std::string>* leaks);

} // namespace nthost::mm
