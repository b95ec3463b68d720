// A table beside the resources: their own memory may be freed without a delete, and that has to be told, not followed.
// One lock, taken last.
#include "ex/live_resources.h"

#include <map>
#include <mutex>

#include <nthost/check.h>

#include "check/lock_order.h"
#include "check/stack.h"

namespace nthost::ex {

namespace {

std::mutex resourcesLock;

std::map<uintptr_t, CapturedStack>& Resources()
{
    static std::map<uintptr_t, CapturedStack> resources;
    return resources;
}

uintptr_t KeyOf(const void* address) { return reinterpret_cast<uintptr_t>(address); }

} // namespace

void NoteResource(PERESOURCE resource)
{
    CapturedStack stack;
    CaptureStack(stack);
    std::lock_guard lock(resourcesLock);
    Resources()[KeyOf(resource)] = stack;
}

void ForgetResource(PERESOURCE resource)
{
    std::lock_guard lock(resourcesLock);
    Resources().erase(KeyOf(resource));
}

void CheckNoResourceIn(const void* memory, size_t size)
{
    std::lock_guard lock(resourcesLock);
    const auto begin = Resources().lower_bound(KeyOf(memory)), end = Resources().lower_bound(KeyOf(memory) + size);
    for (auto resource = begin; resource != end; ++resource)
        ReportFinding("resource-not-deleted",
                      "the memory of a resource is freed; it was initialised at\n" + StackText(resource->second));
    Resources().erase(begin, end);
}

void ReportLiveResources(std::vector<std::string>& lines)
{
    std::lock_guard lock(resourcesLock);
    for (const auto& [address, stack] : Resources())
        lines.push_back("resource " + LockText(reinterpret_cast<void*>(address)) + " not deleted, initialised at\n" +
                        StackText(stack));
    Resources().clear();
}

} // namespace nthost::ex
