// How much of a thread's stack images take. The platform gives a thread 24 KiB, here it has megabytes; so whenever code
// of an image calls the kernel, the frames of images that are on the stack then are added up. Part of the checks.
#pragma once

#include "image/module.h"

namespace nthost::image {

// What an import is bound to instead of the routine: a stub that measures and goes on there. Null without memory.
void* MeasuredImport(Module* module, void* routine);
// The stubs can be executed from now on.
bool SealStubs(Module* module);
void ReleaseStubs(Module* module);

} // namespace nthost::image
