// Saving and loading of all registers. Offsets are those that context.h asserts.
#include "image/context.h"

#include <cstring>

namespace nthost::image {

void FromSignal(const ucontext_t& signal, Context& context)
{
    static constexpr int kFrom[16] = {REG_RAX, REG_RCX, REG_RDX, REG_RBX, REG_RSP, REG_RBP, REG_RSI, REG_RDI,
                                      REG_R8,  REG_R9,  REG_R10, REG_R11, REG_R12, REG_R13, REG_R14, REG_R15};
    const auto& registers = signal.uc_mcontext.gregs;
    for (unsigned i = 0; i < 16; ++i) context.Gpr[i] = static_cast<uint64_t>(registers[kFrom[i]]);
    context.Rip = static_cast<uint64_t>(registers[REG_RIP]);
    context.EFlags = static_cast<uint32_t>(registers[REG_EFL]);
    memcpy(context.Vector, signal.uc_mcontext.fpregs->_xmm, sizeof(context.Vector));
}

// rdi is the record. The frame of this routine is its return address alone.
__attribute__((naked)) void NthostCaptureContext(Context*)
{
    asm volatile("movq %rax, 0x78(%rdi)\n\t"
                 "movq %rcx, 0x80(%rdi)\n\t"
                 "movq %rdx, 0x88(%rdi)\n\t"
                 "movq %rbx, 0x90(%rdi)\n\t"
                 "leaq 8(%rsp), %rax\n\t"
                 "movq %rax, 0x98(%rdi)\n\t"
                 "movq %rbp, 0xa0(%rdi)\n\t"
                 "movq %rsi, 0xa8(%rdi)\n\t"
                 "movq %rdi, 0xb0(%rdi)\n\t"
                 "movq %r8, 0xb8(%rdi)\n\t"
                 "movq %r9, 0xc0(%rdi)\n\t"
                 "movq %r10, 0xc8(%rdi)\n\t"
                 "movq %r11, 0xd0(%rdi)\n\t"
                 "movq %r12, 0xd8(%rdi)\n\t"
                 "movq %r13, 0xe0(%rdi)\n\t"
                 "movq %r14, 0xe8(%rdi)\n\t"
                 "movq %r15, 0xf0(%rdi)\n\t"
                 "movq (%rsp), %rax\n\t"
                 "movq %rax, 0xf8(%rdi)\n\t"
                 "movl $0x202, 0x44(%rdi)\n\t"
                 "movaps %xmm6, 0x200(%rdi)\n\t"
                 "movaps %xmm7, 0x210(%rdi)\n\t"
                 "movaps %xmm8, 0x220(%rdi)\n\t"
                 "movaps %xmm9, 0x230(%rdi)\n\t"
                 "movaps %xmm10, 0x240(%rdi)\n\t"
                 "movaps %xmm11, 0x250(%rdi)\n\t"
                 "movaps %xmm12, 0x260(%rdi)\n\t"
                 "movaps %xmm13, 0x270(%rdi)\n\t"
                 "movaps %xmm14, 0x280(%rdi)\n\t"
                 "movaps %xmm15, 0x290(%rdi)\n\t"
                 "ret");
}

// An interrupt return is the one instruction that loads stack, flags and program counter together.
__attribute__((naked)) void NthostRestoreContext(const Context*)
{
    asm volatile("movq %ss, %rax\n\t"
                 "pushq %rax\n\t"
                 "pushq 0x98(%rdi)\n\t"
                 "movl 0x44(%rdi), %eax\n\t"
                 "pushq %rax\n\t"
                 "movq %cs, %rax\n\t"
                 "pushq %rax\n\t"
                 "pushq 0xf8(%rdi)\n\t"
                 "movaps 0x1a0(%rdi), %xmm0\n\t"
                 "movaps 0x1b0(%rdi), %xmm1\n\t"
                 "movaps 0x1c0(%rdi), %xmm2\n\t"
                 "movaps 0x1d0(%rdi), %xmm3\n\t"
                 "movaps 0x1e0(%rdi), %xmm4\n\t"
                 "movaps 0x1f0(%rdi), %xmm5\n\t"
                 "movaps 0x200(%rdi), %xmm6\n\t"
                 "movaps 0x210(%rdi), %xmm7\n\t"
                 "movaps 0x220(%rdi), %xmm8\n\t"
                 "movaps 0x230(%rdi), %xmm9\n\t"
                 "movaps 0x240(%rdi), %xmm10\n\t"
                 "movaps 0x250(%rdi), %xmm11\n\t"
                 "movaps 0x260(%rdi), %xmm12\n\t"
                 "movaps 0x270(%rdi), %xmm13\n\t"
                 "movaps 0x280(%rdi), %xmm14\n\t"
                 "movaps 0x290(%rdi), %xmm15\n\t"
                 "movq 0x78(%rdi), %rax\n\t"
                 "movq 0x80(%rdi), %rcx\n\t"
                 "movq 0x88(%rdi), %rdx\n\t"
                 "movq 0x90(%rdi), %rbx\n\t"
                 "movq 0xa0(%rdi), %rbp\n\t"
                 "movq 0xa8(%rdi), %rsi\n\t"
                 "movq 0xb8(%rdi), %r8\n\t"
                 "movq 0xc0(%rdi), %r9\n\t"
                 "movq 0xc8(%rdi), %r10\n\t"
                 "movq 0xd0(%rdi), %r11\n\t"
                 "movq 0xd8(%rdi), %r12\n\t"
                 "movq 0xe0(%rdi), %r13\n\t"
                 "movq 0xe8(%rdi), %r14\n\t"
                 "movq 0xf0(%rdi), %r15\n\t"
                 "movq 0xb0(%rdi), %rdi\n\t"
                 "iretq");
}

} // namespace nthost::image
