// Mapping of images: sections, relocations, imports, protections.
#include "image/map.h"

#include <cstring>
#include <sys/mman.h>

#include "image/exports.h"
#include "image/platform.h"
#include "image/stack_use.h"
#include "image/unwind_codes.h"
#include <nthost/check.h>

namespace nthost::image {

namespace {

constexpr size_t kPage = 4096;
size_t PageUp(size_t bytes) { return (bytes + kPage - 1) & ~(kPage - 1); }

template <typename T>
T Load(const uint8_t* from)
{
    T value;
    memcpy(&value, from, sizeof(T));
    return value;
}

template <typename T>
void Store(uint8_t* to, T value)
{
    memcpy(to, &value, sizeof(T));
}

class Mapping {
public:
    Mapping(const PeFile& file, Module* module) : file_(file), module_(module), base_(module->Base) {}

    void CopySections()
    {
        memcpy(base_, file_.Bytes.data(), file_.HeaderSize);
        for (const Section& section : file_.Sections)
            memcpy(base_ + section.Address, &file_.Bytes[section.FileOffset], section.FileSize);
    }

    const char* Relocate()
    {
        constexpr unsigned Padding = 0, SixtyFourBits = 10;
        const uint64_t delta = reinterpret_cast<uint64_t>(base_) - file_.PreferredBase;
        const Directory& all = file_.Relocations;
        for (uint32_t at = 0; at + 8 <= all.Size;) {
            const uint8_t* const block = base_ + all.Address + at;
            const auto page = Load<uint32_t>(block), size = Load<uint32_t>(block + 4);
            if (size < 8 || size > all.Size - at) return "its relocations are damaged";
            for (uint32_t entry = 8; entry + 2 <= size; entry += 2) {
                const auto relocation = Load<uint16_t>(block + entry);
                if (relocation >> 12 == Padding) continue;
                const uint64_t where = uint64_t{page} + (relocation & 0xfff);
                if (relocation >> 12 != SixtyFourBits || !file_.Inside(where, 8)) return "its relocations are damaged";
                Store(base_ + where, Load<uint64_t>(base_ + where) + delta);
            }
            at += size;
        }
        return nullptr;
    }

    const char* BindImports(std::vector<std::string>* missing)
    {
        constexpr uint32_t DescriptorSize = 20;
        if (!file_.Imports.Size) return nullptr;
        for (uint64_t at = file_.Imports.Address;; at += DescriptorSize) {
            if (!file_.Inside(at, DescriptorSize)) return "its imports are damaged";
            const auto names = Load<uint32_t>(base_ + at), from = Load<uint32_t>(base_ + at + 12),
                       slots = Load<uint32_t>(base_ + at + 16);
            if (!from) return nullptr;
            if (const char* wrong = BindModule(from, names ? names : slots, slots, missing)) return wrong;
        }
    }

    const char* Protect()
    {
        if (mprotect(base_, PageUp(file_.HeaderSize), PROT_READ)) return "its headers cannot be protected";
        for (const Section& section : file_.Sections) {
            // Readable whatever it says: its unwind data may stand there, and those are read in fault handlers.
            const int access =
                PROT_READ | (section.Writable() ? PROT_WRITE : 0) | (section.Executable() ? PROT_EXEC : 0);
            if (mprotect(base_ + section.Address, PageUp(section.VirtualSize), access))
                return "its sections cannot be protected";
        }
        return SealStubs(module_) ? nullptr : "the stubs of its imports cannot be made executable";
    }

