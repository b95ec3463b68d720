// The layout of x64 unwind data in an image.
#pragma once

#include <cstdint>

namespace nthost::image {

struct UnwindInfo {
    uint8_t VersionAndFlags, PrologueSize, CodeCount, FrameRegisterAndOffset;
    uint16_t Codes[1];

    unsigned Version() const { return VersionAndFlags & 7; }
    unsigned Flags() const { return VersionAndFlags >> 3; }
    unsigned FrameRegister() const { return FrameRegisterAndOffset & 15; }
    unsigned FrameOffset() const { return (FrameRegisterAndOffset >> 4) * 16u; }
    const uint16_t* FirstCode() const { return &Codes[0]; }
    // The handler's address, or the function that this one continues.
    const uint32_t* Tail() const { return reinterpret_cast<const uint32_t*>(FirstCode() + ((CodeCount + 1) & ~1)); }
};

enum InfoFlag : unsigned { HandlesExceptions = 1, HandlesUnwinding = 2, Continues = 4 };

enum UnwindOperation : unsigned {
    PushNonvolatile = 0,
    AllocateLarge = 1,
    AllocateSmall = 2,
    SetFrame = 3,
    SaveNonvolatile = 4,
    SaveFar = 5,
    Epilogue = 6,
    SaveVector = 8,
    SaveVectorFar = 9
};

// One operation, with its operands read.
struct UnwindCode {
    unsigned PrologueOffset; // behind the instruction
    unsigned Operation;
    unsigned Register;
    uint32_t Amount; // bytes: allocated, or where the register is from the frame's base
    unsigned Slots;  // codes that it takes
};

// False for what no driver's prologue does.
inline bool ReadCode(const UnwindInfo& info, unsigned index, UnwindCode* code)
{
    const uint16_t* const codes = info.FirstCode();
    const uint16_t first = codes[index];
    const uint32_t near = index + 1 < info.CodeCount ? codes[index + 1] : 0;
    const uint32_t far = index + 2 < info.CodeCount ? near | uint32_t{codes[index + 2]} << 16 : 0;
    const unsigned argument = first >> 12;
    *code = {first & 0xffu, first >> 8 & 15u, argument, 0, 1};
    switch (code->Operation) {
    case PushNonvolatile: code->Amount = 8; return true;
    case AllocateSmall: code->Amount = argument * 8 + 8; return true;
    case AllocateLarge:
        code->Amount = argument ? far : near * 8;
        code->Slots = argument ? 3 : 2;
        return true;
    case SetFrame: return true;
    case SaveNonvolatile: code->Amount = near * 8, code->Slots = 2; return true;
    case SaveFar: code->Amount = far, code->Slots = 3; return true;
    case Epilogue: code->Slots = 2; return true;
    case SaveVector: code->Amount = near * 16, code->Slots = 2; return true;
    case SaveVectorFar: code->Amount = far, code->Slots = 3; return true;
    default: return false; // pushed by the processor: no frame of a driver
    }
}

} // namespace nthost::image
