// Ids of processes and threads: multiples of 4, from one counter, never reused while nthost runs.
#pragma once

#include <ntifs.h>

namespace nthost::ps {

HANDLE NextId();

} // namespace nthost::ps
