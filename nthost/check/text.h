// Small text helpers for reports.
#pragma once

#include <string>

namespace nthost {

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string HexText(const volatile void* address);
std::string TagText(unsigned tag); // a pool tag's four characters, dots for what cannot be printed

} // namespace nthost
