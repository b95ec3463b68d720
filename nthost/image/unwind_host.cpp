// Frames of the host: an interpreter of the call-frame instructions in .eh_frame. The compilers' own unwinders would
// do, but for the vector registers that a routine with the platform's convention keeps, which they ignore.
#include "image/unwind.h"

#include <cstring>

struct dwarf_eh_bases {
    void *Text, *Data, *Function;
};
extern "C" const void* _Unwind_Find_FDE(const void* pc, dwarf_eh_bases* bases);

namespace nthost::image {

namespace {

// DWARF numbers: eight general registers in an order of their own, r8 to r15, the return address, xmm0 to xmm15.
constexpr Register kGeneral[] = {Rax, Rdx, Rcx, Rbx, Rsi, Rdi, Rbp, Rsp};
constexpr unsigned kReturn = 16, kVectors = 17, kColumns = 33;

class Bytes {
public:
    explicit Bytes(const uint8_t* at, const uint8_t* end = nullptr) : At(at), End(end) {}

    template <typename T>
    T Fixed()
    {
        T value;
        memcpy(&value, At, sizeof(T));
        At += sizeof(T);
        return value;
    }

    uint64_t Unsigned()
    {
        uint64_t value = 0;
        unsigned shift = 0;
        uint8_t byte;
        do {
            byte = *At++;
            value |= uint64_t{byte & 0x7fu} << shift;
            shift += 7;
        } while (byte & 0x80);
        return value;
    }

    int64_t Signed()
    {
        const uint8_t* const start = At;
        uint64_t value = Unsigned();
        const unsigned bits = static_cast<unsigned>(At - start) * 7;
        if (bits < 64 && At[-1] & 0x40) value |= ~uint64_t{0} << bits;
        return static_cast<int64_t>(value);
    }

    const uint8_t* At;
    const uint8_t* End;
};

struct Rule {
    enum Kind : uint8_t { Same, Lost, AtOffset, InRegister, AtExpression } Where;
    int64_t Offset;
    const uint8_t* Expression;
};

struct Row {
    Rule Rules[kColumns];
    unsigned CanonicalRegister;
    int64_t CanonicalOffset;
    const uint8_t* CanonicalExpression;
};

// Functions that a table describes: the common part and the part of one function.
struct Tables {
    const uint8_t *CommonCode, *CommonEnd, *Code, *CodeEnd;
    uint64_t Begin;
    uint64_t CodeAlign;
    int64_t DataAlign;
    bool SignalFrame;
};

size_t PointerSize(uint8_t encoding)
{
    switch (encoding & 7) {
    case 2: return 2;
    case 3: return 4;
    default: return 8;
    }
}

// Only what the compilers in use here emit.
bool ReadTables(const uint8_t* fde, uint64_t function, Tables* tables)
{
    Bytes own(fde);
    const uint32_t length = own.Fixed<uint32_t>();
    if (length == 0xffffffff) return false;
    tables->CodeEnd = own.At + length;
    const uint8_t* const common = own.At - *reinterpret_cast<const int32_t*>(own.At);
    own.At += 4;

    Bytes cie(common);
    tables->CommonEnd = cie.Fixed<uint32_t>() + cie.At;
    cie.At += 4; // what tells it from a function's part
    const uint8_t version = cie.Fixed<uint8_t>();
    const char* const augmentation = reinterpret_cast<const char*>(cie.At);
    cie.At += strlen(augmentation) + 1;
    tables->CodeAlign = cie.Unsigned();
    tables->DataAlign = cie.Signed();
    const uint64_t returnColumn = version == 1 ? cie.Fixed<uint8_t>() : cie.Unsigned();
    if (returnColumn != kReturn || (augmentation[0] && augmentation[0] != 'z')) return false;
    uint8_t encoding = 0;
    tables->SignalFrame = false;
    if (augmentation[0]) {
        const uint64_t size = cie.Unsigned();
        Bytes data(cie.At);
        cie.At += size;
        for (const char* c = augmentation + 1; *c; ++c) {
            if (*c == 'R') encoding = data.Fixed<uint8_t>();
            if (*c == 'L') data.At += 1;
            if (*c == 'P') data.At += 1 + PointerSize(*data.At);
            if (*c == 'S') tables->SignalFrame = true;
        }
    }
    tables->CommonCode = cie.At;
    own.At += 2 * PointerSize(encoding); // begin and length, which the search has used
    if (augmentation[0]) {
        const uint64_t size = own.Unsigned();
        own.At += size;
    }
    tables->Code = own.At;
    tables->Begin = function;
    return true;
}

class Interpreter {
public:
    explicit Interpreter(const Tables& tables) : tables_(tables) {}

