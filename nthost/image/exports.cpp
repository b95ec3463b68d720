// Exports for images. Most names are those that MmGetSystemRoutineAddress knows too; here are the few that the compiler
// of an image asks for by itself, with the calling convention that it expects.
#include "image/exports.h"

#include <cstring>
#include <string_view>
#include <strings.h>

#include "image/seh.h"
#include "image/system_routine.h"

namespace nthost::image {

namespace {

NTAPI void* CopyBytes(void* to, const void* from, size_t size) { return memcpy(to, from, size); }
NTAPI void* MoveBytes(void* to, const void* from, size_t size) { return memmove(to, from, size); }
NTAPI void* FillBytes(void* to, int value, size_t size) { return memset(to, value, size); }
NTAPI int CompareBytes(const void* one, const void* other, size_t size) { return memcmp(one, other, size); }
NTAPI size_t TextLength(const char* text) { return strlen(text); }
NTAPI int CompareText(const char* one, const char* other) { return strcmp(one, other); }

struct Export {
    std::string_view Name;
    void* Address;
};

const Export kRuntime[] = {
    {"memcpy", reinterpret_cast<void*>(&CopyBytes)},
    {"memmove", reinterpret_cast<void*>(&MoveBytes)},
    {"memset", reinterpret_cast<void*>(&FillBytes)},
    {"memcmp", reinterpret_cast<void*>(&CompareBytes)},
    {"strlen", reinterpret_cast<void*>(&TextLength)},
    {"strcmp", reinterpret_cast<void*>(&CompareText)},
    {"__C_specific_handler", reinterpret_cast<void*>(&CSpecificHandler)},
};

} // namespace

ExportedAddress FindExport(const char* module, const char* name)
{
    if (strcasecmp(module, "ntoskrnl.exe") != 0) return {};
    for (const Export& each : kRuntime)
        if (each.Name == name) return {each.Address, true};
    const image::SystemRoutine found = image::FindSystemRoutine(name);
    return {found.Address, found.IsRoutine};
}

} // namespace nthost::image
