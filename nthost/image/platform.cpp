// Moves from and to cr8, and loads from the page of shared data.
#include "image/platform.h"

#include <cstring>
#include <sys/auxv.h>

#include <ntifs.h>

#include "image/module.h"
#include "ke/thread.h"

namespace nthost::image {

namespace {

constexpr int kRegister[16] = {REG_RAX, REG_RCX, REG_RDX, REG_RBX, REG_RSP, REG_RBP, REG_RSI, REG_RDI,
                               REG_R8,  REG_R9,  REG_R10, REG_R11, REG_R12, REG_R13, REG_R14, REG_R15};

constexpr uint64_t kSharedData = 0xfffff78000000000, kSystemTime = kSharedData + 0x14;

greg_t& General(ucontext_t* fault, unsigned number) { return fault->uc_mcontext.gregs[kRegister[number]]; }

// 44 0f 20 /r reads, 44 0f 22 /r writes; the last bit of the first byte extends the general register's number.
bool EmulateIrqlMove(ucontext_t* fault, const uint8_t* code)
{
    if ((code[0] & 0xfe) != 0x44 || code[1] != 0x0f || (code[2] & 0xfd) != 0x20 || (code[3] & 0xf8) != 0xc0)
        return false;
    _ETHREAD* const thread = ke::CurrentThread();
    greg_t& general = General(fault, (code[3] & 7) | (code[0] & 1) << 3);
    if (code[2] == 0x20)
        general = thread->Irql;
    else
        ke::SetIrql(thread, static_cast<KIRQL>(general));
    fault->uc_mcontext.gregs[REG_RIP] += 4;
    return true;
}

// 48 8b /r: a load of eight bytes. A base alone, or with a displacement; the address itself is known from the fault.
unsigned LoadLength(const uint8_t* code)
{
    if ((code[0] & 0xfa) != 0x48 || code[1] != 0x8b) return 0;
    const unsigned mode = code[2] >> 6, base = code[2] & 7;
    if (mode == 3 || (mode == 0 && base == 5)) return 0;
    const unsigned displacement = mode == 0 ? 0 : mode == 1 ? 1 : 4;
    return 3 + (base == 4 ? 1 : 0) + displacement;
}

bool EmulateTimeLoad(ucontext_t* fault, const uint8_t* code, uint64_t address)
{
    const unsigned length = LoadLength(code);
    if (address != kSystemTime || !length) return false;
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    General(fault, (code[2] >> 3 & 7) | (code[0] & 4) << 1) = now.QuadPart;
    fault->uc_mcontext.gregs[REG_RIP] += length;
    return true;
}

} // namespace

void ReplaceIrqlReads(Module* module)
{
    // mov r64, cr8, and rdgsbase r32, for the first eight registers.
    constexpr uint8_t kRead[] = {0x44, 0x0f, 0x20}, kInstead[] = {0xf3, 0x0f, 0xae};
    constexpr unsigned long SegmentBases = 2; // the processor lets a process set them
    if (!(getauxval(AT_HWCAP2) & SegmentBases)) return;
    // Threads that run now have had no code of an image before, and their own IRQL comes with its next change.
    ke::gsHoldsIrql.store(true, std::memory_order_relaxed);
    for (size_t i = 0; i < module->FunctionCount; ++i) {
        uint8_t* const end = module->Base + module->Functions[i].End;
        for (uint8_t* at = module->Base + module->Functions[i].Begin; at + 4 <= end; ++at) {
            if (memcmp(at, kRead, sizeof kRead) != 0 || (at[3] & 0xf8) != 0xc0) continue;
            memcpy(at, kInstead, sizeof kInstead);
            at[3] += 0xc8 - 0xc0;
        }
    }
}

bool EmulateInstruction(ucontext_t* fault, const void* address)
{
    const auto pc = static_cast<uint64_t>(fault->uc_mcontext.gregs[REG_RIP]);
    const Module* const module = FindModule(pc);
    if (!module || module->Unloaded) return false;
    const auto* const code = reinterpret_cast<const uint8_t*>(pc);
    return EmulateIrqlMove(fault, code) || EmulateTimeLoad(fault, code, reinterpret_cast<uint64_t>(address));
}

} // namespace nthost::image
