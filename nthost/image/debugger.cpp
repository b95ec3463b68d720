// The debugger reads one list of ELF files and is called, by a breakpoint of its own, whenever that changes.
#include "image/debugger.h"

#include <cstring>
#include <elf.h>

namespace {

struct CodeEntry {
    CodeEntry *Next, *Previous;
    const uint8_t* Object;
    uint64_t Size;
};

struct Descriptor {
    uint32_t Version, Action;
    CodeEntry *Relevant, *First;
};

enum Action : uint32_t { Nothing, Register, Unregister };

} // namespace

// Both names are the debugger's.
extern "C" {
__attribute__((used, visibility("default"))) Descriptor __jit_debug_descriptor = {1, Nothing, nullptr, nullptr};
__attribute__((noinline, used, visibility("default"))) void __jit_debug_register_code()
{
    asm volatile("" ::: "memory");
}
}

namespace nthost::image {

namespace {

enum SectionIndex : uint16_t { None, Text, Frames, Symbols, Strings, SectionNames, SectionCount };

class ObjectFile {
public:
    explicit ObjectFile(const Module& module) : module_(module), bytes_(sizeof(Elf64_Ehdr)) {}

    std::vector<uint8_t> Make()
    {
        AddText();
        AddSection(Frames, ".eh_frame", SHT_PROGBITS, module_.Frames.data(), module_.Frames.size());
        headers_[Frames].sh_flags = SHF_ALLOC;
        headers_[Frames].sh_addr = reinterpret_cast<uint64_t>(module_.Frames.data());
        AddSymbols();
        AddNames();
        Finish();
        return std::move(bytes_);
    }

private:
    Elf64_Word Name(const char* name)
    {
        const size_t at = names_.size();
        names_.append(name).push_back('\0');
        return static_cast<Elf64_Word>(at);
    }

    void AddSection(SectionIndex index, const char* name, Elf64_Word type, const void* data, size_t size)
    {
        while (bytes_.size() % 8) bytes_.push_back(0);
        Elf64_Shdr& header = headers_[index];
        header.sh_name = Name(name);
        header.sh_type = type;
        header.sh_offset = bytes_.size();
        header.sh_size = size;
        header.sh_addralign = 8;
        const auto* const raw = static_cast<const uint8_t*>(data);
        bytes_.insert(bytes_.end(), raw, raw + size);
    }

    // The code itself stays in the image; the section only says where it is.
    void AddText()
    {
        Elf64_Shdr& header = headers_[Text];
        header.sh_name = Name(".text");
        header.sh_type = SHT_NOBITS;
        header.sh_flags = SHF_ALLOC | SHF_EXECINSTR;
        header.sh_addr = reinterpret_cast<uint64_t>(module_.Base);
        header.sh_size = module_.Size;
        header.sh_addralign = 1;
    }

    void AddSymbols()
    {
        std::vector<Elf64_Sym> symbols(1);
        std::string strings(1, '\0');
        for (size_t i = 0; i < module_.Symbols.size(); ++i) {
            const Symbol& symbol = module_.Symbols[i];
            const RuntimeFunction* const function = FindFunction(module_, symbol.Address);
            const uint32_t end = function                         ? function->End
                                 : i + 1 < module_.Symbols.size() ? module_.Symbols[i + 1].Address
                                                                  : symbol.Address + 1;
            symbols.push_back({static_cast<Elf64_Word>(strings.size()), ELF64_ST_INFO(STB_GLOBAL, STT_FUNC),
                               STV_DEFAULT, Text, symbol.Address, end - symbol.Address});
            strings.append(symbol.Name).push_back('\0');
        }
        AddSection(Symbols, ".symtab", SHT_SYMTAB, symbols.data(), symbols.size() * sizeof(Elf64_Sym));
        headers_[Symbols].sh_link = Strings;
        headers_[Symbols].sh_info = 1;
        headers_[Symbols].sh_entsize = sizeof(Elf64_Sym);
        AddSection(Strings, ".strtab", SHT_STRTAB, strings.data(), strings.size());
    }

    void AddNames()
    {
        Name(".shstrtab"); // in the table before it is copied; AddSection then names it once more, behind the copy
        const std::string table = names_;
        const Elf64_Word own = static_cast<Elf64_Word>(table.size() - sizeof(".shstrtab"));
        AddSection(SectionNames, "", SHT_STRTAB, table.data(), table.size());
        headers_[SectionNames].sh_name = own;
    }

    void Finish()
    {
        Elf64_Ehdr header{};
        memcpy(header.e_ident, ELFMAG, SELFMAG);
        header.e_ident[EI_CLASS] = ELFCLASS64;
        header.e_ident[EI_DATA] = ELFDATA2LSB;
        header.e_ident[EI_VERSION] = EV_CURRENT;
        header.e_type = ET_REL; // values of symbols are offsets in their section
        header.e_machine = EM_X86_64;
        header.e_version = EV_CURRENT;
        header.e_ehsize = sizeof(header);
        header.e_shentsize = sizeof(Elf64_Shdr);
        header.e_shnum = SectionCount;
        header.e_shstrndx = SectionNames;
        while (bytes_.size() % 8) bytes_.push_back(0);
        header.e_shoff = bytes_.size();
        const auto* const raw = reinterpret_cast<const uint8_t*>(headers_);
        bytes_.insert(bytes_.end(), raw, raw + sizeof(headers_));
        memcpy(bytes_.data(), &header, sizeof(header));
    }

    const Module& module_;
    std::vector<uint8_t> bytes_;
    std::string names_ = std::string(1, '\0');
    Elf64_Shdr headers_[SectionCount]{};
};

void Announce(Action action, CodeEntry* entry)
{
    __jit_debug_descriptor.Relevant = entry;
    __jit_debug_descriptor.Action = action;
    __jit_debug_register_code();
}

} // namespace

void ShowToDebugger(Module* module)
{
    if (module->Object.empty()) module->Object = ObjectFile(*module).Make();
    auto* const entry =
        new CodeEntry{__jit_debug_descriptor.First, nullptr, module->Object.data(), module->Object.size()};
    if (entry->Next) entry->Next->Previous = entry;
    __jit_debug_descriptor.First = entry;
    module->Debugger = entry;
    Announce(Register, entry);
}

void HideFromDebugger(Module* module)
{
    auto* const entry = static_cast<CodeEntry*>(module->Debugger);
    (entry->Previous ? entry->Previous->Next : __jit_debug_descriptor.First) = entry->Next;
    if (entry->Next) entry->Next->Previous = entry->Previous;
    Announce(Unregister, entry);
    module->Debugger = nullptr;
    delete entry;
}

} // namespace nthost::image
