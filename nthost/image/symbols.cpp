// Link maps, as lld-link writes them. A line of the list of symbols has section:offset, name, address and object.
#include "image/symbols.h"

#include <algorithm>
#include <cstdlib>
#include <cxxabi.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include "check/text.h"

namespace nthost::image {

namespace {

std::string Demangled(const std::string& name)
{
    int status = 0;
    const std::unique_ptr<char, void (*)(void*)> text(abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status),
                                                      free);
    return text ? text.get() : name;
}

bool IsCode(const std::vector<Section>& sections, uint64_t offset)
{
    return std::any_of(sections.begin(), sections.end(), [offset](const Section& section) {
        return section.Executable() && offset >= section.Address && offset - section.Address < section.VirtualSize;
    });
}

} // namespace

std::vector<Symbol> ReadSymbols(const std::string& imagePath, uint64_t preferredBase,
                                const std::vector<Section>& sections)
{
    std::vector<Symbol> symbols;
    std::ifstream map(std::filesystem::path(imagePath).replace_extension(".map"));
    for (std::string line; std::getline(map, line);) {
        std::istringstream words(line);
        std::string place, name, address;
        if (!(words >> place >> name >> address) || place.size() < 6 || place[4] != ':') continue;
        char* end = nullptr;
        const uint64_t value = strtoull(address.c_str(), &end, 16);
        if (*end || value < preferredBase || !IsCode(sections, value - preferredBase)) continue;
        if (name[0] != '.') symbols.push_back({static_cast<uint32_t>(value - preferredBase), name});
    }
    std::sort(symbols.begin(), symbols.end(), [](const Symbol& a, const Symbol& b) { return a.Address < b.Address; });
    return symbols;
}

std::string ImageAddressText(const Module& module, uint64_t address)
{
    const uint32_t offset = module.OffsetOf(address);
    const auto next = std::upper_bound(module.Symbols.begin(), module.Symbols.end(), offset,
                                       [](uint32_t value, const Symbol& symbol) { return value < symbol.Address; });
    const char* const gone = module.Unloaded ? " (unloaded)" : "";
    if (next == module.Symbols.begin()) return Format("%s+0x%x%s", module.Name.c_str(), offset, gone);
    const Symbol& symbol = next[-1];
    return Format("%s!%s+0x%x%s", module.Name.c_str(), Demangled(symbol.Name).c_str(), offset - symbol.Address, gone);
}

} // namespace nthost::image
