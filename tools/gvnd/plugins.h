// Plugins by the words of -p: those that are built in, those that are installed beside the tool, and shared objects.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gvnd/plugin_entry.h>

namespace tool {

struct ChosenPlugin {
    const GvndPlugin* Plugin = nullptr;
    std::string Arguments;
    std::shared_ptr<void> Library; // of a shared object; the code is there as long as this
};

// "memfs", "hostfs:DIR", the name of an installed one with its arguments, or "so:PATH[:ARGUMENTS]". Usage if there is
// no such plugin, HostFailure for a shared object that cannot be loaded or is no plugin.
ChosenPlugin ChoosePlugin(const std::string& words);

// One line for each that is built in or installed, and for each shared object given.
void PrintPlugins(const std::vector<std::string>& sharedObjects);

} // namespace tool
