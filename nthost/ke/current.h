// For ps, which makes and ends threads.
#pragma once

#include "ke/thread.h"

namespace nthost::ke {

// Null when the Linux thread stops being one of nthost's.
void SetCurrentThread(_ETHREAD* thread);

} // namespace nthost::ke
