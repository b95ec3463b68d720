// Kernel routines by name: the list in image/routines.inc, less what a test hides. The table is built once and never
// changes; the hidden names have a lock of their own.
#include "image/system_routine.h"

#include <mutex>
#include <set>
#include <string_view>
#include <type_traits>
#include <unordered_map>

#include <ntifs.h>

#include "ke/word_lock.h"
#include <nthost/routines.h>

namespace nthost {

namespace {

using Table = std::unordered_map<std::string_view, image::SystemRoutine>;

const Table& Routines()
{
    static const Table table{
#define X(name) {#name, {(PVOID)(&name), std::is_function_v<decltype(name)>}},
#include "image/routines.inc"
#undef X
    };
    return table;
}

ke::WordLock g_lock;
std::multiset<std::string> g_hidden; // under g_lock

bool IsHidden(const std::string& name)
{
    const std::lock_guard hold(g_lock);
    return g_hidden.count(name);
}

// Exported names are ASCII; anything else becomes a name that no routine has.
std::string Narrow(PCUNICODE_STRING text)
{
    std::string narrow;
    for (size_t i = 0; i < text->Length / sizeof(WCHAR); ++i)
        narrow += text->Buffer[i] < 0x80 ? static_cast<char>(text->Buffer[i]) : '?';
    return narrow;
}

} // namespace

HiddenRoutine::HiddenRoutine(std::string name) : name_(std::move(name))
{
    const std::lock_guard hold(g_lock);
    g_hidden.insert(name_);
}

HiddenRoutine::~HiddenRoutine()
{
    const std::lock_guard hold(g_lock);
    g_hidden.erase(g_hidden.find(name_));
}

image::SystemRoutine image::FindSystemRoutine(const std::string& name)
{
    const auto found = Routines().find(name);
    return found == Routines().end() || IsHidden(name) ? SystemRoutine{} : found->second;
}

} // namespace nthost

PVOID NTAPI MmGetSystemRoutineAddress(PUNICODE_STRING SystemRoutineName)
{
    return nthost::image::FindSystemRoutine(nthost::Narrow(SystemRoutineName)).Address;
}
