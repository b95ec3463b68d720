// The one formatter of debug output.
#pragma once

#include <cstddef>

#include <ntifs.h>

namespace nthost::rtl {

// What one DbgPrint call prints at most, as on NT.
constexpr size_t kDebugTextBytes = 512;

// Formats as nt/rtl.h says for DbgPrint into at most `size` bytes, without a terminator, and returns how many they are.
// Text that does not fit is cut at a character. A conversion that is not known is printed as it stands and takes no
// argument.
size_t FormatDebug(char* out, size_t size, const char* format, NT_VA_LIST arguments);

} // namespace nthost::rtl