    bool Run(uint64_t pc)
    {
        if (!RunOne(Bytes(tables_.CommonCode, tables_.CommonEnd), UINT64_MAX)) return false;
        initial_ = row_;
        return RunOne(Bytes(tables_.Code, tables_.CodeEnd), pc);
    }

    const Row& Result() const { return row_; }

private:
    // Applies what holds at pc.
    bool RunOne(Bytes code, uint64_t pc)
    {
        uint64_t location = tables_.Begin;
        while (code.At < code.End && location <= pc) {
            const uint8_t operation = code.Fixed<uint8_t>();
            const unsigned low = operation & 0x3f;
            switch (operation & 0xc0) {
            case 0x40: location += low * tables_.CodeAlign; break;
            case 0x80: Set(low, {Rule::AtOffset, Scaled(code.Unsigned()), nullptr}); break;
            case 0xc0: Set(low, initial_.Rules[low < kColumns ? low : 0]); break;
            default:
                if (!RunLong(operation, code, &location)) return false;
            }
        }
        return true;
    }

    bool RunLong(uint8_t operation, Bytes& code, uint64_t* location)
    {
        uint64_t column;
        switch (operation) {
        case 0x00: return true;
        case 0x02: *location += code.Fixed<uint8_t>() * tables_.CodeAlign; return true;
        case 0x03: *location += code.Fixed<uint16_t>() * tables_.CodeAlign; return true;
        case 0x04: *location += code.Fixed<uint32_t>() * tables_.CodeAlign; return true;
        case 0x05: column = code.Unsigned(); return Set(column, {Rule::AtOffset, Scaled(code.Unsigned()), nullptr});
        case 0x06: column = code.Unsigned(); return Set(column, initial_.Rules[column < kColumns ? column : 0]);
        case 0x07: return Set(code.Unsigned(), {Rule::Lost, 0, nullptr});
        case 0x08: return Set(code.Unsigned(), {});
        case 0x09:
            column = code.Unsigned();
            return Set(column, {Rule::InRegister, static_cast<int64_t>(code.Unsigned()), nullptr});
        case 0x0a: return depth_ < kDepth && (saved_[depth_++] = row_, true);
        case 0x0b: return depth_ > 0 && (row_ = saved_[--depth_], true);
        case 0x0c: return SetCanonical(code.Unsigned(), [&] { return static_cast<int64_t>(code.Unsigned()); });
        case 0x0d: return SetCanonical(code.Unsigned(), [&] { return row_.CanonicalOffset; });
        case 0x0e: row_.CanonicalOffset = static_cast<int64_t>(code.Unsigned()); return true;
        case 0x0f: row_.CanonicalExpression = code.At; return SkipBlock(code);
        case 0x10:
            column = code.Unsigned();
            Set(column, {Rule::AtExpression, 0, code.At});
            return SkipBlock(code);
        case 0x11:
            column = code.Unsigned();
            return Set(column, {Rule::AtOffset, code.Signed() * tables_.DataAlign, nullptr});
        case 0x12: return SetCanonical(code.Unsigned(), [&] { return code.Signed() * tables_.DataAlign; });
        case 0x13: row_.CanonicalOffset = code.Signed() * tables_.DataAlign; return true;
        case 0x2e: code.Unsigned(); return true; // size of pushed arguments
        default: return false;
        }
    }

