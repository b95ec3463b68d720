// A thread's registers in the layout of the platform's x64 CONTEXT, which filters of an image may read and change.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ucontext.h>

namespace nthost::image {

struct alignas(16) Xmm {
    uint64_t Low, High;
};

// Numbers of the general registers, as unwind data has them.
enum Register : uint8_t { Rax, Rcx, Rdx, Rbx, Rsp, Rbp, Rsi, Rdi, R8, R9, R10, R11, R12, R13, R14, R15 };

struct alignas(16) Context {
    uint64_t Home[6];
    uint32_t Flags, MxCsr;
    uint16_t Segments[6];
    uint32_t EFlags;
    uint64_t Debug[6];
    uint64_t Gpr[16];
    uint64_t Rip;
    uint8_t FloatHeader[160];
    Xmm Vector[16];
    uint8_t Rest[0x4d0 - 0x2a0];
};
static_assert(offsetof(Context, EFlags) == 0x44 && offsetof(Context, Gpr) == 0x78 && offsetof(Context, Rip) == 0xf8);
static_assert(offsetof(Context, Vector) == 0x1a0 && sizeof(Context) == 0x4d0);

// The registers that a callee keeps, as the caller of this routine will find them when it returns there.
extern "C" void NthostCaptureContext(Context* context);
// Loads all of them and goes on at Rip.
extern "C" [[noreturn]] void NthostRestoreContext(const Context* context);

// What a signal interrupted.
void FromSignal(const ucontext_t& signal, Context& context);

} // namespace nthost::image
