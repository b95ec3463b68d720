// Images that are mapped now, or were in this boot. The table is read without a lock, from fault handlers too: a module
// is entered once complete, and its record lives until the host shuts down. Changing it is under the caller's lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "image/pe.h"

namespace nthost::image {

struct RuntimeFunction {
    uint32_t Begin, End, Unwind;
};

struct Symbol {
    uint32_t Address;
    std::string Name; // as the linker knows it
};

struct Module {
    std::string Name; // of the file, without its directory
    size_t Hash = 0;  // of the file's bytes
    uint8_t* Base = nullptr;
    size_t Size = 0;
    uint32_t Entry = 0;
    const RuntimeFunction* Functions = nullptr; // sorted; in the image
    size_t FunctionCount = 0;
    std::vector<Section> Sections;
    std::vector<Symbol> Symbols; // by address; empty if nothing came with the image
    std::vector<uint8_t> Frames; // .eh_frame made from the exception directory
    std::vector<uint8_t> Object; // what the debugger reads
    void* Debugger = nullptr;    // its registration
    uint8_t* Stubs = nullptr;    // what imports are bound to when stacks are measured
    size_t StubCount = 0;
    bool Unloaded = false; // nothing is mapped there any more, but nothing else either

    bool Contains(uint64_t address) const { return address - reinterpret_cast<uint64_t>(Base) < Size; }
    uint32_t OffsetOf(uint64_t address) const
    {
        return static_cast<uint32_t>(address - reinterpret_cast<uint64_t>(Base));
    }
};

// The module whose address range this is; unloaded ones too, for names. Null for none.
const Module* FindModule(uint64_t address);
bool AnyModule();
// The entry of the function that contains the offset; null for a leaf, which has none.
const RuntimeFunction* FindFunction(const Module& module, uint32_t offset);

// An unloaded module that was made from the same bytes, to be mapped where it was; null for none. So a scenario that
// loads an image many times needs neither more addresses nor more records.
Module* UnloadedTwin(size_t hash);

// False when the table is full.
bool EnterModule(Module* module);
// Calls discard on every record and empties the table.
void ClearModules(void (*discard)(Module*));

} // namespace nthost::image
