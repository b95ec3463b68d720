// The formats of DbgPrint. Reads only what the formats name: counted strings by their length, other text up to its
// precision or terminator. Allocates nothing, takes no lock, needs no attached thread; any IRQL.

#include "rtl/format.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string_view>
#include <utility>

#include "rtl/utf8.h"

namespace nthost::rtl {
namespace {

// What is written beyond the end is dropped.
class Output {
public:
    Output(char* out, size_t size) : out_(out), size_(size) {}

    void Put(char c)
    {
        if (used_ < size_)
            out_[used_++] = c;
        else
            full_ = true;
    }
    void Put(std::string_view text)
    {
        for (char c : text) Put(c);
    }
    void Fill(char c, size_t count)
    {
        for (; count && !full_; --count) Put(c);
    }
    size_t Finish() const { return full_ ? WholeUtf8(out_, used_) : used_; }

private:
    char* out_;
    size_t size_;
    size_t used_ = 0;
    bool full_ = false;
};

// Every argument is fetched here and nowhere else.
class Arguments {
public:
    explicit Arguments(va_list list) { va_copy(list_, list); }
    ~Arguments() { va_end(list_); }
    Arguments(const Arguments&) = delete;
    Arguments& operator=(const Arguments&) = delete;

    int Int() { return va_arg(list_, int); }
    int64_t Int64() { return va_arg(list_, long long); }
    template <typename T>
    const T* Pointer()
    {
        return static_cast<const T*>(va_arg(list_, void*));
    }

private:
    va_list list_;
};

enum class Width : uint8_t {
    Default,
    Byte,  // hh
    Short, // h: 16-bit numbers, 8-bit text
    Long,  // l and w: 32-bit numbers, 16-bit text
    Quad   // ll, I64, I
};

struct Spec {
    bool Left = false;
    bool Plus = false;
    bool Blank = false;
    bool Alternate = false;
    bool Zero = false;
    size_t FieldWidth = 0;
    int Precision = -1; // none
    Width Size = Width::Default;
    char Conversion = 0; // 0: the format ended
};

struct SizePrefix {
    std::string_view Text;
    Width Size;
};
// A prefix that begins another stands after it.
constexpr SizePrefix kSizePrefixes[] = {
    {"hh", Width::Byte},  {"h", Width::Short},  {"ll", Width::Quad}, {"l", Width::Long},
    {"I64", Width::Quad}, {"I32", Width::Long}, {"I", Width::Quad},  {"w", Width::Long},
};

bool* FlagOf(Spec& spec, char c)
{
    switch (c) {
    case '-': return &spec.Left;
    case '+': return &spec.Plus;
    case ' ': return &spec.Blank;
    case '#': return &spec.Alternate;
    case '0': return &spec.Zero;
    default: return nullptr;
    }
}

// A number or a star. No number is longer than any output, so that nothing overflows.
int ParseCount(const char*& at, Arguments& arguments)
{
    constexpr int most = 0x10000;
    if (*at == '*') {
        ++at;
        return std::clamp(arguments.Int(), -most, most);
    }
    int count = 0;
    for (; *at >= '0' && *at <= '9'; ++at) count = std::min(count * 10 + (*at - '0'), most);
    return count;
}

// What follows a percent sign; leaves `at` behind the conversion.
Spec ParseSpec(const char*& at, Arguments& arguments)
{
    Spec spec;
    for (; bool* flag = FlagOf(spec, *at); ++at) *flag = true;
    const int width = ParseCount(at, arguments);
    spec.Left |= width < 0;
    spec.FieldWidth = static_cast<size_t>(width < 0 ? -width : width);
    if (*at == '.') spec.Precision = ParseCount(++at, arguments);
    for (const SizePrefix& prefix : kSizePrefixes) {
        if (std::strncmp(at, prefix.Text.data(), prefix.Text.size()) != 0) continue;
        at += prefix.Text.size();
        spec.Size = prefix.Size;
        break;
    }
    if (*at) spec.Conversion = *at++;
    return spec;
}

void PutField(Output& out, const Spec& spec, std::string_view text)
{
    const size_t padding = spec.FieldWidth - std::min(spec.FieldWidth, text.size());
    if (!spec.Left) out.Fill(' ', padding);
    out.Put(text);
    if (spec.Left) out.Fill(' ', padding);
}

// The field's width counts 16-bit units, as the caller's columns do.
void PutWide(Output& out, const Spec& spec, const WCHAR* text, size_t units)
{
    const size_t padding = spec.FieldWidth - std::min(spec.FieldWidth, units);
    if (!spec.Left) out.Fill(' ', padding);
    for (size_t i = 0, used = 0; i < units; i += used) {
        char bytes[4];
        const char32_t c = DecodeUtf16(text + i, units - i, &used);
        out.Put(std::string_view(bytes, EncodeUtf8(c, bytes)));
    }
    if (spec.Left) out.Fill(' ', padding);
}

size_t Limited(const Spec& spec, size_t length)
{
    return spec.Precision < 0 ? length : std::min(length, static_cast<size_t>(spec.Precision));
}

// Up to the terminator, which need not be there when the precision ends the text first.
template <typename Character>
size_t TerminatedLength(const Spec& spec, const Character* text)
{
    const size_t most = Limited(spec, SIZE_MAX);
    size_t length = 0;
    while (length < most && text[length]) ++length;
    return length;
}

constexpr std::string_view kNull = "(null)";

// 8-bit text is printed as it is, 16-bit text as UTF-8.
void PutUnits(Output& out, const Spec& spec, const char* text, size_t units) { PutField(out, spec, {text, units}); }

void PutUnits(Output& out, const Spec& spec, const WCHAR* text, size_t units) { PutWide(out, spec, text, units); }

template <typename Character>
void PutText(Output& out, const Spec& spec, Arguments& arguments)
{
    const auto* text = arguments.Pointer<Character>();
    if (text)
        PutUnits(out, spec, text, TerminatedLength(spec, text));
    else
        PutField(out, spec, kNull);
}

template <typename String>
void PutCounted(Output& out, const Spec& spec, Arguments& arguments)
{
    const auto* text = arguments.Pointer<String>();
    if (text && text->Buffer)
        PutUnits(out, spec, text->Buffer, Limited(spec, text->Length / sizeof(*text->Buffer)));
    else
        PutField(out, spec, kNull);
}

void PutCharacter(Output& out, const Spec& spec, bool wide, int value)
{
    const WCHAR unit = static_cast<WCHAR>(value);
    const char byte = static_cast<char>(value);
    if (wide)
        PutWide(out, spec, &unit, 1);
    else
        PutField(out, spec, {&byte, 1});
}

uint64_t FetchUnsigned(const Spec& spec, Arguments& arguments)
{
    if (spec.Size == Width::Quad) return static_cast<uint64_t>(arguments.Int64());
    const auto value = static_cast<unsigned>(arguments.Int());
    return spec.Size == Width::Byte ? value & 0xff : spec.Size == Width::Short ? value & 0xffff : value;
}

int64_t FetchSigned(const Spec& spec, Arguments& arguments)
{
    const uint64_t value = FetchUnsigned(spec, arguments);
    switch (spec.Size) {
    case Width::Byte: return static_cast<int8_t>(value);
    case Width::Short: return static_cast<int16_t>(value);
    case Width::Quad: return static_cast<int64_t>(value);
    default: return static_cast<int32_t>(value);
    }
}

// Sign or base prefix, zeros of the precision or the zero flag, digits.
void PutNumber(Output& out, const Spec& spec, std::string_view prefix, std::string_view digits)
{
    const size_t least = spec.Precision < 0 ? 0 : static_cast<size_t>(spec.Precision);
    size_t zeros = least - std::min(least, digits.size());
    const size_t length = prefix.size() + zeros + digits.size();
    size_t padding = spec.FieldWidth - std::min(spec.FieldWidth, length);
    if (spec.Zero && !spec.Left && spec.Precision < 0) zeros += std::exchange(padding, 0);
    if (!spec.Left) out.Fill(' ', padding);
    out.Put(prefix);
    out.Fill('0', zeros);
    out.Put(digits);
    if (spec.Left) out.Fill(' ', padding);
}

void PutDigits(Output& out, const Spec& spec, std::string_view prefix, uint64_t value, unsigned base, bool upper)
{
    char buffer[24];
    char* first = std::end(buffer);
    const char* const alphabet = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    for (uint64_t rest = value; rest; rest /= base) *--first = alphabet[rest % base];
    if (first == std::end(buffer) && spec.Precision != 0) *--first = '0';
    PutNumber(out, spec, prefix, {first, static_cast<size_t>(std::end(buffer) - first)});
}

void PutSigned(Output& out, const Spec& spec, int64_t value)
{
    const std::string_view sign = value < 0 ? "-" : spec.Plus ? "+" : spec.Blank ? " " : "";
    const auto magnitude = static_cast<uint64_t>(value);
    PutDigits(out, spec, sign, value < 0 ? 0 - magnitude : magnitude, 10, false);
}

void PutHexadecimal(Output& out, const Spec& spec, uint64_t value, bool upper)
{
    const std::string_view prefix = !spec.Alternate || value == 0 ? "" : upper ? "0X" : "0x";
    PutDigits(out, spec, prefix, value, 16, upper);
}

void PutOctal(Output& out, const Spec& spec, uint64_t value)
{
    PutDigits(out, spec, spec.Alternate && value ? "0" : "", value, 8, false);
}

// NT prints all digits of a pointer, in upper case and without a prefix.
void PutPointer(Output& out, Spec spec, const void* value)
{
    spec.Precision = 2 * sizeof(void*);
    PutDigits(out, spec, "", reinterpret_cast<uintptr_t>(value), 16, true);
}

// The lower-case letters take 8-bit text unless a prefix says otherwise, the upper-case ones 16-bit text; %Z as well
// as the lower-case ones.
bool TakesWideText(const Spec& spec)
{
    const bool upper = spec.Conversion == 'S' || spec.Conversion == 'C';
    return spec.Size == Width::Long || (upper && spec.Size != Width::Short);
}

// False for a conversion that is not known.
bool Convert(Output& out, const Spec& spec, Arguments& arguments)
{
    const bool wide = TakesWideText(spec);
    switch (spec.Conversion) {
    case 'd':
    case 'i': PutSigned(out, spec, FetchSigned(spec, arguments)); return true;
    case 'u': PutDigits(out, spec, "", FetchUnsigned(spec, arguments), 10, false); return true;
    case 'o': PutOctal(out, spec, FetchUnsigned(spec, arguments)); return true;
    case 'x':
    case 'X': PutHexadecimal(out, spec, FetchUnsigned(spec, arguments), spec.Conversion == 'X'); return true;
    case 'p': PutPointer(out, spec, arguments.Pointer<void>()); return true;
    case 'c':
    case 'C': PutCharacter(out, spec, wide, arguments.Int()); return true;
    case 's':
    case 'S': wide ? PutText<WCHAR>(out, spec, arguments) : PutText<char>(out, spec, arguments); return true;
    case 'Z':
        wide ? PutCounted<UNICODE_STRING>(out, spec, arguments) : PutCounted<STRING>(out, spec, arguments);
        return true;
    case '%': out.Put('%'); return true;
    default: return false;
    }
}

} // namespace

size_t FormatDebug(char* out, size_t size, const char* format, va_list list)
{
    Output output(out, size);
    Arguments arguments(list);
    while (*format) {
        const char* const start = format;
        if (*format++ != '%') {
            output.Put(*start);
            continue;
        }
        const Spec spec = ParseSpec(format, arguments);
        if (!Convert(output, spec, arguments)) output.Put({start, static_cast<size_t>(format - start)});
    }
    return output.Finish();
}

} // namespace nthost::rtl