    const char* CheckFunctions()
    {
        const Directory& all = file_.Exceptions;
        if (all.Address % alignof(RuntimeFunction)) return "its exception directory is damaged";
        module_->Functions = reinterpret_cast<const RuntimeFunction*>(base_ + all.Address);
        module_->FunctionCount = all.Size / sizeof(RuntimeFunction);
        uint32_t last = 0;
        for (size_t i = 0; i < module_->FunctionCount; ++i) {
            const RuntimeFunction& function = module_->Functions[i];
            if (function.Begin < last || function.End <= function.Begin || function.End > file_.ImageSize ||
                !UnwindsSoundly(function.Unwind))
                return "its exception directory is damaged";
            last = function.End;
        }
        return nullptr;
    }

private:
    // A function's unwind data and those that it continues, which stack walks believe.
    bool UnwindsSoundly(uint32_t at) const
    {
        constexpr unsigned kLongestChain = 32;
        for (unsigned links = 0; links < kLongestChain; ++links) {
            if (at % alignof(uint32_t) || !file_.Inside(at, offsetof(UnwindInfo, Codes))) return false;
            const auto& info = *reinterpret_cast<const UnwindInfo*>(base_ + at);
            const uint64_t tail = reinterpret_cast<const uint8_t*>(info.Tail()) - base_;
            if (info.Flags() & Continues) {
                if (!file_.Inside(tail, sizeof(RuntimeFunction))) return false;
                at = reinterpret_cast<const RuntimeFunction*>(info.Tail())->Unwind;
                continue;
            }
            if (!(info.Flags() & (HandlesExceptions | HandlesUnwinding))) return file_.Inside(tail, 0);
            return file_.Inside(tail, sizeof(uint32_t)) && file_.Inside(*info.Tail(), 1);
        }
        return false;
    }

    // A NUL-terminated text within the image; null for one that does not end.
    const char* TextAt(uint64_t address) const
    {
        if (!file_.Inside(address, 1)) return nullptr;
        const char* const text = reinterpret_cast<const char*>(base_ + address);
        const size_t room = file_.ImageSize - address;
        return strnlen(text, room) < room ? text : nullptr;
    }

    const char* BindModule(uint32_t from, uint64_t names, uint64_t slots, std::vector<std::string>* missing)
    {
        const char* const module = TextAt(from);
        if (!module) return "its imports are damaged";
        for (;; names += 8, slots += 8) {
            if (!file_.Inside(names, 8) || !file_.Inside(slots, 8)) return "its imports are damaged";
            const auto entry = Load<uint64_t>(base_ + names);
            if (!entry) return nullptr;
            if (entry >> 63) return "it imports by ordinal, and nthost has names only";
            const char* const name = TextAt(entry + 2);
            if (!name) return "its imports are damaged";
            const ExportedAddress found = FindExport(module, name);
            if (!found.Address) missing->push_back(std::string(module) + "!" + name);
            Store(base_ + slots, reinterpret_cast<uint64_t>(TargetOf(found)));
        }
    }

    void* TargetOf(const ExportedAddress& found)
    {
        if (!NTHOST_CHECKS || !found.IsRoutine) return found.Address;
        void* const stub = MeasuredImport(module_, found.Address);
        return stub ? stub : found.Address;
    }

    const PeFile& file_;
    Module* const module_;
    uint8_t* const base_;
};

const char* MapInto(const PeFile& file, Module* module, std::vector<std::string>* missing)
{
    if (mprotect(module->Base, module->Size, PROT_READ | PROT_WRITE)) return "there is no memory for it";
    Mapping mapping(file, module);
    mapping.CopySections();
    if (const char* wrong = mapping.Relocate()) return wrong;
    if (const char* wrong = mapping.BindImports(missing)) return wrong;
    if (!missing->empty()) return "it imports what nthost does not have";
    if (const char* wrong = mapping.CheckFunctions()) return wrong;
    ReplaceIrqlReads(module);
    return mapping.Protect();
}

} // namespace

bool MapImage(const PeFile& file, Module* module, std::string* reason, std::vector<std::string>* missing)
{
    if (!module->Base) {
        module->Size = PageUp(file.ImageSize);
        void* const range = mmap(nullptr, module->Size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (range == MAP_FAILED) {
            *reason = "there are no addresses for it";
            return false;
        }
        module->Base = static_cast<uint8_t*>(range);
    }
    const char* const wrong = MapInto(file, module, missing);
    if (!wrong) return true;
    *reason = wrong;
    UnmapImage(module);
    return false;
}

void UnmapImage(Module* module)
{
    ReleaseStubs(module);
    // Mapped anew rather than protected: the pages go, and the next load finds zeros.
    mmap(module->Base, module->Size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
}

void ReleaseRange(Module* module)
{
    if (module->Base) munmap(module->Base, module->Size);
    module->Base = nullptr;
}

} // namespace nthost::image
