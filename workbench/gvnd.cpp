// The one place that says which driver is loaded.
#include <gvnd/driver.h>

#include "workbench/host.h"

namespace workbench {

namespace {

constexpr char kName[] = "gvnd";

} // namespace

NTSTATUS Host::LoadGvnd() { return Load(kName, GvndDriverEntry); }

PDRIVER_OBJECT Host::Gvnd() const
{
    for (const Loaded& loaded : drivers_)
        if (loaded.Name == kName) return loaded.Driver;
    return nullptr;
}

} // namespace workbench
