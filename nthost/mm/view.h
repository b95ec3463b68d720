// Views: ranges of a process that show the pages of a control area.
#pragma once

#include <string>
#include <vector>

#include "mm/control_area.h"

namespace nthost::mm {

// The process's view that has the address, null for none. Under sectionLock.
View* FindView(PEPROCESS process, const void* address);
bool AnyViews(); // without the lock

struct ViewRequest {
    ControlArea* Area;
    PEPROCESS Process;
    void* Base; // null: anywhere
    LONGLONG Offset;
    size_t Length;
    bool Readable;
    bool Writable;
};
[[nodiscard]] NTSTATUS MapView(const ViewRequest& request, void** base);
[[nodiscard]] NTSTATUS UnmapView(PEPROCESS process, const void* address);
// For a process that ends, or, null, for all: one text per view there was.
std::vector<std::string> UnmapViewsOf(PEPROCESS process);

// What every view of the area allows on the pages, from now on: PROT_... Under sectionLock.
void ProtectInViews(ControlArea* area, PageRange range, int protection);

} // namespace nthost::mm
