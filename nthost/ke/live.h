// What lives in a driver's memory and has to be ended before that goes: resources, lookaside lists, timers that are
// set. With where it was made or set; for reports, only with checks on.
#pragma once

#include <string>
#include <vector>

#include <ntifs.h>

namespace nthost::ke {

enum class LiveKind { Resource, LookasideList, Timer };

void NoteLiveObject(LiveKind kind, const void* object);
void ForgetLiveObject(const void* object);
// The memory goes away: what still lives in it is a finding, "resource-not-deleted", "lookaside-list-not-deleted" or
// "timer-not-cancelled".
void CheckNothingLiveIn(const void* memory, size_t size);
// One line for each; afterwards none is known.
void ReportLive(std::vector<std::string>& lines);

} // namespace nthost::ke
