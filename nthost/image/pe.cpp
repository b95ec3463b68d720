// Parses a kernel image's headers. Holds no state.
#include "image/pe.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

namespace nthost::image {

namespace {

constexpr uint16_t kDosMagic = 0x5a4d;
constexpr uint32_t kPeMagic = 0x4550;
constexpr uint16_t kMachine = 0x8664;
constexpr uint16_t kPlusMagic = 0x20b;
constexpr uint16_t kNativeSubsystem = 1;
constexpr uint16_t kRelocationsStripped = 1;
constexpr uint32_t kPage = 4096;
constexpr size_t kCoffSize = 20, kSectionSize = 40;
// In the optional header.
constexpr size_t kFixedPart = 112, kSubsystemAt = 68;

class Reader {
public:
    explicit Reader(const std::vector<uint8_t>& bytes) : bytes_(bytes) {}

    // Zero behind the end, which no caller takes for a good value.
    template <typename T>
    T At(uint64_t offset) const
    {
        T value{};
        if (offset + sizeof(T) <= bytes_.size()) memcpy(&value, &bytes_[offset], sizeof(T));
        return value;
    }

private:
    const std::vector<uint8_t>& bytes_;
};

bool ReadFile(const std::string& path, std::vector<uint8_t>* bytes, std::string* reason)
{
    std::ifstream file(path, std::ios::binary);
    if (file) bytes->assign(std::istreambuf_iterator<char>(file), {});
    if (file) return true;
    *reason = std::string("it cannot be read: ") + strerror(errno);
    return false;
}

const char* ReadSections(PeFile* file, uint64_t at, unsigned count)
{
    const Reader reader(file->Bytes);
    if (at + count * kSectionSize > file->HeaderSize) return "its section table lies outside of its headers";
    for (; count; --count, at += kSectionSize) {
        const char* const name = reinterpret_cast<const char*>(&file->Bytes[at]);
        Section section{std::string(name, strnlen(name, 8)), reader.At<uint32_t>(at + 12),
                        reader.At<uint32_t>(at + 8),         reader.At<uint32_t>(at + 20),
                        reader.At<uint32_t>(at + 16),        reader.At<uint32_t>(at + 36)};
        if (!section.VirtualSize) section.VirtualSize = section.FileSize;
        section.FileSize = std::min(section.FileSize, section.VirtualSize);
        if (section.Address % kPage || section.Address < file->HeaderSize ||
            !file->Inside(section.Address, section.VirtualSize))
            return "a section lies outside of the image";
        if (uint64_t{section.FileOffset} + section.FileSize > file->Bytes.size())
            return "a section is longer than the file";
        if (section.Writable() && section.Executable()) return "a section is writable and executable";
        file->Sections.push_back(std::move(section));
    }
    return nullptr;
}

const char* ReadDirectories(PeFile* file, uint64_t optional)
{
    const Reader reader(file->Bytes);
    const uint32_t count = reader.At<uint32_t>(optional + 108);
    const auto directory = [&](unsigned index) -> Directory {
        if (index >= count) return {};
        const uint64_t at = optional + kFixedPart + index * sizeof(Directory);
        return {reader.At<uint32_t>(at), reader.At<uint32_t>(at + 4)};
    };
    file->Imports = directory(1);
    file->Exceptions = directory(3);
    file->Relocations = directory(5);
    for (const Directory& each : {file->Imports, file->Exceptions, file->Relocations})
        if (!file->Inside(each.Address, each.Size)) return "a directory lies outside of the image";
    return nullptr;
}

const char* ReadHeaders(PeFile* file)
{
    const Reader reader(file->Bytes);
    if (reader.At<uint16_t>(0) != kDosMagic) return "it is no PE file";
    const uint64_t header = reader.At<uint32_t>(0x3c);
    if (reader.At<uint32_t>(header) != kPeMagic) return "it is no PE file";
    const uint64_t coff = header + 4, optional = coff + kCoffSize;
    if (reader.At<uint16_t>(coff) != kMachine || reader.At<uint16_t>(optional) != kPlusMagic)
        return "it is not for x86-64";
    if (reader.At<uint16_t>(optional + kSubsystemAt) != kNativeSubsystem) return "it is no kernel image";
    if (reader.At<uint16_t>(coff + 18) & kRelocationsStripped) return "its relocations are stripped";
    if (reader.At<uint32_t>(optional + 32) % kPage) return "its sections are not aligned to pages";

    file->PreferredBase = reader.At<uint64_t>(optional + 24);
    file->ImageSize = reader.At<uint32_t>(optional + 56);
    file->HeaderSize = reader.At<uint32_t>(optional + 60);
    file->Entry = reader.At<uint32_t>(optional + 16);
    if (file->HeaderSize > file->Bytes.size() || file->HeaderSize > file->ImageSize || file->ImageSize > 1u << 30)
        return "its sizes contradict each other";
    if (const char* wrong = ReadDirectories(file, optional)) return wrong;
    return ReadSections(file, optional + reader.At<uint16_t>(coff + 16), reader.At<uint16_t>(coff + 2));
}

} // namespace

std::optional<PeFile> ReadPeFile(const std::string& path, std::string* reason)
{
    PeFile file{};
    if (!ReadFile(path, &file.Bytes, reason)) return std::nullopt;
    if (const char* wrong = ReadHeaders(&file)) {
        *reason = wrong;
        return std::nullopt;
    }
    const auto holdsEntry = [&](const Section& section) {
        return section.Executable() && file.Entry - section.Address < section.VirtualSize;
    };
    if (std::any_of(file.Sections.begin(), file.Sections.end(), holdsEntry)) return file;
    *reason = "its entry lies in no code";
    return std::nullopt;
}

} // namespace nthost::image
