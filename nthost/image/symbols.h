// Names of an image's functions, from the link map that stands beside the image: gvnd.map for gvnd.sys.
#pragma once

#include <string>
#include <vector>

#include "image/module.h"

namespace nthost::image {

// By address; empty without a map, or with one that was made for another image base.
std::vector<Symbol> ReadSymbols(const std::string& imagePath, uint64_t preferredBase,
                                const std::vector<Section>& sections);

// "module!function+0x12", or "module+0x1234" where no symbol is known. For addresses of modules only.
std::string ImageAddressText(const Module& module, uint64_t address);

} // namespace nthost::image
