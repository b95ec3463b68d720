// The table of modules.
#include "image/module.h"

#include <algorithm>
#include <atomic>

namespace nthost::image {

namespace {

constexpr size_t kMaximum = 64;
std::atomic<Module*> g_modules[kMaximum];
std::atomic<size_t> g_count;

} // namespace

bool AnyModule() { return g_count.load(std::memory_order_acquire) != 0; }

const Module* FindModule(uint64_t address)
{
    for (size_t i = g_count.load(std::memory_order_acquire); i-- > 0;) {
        const Module* const module = g_modules[i].load(std::memory_order_acquire);
        if (module && module->Contains(address)) return module;
    }
    return nullptr;
}

Module* UnloadedTwin(size_t hash)
{
    for (size_t i = g_count.load(std::memory_order_acquire); i-- > 0;) {
        Module* const module = g_modules[i].load(std::memory_order_acquire);
        if (module && module->Unloaded && module->Hash == hash) return module;
    }
    return nullptr;
}

const RuntimeFunction* FindFunction(const Module& module, uint32_t offset)
{
    const RuntimeFunction* const end = module.Functions + module.FunctionCount;
    const RuntimeFunction* const next =
        std::upper_bound(module.Functions, end, offset,
                         [](uint32_t value, const RuntimeFunction& function) { return value < function.Begin; });
    return next != module.Functions && offset < next[-1].End ? next - 1 : nullptr;
}

bool EnterModule(Module* module)
{
    const size_t count = g_count.load(std::memory_order_relaxed);
    if (count == kMaximum) return false;
    g_modules[count].store(module, std::memory_order_release);
    g_count.store(count + 1, std::memory_order_release);
    return true;
}

void ClearModules(void (*discard)(Module*))
{
    const size_t count = g_count.exchange(0, std::memory_order_acq_rel);
    for (size_t i = 0; i < count; ++i) discard(g_modules[i].exchange(nullptr, std::memory_order_acq_rel));
}

} // namespace nthost::image