    template <typename Offset>
    bool SetCanonical(uint64_t column, Offset offset)
    {
        row_.CanonicalRegister = static_cast<unsigned>(column);
        row_.CanonicalOffset = offset();
        row_.CanonicalExpression = nullptr;
        return column < kReturn;
    }

    bool Set(uint64_t column, const Rule& rule)
    {
        if (column < kColumns) row_.Rules[column] = rule;
        return true; // columns behind those are mask and segment registers
    }

    static bool SkipBlock(Bytes& code)
    {
        const uint64_t size = code.Unsigned();
        code.At += size;
        return true;
    }

    int64_t Scaled(uint64_t factor) const { return static_cast<int64_t>(factor) * tables_.DataAlign; }

    static constexpr unsigned kDepth = 4;
    const Tables& tables_;
    Row row_{}, initial_{};
    Row saved_[kDepth];
    unsigned depth_ = 0;
};

uint64_t& General(Context& context, unsigned column)
{
    if (column == kReturn) return context.Rip;
    return context.Gpr[column < 8 ? static_cast<unsigned>(kGeneral[column]) : column];
}

// Register plus offset, followed, which is what a function with a realigned stack has.
bool Evaluate(const uint8_t* expression, Context& context, uint64_t* value)
{
    Bytes bytes(expression);
    const uint64_t size = bytes.Unsigned();
    const uint8_t* const end = bytes.At + size;
    *value = 0;
    while (bytes.At < end) {
        const uint8_t operation = bytes.Fixed<uint8_t>();
        if (operation >= 0x70 && operation < 0x70 + kReturn)
            *value = General(context, operation - 0x70) + static_cast<uint64_t>(bytes.Signed());
        else if (operation == 0x06)
            *value = *reinterpret_cast<const uint64_t*>(*value);
        else if (operation == 0x23)
            *value += bytes.Unsigned();
        else
            return false;
    }
    return true;
}

bool ApplyRow(const Row& row, Context& context, uint64_t* canonical)
{
    if (!row.CanonicalExpression)
        *canonical = General(context, row.CanonicalRegister) + static_cast<uint64_t>(row.CanonicalOffset);
    else if (!Evaluate(row.CanonicalExpression, context, canonical))
        return false;
    if (row.Rules[kReturn].Where != Rule::AtOffset) return false; // the outermost frame of a thread
    Context old = context;
    context.Gpr[Rsp] = *canonical;
    for (unsigned column = 0; column < kColumns; ++column) {
        const Rule& rule = row.Rules[column];
        if (rule.Where == Rule::Same || rule.Where == Rule::Lost) continue;
        uint64_t address = *canonical + static_cast<uint64_t>(rule.Offset);
        if (rule.Where == Rule::AtExpression && !Evaluate(rule.Expression, old, &address)) return false;
        if (column >= kVectors)
            memcpy(&context.Vector[column - kVectors], reinterpret_cast<void*>(address), sizeof(Xmm));
        else if (rule.Where == Rule::InRegister)
            General(context, column) = General(old, static_cast<unsigned>(rule.Offset));
        else
            General(context, column) = *reinterpret_cast<const uint64_t*>(address);
    }
    return true;
}

} // namespace

bool StepHost(Context& context, bool* exact, HostFrame* frame)
{
    dwarf_eh_bases bases{};
    const uint64_t pc = *exact ? context.Rip : context.Rip - 1;
    const void* const fde = _Unwind_Find_FDE(reinterpret_cast<void*>(pc), &bases);
    if (!fde) return false;
    Tables tables;
    if (!ReadTables(static_cast<const uint8_t*>(fde), reinterpret_cast<uint64_t>(bases.Function), &tables))
        return false;
    if (tables.SignalFrame) {
        // The record that the system pushed for the handler to return to.
        frame->Canonical = context.Gpr[Rsp];
        FromSignal(*reinterpret_cast<const ucontext_t*>(context.Gpr[Rsp]), context);
        *exact = true;
        return true;
    }
    *exact = false;
    Interpreter interpreter(tables);
    return interpreter.Run(pc) && ApplyRow(interpreter.Result(), context, &frame->Canonical);
}

} // namespace nthost::image
