// The resources that are initialised and not yet deleted, with where that was done; for reports, only with checks on.
#pragma once

#include <string>
#include <vector>

#include <ntifs.h>

namespace nthost::ex {

void NoteResource(PERESOURCE resource);
void ForgetResource(PERESOURCE resource);
// The memory goes away: a resource in it that was not deleted is a finding "resource-not-deleted".
void CheckNoResourceIn(const void* memory, size_t size);
void ReportLiveResources(std::vector<std::string>& lines);

} // namespace nthost::ex
