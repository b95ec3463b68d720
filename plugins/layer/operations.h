// The operations of a plugin's table by name and by slot, and their arguments as text: for what stands between driver
// and plugin, whichever that is.
#pragma once

#include <cinttypes>
#include <cstdio>
#include <string>
#include <type_traits>

#include <gvnd/plugin.h>
#include <nthost/debug.h>

namespace layer {

inline std::string Describe(PCUNICODE_STRING text) { return nthost::ToUtf8(text); }
inline std::string Describe(const char* text) { return text; }
inline std::string Describe(ULONG value) { return std::to_string(value); }
inline std::string Describe(PluginFd fd)
{
    char text[32];
    std::snprintf(text, sizeof text, "#%" PRIx64, static_cast<uint64_t>(fd));
    return text;
}
inline std::string Describe(LONGLONG value) { return std::to_string(value); }
inline std::string Describe(const ULONG* value) { return std::to_string(*value); }
inline std::string Describe(const LONGLONG* value) { return std::to_string(*value); }
// Buffers and out parameters say nothing about the call.
inline std::string Describe(const void*) { return {}; }
template <typename T>
std::string Describe(T** /*out*/)
{
    return {};
}

template <typename... Arguments>
inline std::string DescribeAll(Arguments... arguments)
{
    std::string all;
    [[maybe_unused]] auto add = [&all](const std::string& one) {
        if (!one.empty()) all += (all.empty() ? "" : " ") + one;
    };
    (add(Describe(arguments)), ...);
    return all;
}

// Slot -> name.
template <auto Slot>
struct Named;

// clang-format off
#define GVND_FOR_EACH_OPERATION(X) \
    X(GetNormalizedPath) X(AccessCheck) X(Lookup) X(Open) X(OpenDir) X(Create) X(CreateDir) X(Read) X(Write) \
    X(ReadDirEntry) X(GetInfo) X(SetFileSize) X(SetAttr) X(SetTime) X(GetVolInfo) X(SetVolLabel) X(Close) \
    X(Rename) X(Delete) X(FlushVol) X(FlushFile) X(ListEa) X(GetEa) X(SetEa) X(DeleteEa) X(ReadLink)
// clang-format on

#define GVND_NAME_OPERATION(name)                  \
    template <>                                    \
    struct Named<&PluginOps::name> {               \
        static constexpr const char* Name = #name; \
    };
GVND_FOR_EACH_OPERATION(GVND_NAME_OPERATION)
#undef GVND_NAME_OPERATION

} // namespace layer
