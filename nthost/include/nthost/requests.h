// How many requests have been sent to drivers, of all kinds; for counts and totals.
#pragma once

#include <cstdint>

namespace nthost {

uint64_t RequestsSent();

} // namespace nthost
