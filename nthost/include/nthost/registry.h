// The registry, for those who set it up: tests, tools and the driver loader. It lives in memory from boot to shutdown,
// with \Registry\Machine there from the start. Names are UTF-8 and compare without case. Thread-safe.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <ntifs.h>

namespace nthost {

// Makes the key and those above it as needed. Paths are absolute ("\\Registry\\Machine\\..."); any other is refused
// with STATUS_OBJECT_PATH_SYNTAX_BAD or, outside of \Registry, STATUS_OBJECT_NAME_NOT_FOUND.
[[nodiscard]] NTSTATUS CreateRegistryKey(std::string_view path);

// Makes the key, too. The empty name is the key's default value.
[[nodiscard]] NTSTATUS SetRegistryValue(std::string_view path, std::string_view name, ULONG type, const void* data,
                                        size_t size);
[[nodiscard]] NTSTATUS SetRegistryDword(std::string_view path, std::string_view name, ULONG value);

// STATUS_OBJECT_NAME_NOT_FOUND.
[[nodiscard]] NTSTATUS DeleteRegistryValue(std::string_view path, std::string_view name);

struct RegistryValue {
    ULONG Type;
    std::vector<unsigned char> Data;
};
std::optional<RegistryValue> GetRegistryValue(std::string_view path, std::string_view name);

} // namespace nthost
