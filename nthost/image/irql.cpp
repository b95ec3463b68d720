// Moves from and to cr8.
#include "image/irql.h"

#include "ke/thread.h"

namespace nthost::image {

namespace {

constexpr int kRegister[16] = {REG_RAX, REG_RCX, REG_RDX, REG_RBX, REG_RSP, REG_RBP, REG_RSI, REG_RDI,
                               REG_R8,  REG_R9,  REG_R10, REG_R11, REG_R12, REG_R13, REG_R14, REG_R15};
constexpr size_t kMoveSize = 4;

// 44 0f 20 /r reads, 44 0f 22 /r writes; the last bit of the first byte extends the general register's number.
bool IsMove(const uint8_t* code)
{
    return (code[0] & 0xfe) == 0x44 && code[1] == 0x0f && (code[2] == 0x20 || code[2] == 0x22) &&
           (code[3] & 0xf8) == 0xc0;
}

} // namespace

bool EmulateIrqlMove(ucontext_t* fault)
{
    auto& registers = fault->uc_mcontext.gregs;
    const auto* const code = reinterpret_cast<const uint8_t*>(registers[REG_RIP]);
    if (!FindModule(reinterpret_cast<uint64_t>(code)) || !IsMove(code)) return false;
    _ETHREAD* const thread = ke::CurrentThread();
    greg_t& general = registers[kRegister[(code[3] & 7) | (code[0] & 1) << 3]];
    if (code[2] == 0x20)
        general = thread->Irql;
    else
        thread->Irql = static_cast<KIRQL>(general);
    registers[REG_RIP] += kMoveSize;
    return true;
}

} // namespace nthost::image
