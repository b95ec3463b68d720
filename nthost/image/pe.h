// The file of a kernel image: PE32+ for x86-64, as it lies on disk. Every field is checked before it is believed; what
// has been parsed can be used without further tests of its bounds.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace nthost::image {

struct Section {
    std::string Name;
    uint32_t Address, VirtualSize;
    uint32_t FileOffset, FileSize;
    uint32_t Flags;

    bool Readable() const { return Flags & 0x40000000; }
    bool Writable() const { return Flags & 0x80000000; }
    bool Executable() const { return Flags & 0x20000000; }
};

struct Directory {
    uint32_t Address, Size;
};

struct PeFile {
    std::vector<uint8_t> Bytes;
    uint64_t PreferredBase;
    uint32_t ImageSize, HeaderSize;
    uint32_t Entry;
    std::vector<Section> Sections;
    Directory Imports, Exceptions, Relocations;

    // Whether [address, address + size) lies in the image.
    bool Inside(uint64_t address, uint64_t size) const { return address + size <= ImageSize; }
};

// Nothing, and why in *reason, for a file that is no such image.
std::optional<PeFile> ReadPeFile(const std::string& path, std::string* reason);

} // namespace nthost::image
