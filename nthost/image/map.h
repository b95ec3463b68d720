// Puts an image into memory and takes it out again. Not thread-safe: the loader's lock is held.
#pragma once

#include <string>
#include <vector>

#include "image/module.h"

namespace nthost::image {

// Copies the sections to module's Base (a range that is kept free of all else; reserved anew if Base is null), applies
// the relocations, binds the imports and sets the sections' protections. False, with the reason, if that is impossible;
// names of imports that nothing stands behind go to *missing, each as "MODULE!NAME".
bool MapImage(const PeFile& file, Module* module, std::string* reason, std::vector<std::string>* missing);

// The range stays reserved without access, so that a late call faults where its name is still known.
void UnmapImage(Module* module);
void ReleaseRange(Module* module);

} // namespace nthost::image
