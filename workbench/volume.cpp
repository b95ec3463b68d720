// A mounted volume.
#include "workbench/volume.h"

#include <algorithm>
#include <cstdio>

namespace workbench {

std::string VolumePath(const std::string& path)
{
    std::string result = path;
    std::replace(result.begin(), result.end(), '/', '\\');
    if (result.empty() || result.front() != '\\') result.insert(result.begin(), '\\');
    return result;
}

Volume::Volume(Host& host, const PluginOps* table, const MountOptions& options)
    : host_(host), link_("\\??\\" + options.Name), layer_(table)
{
    Require("mount " + link_, host_.Mount(options, layer_.Table(), &device_));
}

Volume::~Volume()
{
    try {
        Unmount();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
    }
}

void Volume::Unmount()
{
    if (!device_) return;
    Require("unmount " + link_, host_.RequestUnmount(std::exchange(device_, nullptr)));
    layer_.WaitUntilUnmounted();
}

std::vector<Entry> Volume::List(const std::string& path, const std::string& pattern) const
{
    std::vector<Entry> entries;
    ListDirectory(Open(path, kListing), pattern, [&](const Entry& entry) { entries.push_back(entry); });
    return entries;
}

} // namespace workbench
