// From unwind codes to call-frame instructions. Prologues only: what an epilogue has already undone is not described in
// either form.
#include "image/frames.h"

#include <algorithm>
#include <cstring>

#include "image/unwind_codes.h"

namespace nthost::image {

namespace {

// DWARF numbers of the general registers, by their number in unwind codes.
constexpr uint8_t kColumn[16] = {0, 2, 1, 3, 7, 6, 4, 5, 8, 9, 10, 11, 12, 13, 14, 15};
constexpr uint8_t kStackColumn = 7, kReturnColumn = 16, kVectorColumn = 17;
constexpr int kDataAlign = -8;

class Writer {
public:
    std::vector<uint8_t> Bytes;

    template <typename T>
    void Fixed(T value)
    {
        const auto* const raw = reinterpret_cast<const uint8_t*>(&value);
        Bytes.insert(Bytes.end(), raw, raw + sizeof(T));
    }
    void Byte(unsigned value) { Bytes.push_back(static_cast<uint8_t>(value)); }
    void Unsigned(uint64_t value)
    {
        for (; value >= 0x80; value >>= 7) Byte((value & 0x7f) | 0x80);
        Byte(static_cast<unsigned>(value));
    }
    void Text(const char* text) { Bytes.insert(Bytes.end(), text, text + strlen(text) + 1); }

    // A record whose length is known at its end.
    size_t Begin()
    {
        Fixed<uint32_t>(0);
        return Bytes.size();
    }
    void End(size_t begin)
    {
        while (Bytes.size() % 8 != 4) Byte(0); // no operation; records then begin on eight bytes
        const auto length = static_cast<uint32_t>(Bytes.size() - begin);
        memcpy(&Bytes[begin - sizeof(length)], &length, sizeof(length));
    }
};

void WriteCommon(Writer& out)
{
    const size_t begin = out.Begin();
    out.Fixed<uint32_t>(0);
    out.Byte(1);
    out.Text("");
    out.Unsigned(1);
    out.Byte(-kDataAlign == 8 ? 0x78 : 0); // -8, signed
    out.Byte(kReturnColumn);
    out.Byte(0x0c), out.Unsigned(kStackColumn), out.Unsigned(8); // at the entry, the return address alone
    out.Byte(0x80 | kReturnColumn), out.Unsigned(1);
    out.End(begin);
}

// In the order of the instructions.
bool StepsOf(const UnwindInfo& info, std::vector<UnwindCode>* steps)
{
    UnwindCode code;
    for (unsigned i = 0; i < info.CodeCount; i += code.Slots) {
        if (!ReadCode(info, i, &code)) return false;
        if (code.Operation != Epilogue) steps->push_back(code);
    }
    std::reverse(steps->begin(), steps->end());
    return true;
}

class Function {
public:
    Function(Writer& out, const UnwindInfo& info) : out_(out), info_(info) {}

    void Apply(const std::vector<UnwindCode>& steps, bool atOnce)
    {
        uint32_t total = depth_;
        for (const UnwindCode& step : steps)
            if (step.Operation <= AllocateSmall) total += step.Amount;
        for (const UnwindCode& step : steps) {
            if (!atOnce) AdvanceTo(step.PrologueOffset);
            switch (step.Operation) {
            case PushNonvolatile: Deepen(8), Saved(kColumn[step.Register], depth_); break;
            case AllocateSmall:
            case AllocateLarge: Deepen(step.Amount); break;
            case SetFrame:
                framed_ = true;
                out_.Byte(0x0c), out_.Unsigned(kColumn[info_.FrameRegister()]);
                out_.Unsigned(depth_ - info_.FrameOffset());
                break;
            case SaveNonvolatile:
            case SaveFar: Saved(kColumn[step.Register], total - step.Amount); break;
            case SaveVector:
            case SaveVectorFar: Saved(kVectorColumn + step.Register, total - step.Amount); break;
            }
        }
    }

private:
    void AdvanceTo(uint32_t offset)
    {
        if (offset <= at_) return;
        out_.Byte(0x03), out_.Fixed(static_cast<uint16_t>(offset - at_));
        at_ = offset;
    }

    void Deepen(uint32_t bytes)
    {
        depth_ += bytes;
        if (!framed_) out_.Byte(0x0e), out_.Unsigned(depth_);
    }

    // So many bytes below the canonical frame address.
    void Saved(unsigned column, uint32_t below)
    {
        if (column < 0x40)
            out_.Byte(0x80 | column);
        else
            out_.Byte(0x05), out_.Unsigned(column);
        out_.Unsigned(below / 8);
    }

    Writer& out_;
    const UnwindInfo& info_;
    uint32_t depth_ = 8; // of the stack below the canonical frame address
    uint32_t at_ = 0;
    bool framed_ = false;
};

const UnwindInfo& InfoOf(const Module& module, const RuntimeFunction& function)
{
    return *reinterpret_cast<const UnwindInfo*>(module.Base + function.Unwind);
}

void WriteFunction(Writer& out, const Module& module, const RuntimeFunction& function)
{
    const UnwindInfo& info = InfoOf(module, function);
    std::vector<UnwindCode> steps, outer;
    if (!StepsOf(info, &steps)) return;
    if (info.Flags() & Continues) {
        const auto& start = *reinterpret_cast<const RuntimeFunction*>(info.Tail());
        if (InfoOf(module, start).Flags() & Continues || !StepsOf(InfoOf(module, start), &outer)) return;
    }
    const size_t begin = out.Begin();
    out.Fixed(static_cast<uint32_t>(begin)); // back to the common part, which is the first
    out.Fixed(reinterpret_cast<uint64_t>(module.Base) + function.Begin);
    out.Fixed(uint64_t{function.End} - function.Begin);
    Function body(out, info);
    body.Apply(outer, true);
    body.Apply(steps, false);
    out.End(begin);
}

} // namespace

std::vector<uint8_t> MakeFrames(const Module& module)
{
    Writer out;
    WriteCommon(out);
    for (size_t i = 0; i < module.FunctionCount; ++i) WriteFunction(out, module, module.Functions[i]);
    out.Fixed<uint32_t>(0);
    return std::move(out.Bytes);
}

} // namespace nthost::image
