// The one place that says which driver is loaded.
#include <cstdlib>

#include <gvnd/driver.h>
#include <nthost/image.h>

#include "workbench/host.h"

namespace workbench {

namespace {

constexpr char kName[] = "gvnd";

} // namespace

std::string ImageOfEnvironment(const char* variable)
{
    const char* const path = std::getenv(variable);
    return path ? path : "";
}

NTSTATUS Host::LoadGvnd(const std::string& image)
{
    return image.empty() ? Load(kName, GvndDriverEntry) : LoadImage(kName, image);
}

PDRIVER_OBJECT Host::Gvnd() const
{
    for (const Loaded& loaded : drivers_)
        if (loaded.Name == kName) return loaded.Driver;
    return nullptr;
}

} // namespace workbench
