// Finding plugins and loading them.
#include "gvnd/plugins.h"

#include <algorithm>
#include <filesystem>

#include <dlfcn.h>

#include <fmt/format.h>

#include <gvnd/memfs.h>
#include <hostfs/hostfs.h>

#include "gvnd/status.h"

namespace tool {

namespace {

constexpr GvndGetPluginFn kBuiltIn[] = {GvMemfsPlugin, GvHostfsPlugin};

// Where plugins are installed: in the library directory beside the tool's. Empty if nobody can say.
std::filesystem::path InstalledPlugins()
{
    std::error_code error;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? self : self.parent_path().parent_path() / GVND_PLUGIN_DIRECTORY;
}

std::vector<std::string> InstalledNames()
{
    std::vector<std::string> names;
    std::error_code error; // most often there is no such directory
    for (const auto& entry : std::filesystem::directory_iterator(InstalledPlugins(), error)) {
        if (entry.path().extension() == ".so") names.push_back(entry.path().stem());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string Names()
{
    std::string names;
    for (const GvndGetPluginFn get : kBuiltIn) names += fmt::format("{}, ", get()->Name);
    for (const std::string& name : InstalledNames()) names += name + ", ";
    return names + "and so:PATH for a shared object";
}

std::string VersionText(ULONG version)
{
    return fmt::format("{}{}", version & 0xffff, version >> 16 ? " in the kernel's calling convention" : "");
}

// A path without a slash would be looked for where the system's libraries are.
ChosenPlugin Load(const std::string& path)
{
    const std::string file = path.find('/') == std::string::npos ? "./" + path : path;
    const std::shared_ptr<void> library(dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL), [](void* handle) {
        if (handle) dlclose(handle);
    });
    if (!library) {
        throw HostFailure(fmt::format("cannot load the plugin: {}\n  a name that is undefined is an NT routine that "
                                      "does not exist here, or a library that the plugin was not linked with",
                                      dlerror()));
    }
    const auto get = reinterpret_cast<GvndGetPluginFn>(dlsym(library.get(), GVND_PLUGIN_ENTRY_NAME));
    if (!get) {
        throw HostFailure(
            fmt::format("{} is no plugin: it does not export {} (gvnd/plugin_entry.h)", path, GVND_PLUGIN_ENTRY_NAME));
    }
    const GvndPlugin* const plugin = get();
    if (!plugin || plugin->Version != GVND_PLUGIN_ENTRY_VERSION) {
        throw HostFailure(fmt::format(
            "{} was built for version {} of the plugin entry, and this is {}; build it anew against the gvnd "
            "that loads it",
            path, VersionText(plugin ? plugin->Version : 0), VersionText(GVND_PLUGIN_ENTRY_VERSION)));
    }
    if (!plugin->Name || !plugin->Create || !plugin->WaitUntilUnmounted || !plugin->Destroy)
        throw HostFailure(fmt::format("{}: its entry leaves a field empty (gvnd/plugin_entry.h)", path));
    return {plugin, {}, library};
}

void PrintLine(const GvndPlugin& plugin, const std::string& name)
{
    const std::string arguments = plugin.Arguments ? plugin.Arguments : "";
    fmt::print("{:<40} {}\n", name + (arguments.empty() ? "" : ":" + arguments), plugin.Summary ? plugin.Summary : "");
}

} // namespace

ChosenPlugin ChoosePlugin(const std::string& words)
{
    const size_t colon = std::min(words.find(':'), words.size());
    const std::string name = words.substr(0, colon);
    const std::string rest = words.substr(std::min(colon + 1, words.size()));
    for (const GvndGetPluginFn get : kBuiltIn) {
        if (name == get()->Name) return {get(), rest, nullptr};
    }
    const std::vector<std::string> installed = InstalledNames();
    if (std::find(installed.begin(), installed.end(), name) != installed.end()) {
        ChosenPlugin chosen = Load(InstalledPlugins() / (name + ".so"));
        chosen.Arguments = rest;
        return chosen;
    }
    if (name != "so") throw Usage(fmt::format("unknown plugin '{}'; there are {}", words, Names()));
    const size_t end = std::min(rest.find(':'), rest.size());
    ChosenPlugin chosen = Load(rest.substr(0, end));
    chosen.Arguments = rest.substr(std::min(end + 1, rest.size()));
    return chosen;
}

void PrintPlugins(const std::vector<std::string>& sharedObjects)
{
    for (const GvndGetPluginFn get : kBuiltIn) PrintLine(*get(), get()->Name);
    for (const std::string& name : InstalledNames()) PrintLine(*Load(InstalledPlugins() / (name + ".so")).Plugin, name);
    for (const std::string& path : sharedObjects) {
        const ChosenPlugin chosen = Load(path);
        PrintLine(*chosen.Plugin, fmt::format("so:{} ({})", path, chosen.Plugin->Name));
    }
}

} // namespace tool
