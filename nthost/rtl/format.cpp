// The formats of DbgPrint. Reads only what the formats name: counted strings by their length, other text up to its
// precision or terminator. Allocates nothing, takes no lock, needs no attached thread; any IRQL.

#include "rtl/format.h"

#include <algorithm>
#include <cstdarg>
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
    explicit Arguments(NT_VA_LIST list) { NT_VA_COPY(list_, list); }
    ~Arguments() { NT_VA_END(list_); }
    Arguments(const Arguments&) = delete;
    Arguments& operator=(const Arguments&) = delete;

    int Int() { return Next<int>(); }
    int64_t Int64() { return Next<long long>(); }
    template <typename T>
    const T* Pointer()
    {
        return static_cast<const T*>(Next<void*>());
    }

private:
    template <typename T>
    T Next()
    {
#if NTHOST_MS_ABI
        // In the platform's convention each argument has eight bytes of a row. g++ does not walk the row in a routine
        // of another convention, unless it optimises.
        T value;
        memcpy(&value, list_, sizeof value);
        list_ += sizeof(uint64_t);
        return value;
#else
        return va_arg(list_, T);
#endif
    }

    NT_VA_LIST list_;
};

enum class Width : uint8_t {
    Default,
    Byte,  // hh
    Short, // h: 16-bit numbers, 8-bit text
    Long,  // l and w: 32-bit numbers, 16-bit text
    Quad   // ll, I64, I
};

struct Directive {
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

bool* FlagOf(Directive& directive, char c)
{
    switch (c) {
    case '-': return &directive.Left;
    case '+': return &directive.Plus;
    case ' ': return &directive.Blank;
    case '#': return &directive.Alternate;
    case '0': return &directive.Zero;
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
Directive ParseSpec(const char*& at, Arguments& arguments)
{
    Directive directive;
    for (; bool* flag = FlagOf(directive, *at); ++at) *flag = true;
    const int width = ParseCount(at, arguments);
    directive.Left |= width < 0;
    directive.FieldWidth = static_cast<size_t>(width < 0 ? -width : width);
    if (*at == '.') directive.Precision = ParseCount(++at, arguments);
    for (const SizePrefix& prefix : kSizePrefixes) {
        if (std::strncmp(at, prefix.Text.data(), prefix.Text.size()) != 0) continue;
        at += prefix.Text.size();
        directive.Size = prefix.Size;
        break;
    }
    if (*at) directive.Conversion = *at++;
    return directive;
}

void PutField(Output& out, const Directive& directive, std::string_view text)
{
    const size_t padding = directive.FieldWidth - std::min(directive.FieldWidth, text.size());
    if (!directive.Left) out.Fill(' ', padding);
    out.Put(text);
    if (directive.Left) out.Fill(' ', padding);
}

// The field's width counts 16-bit units, as the caller's columns do.
void PutWide(Output& out, const Directive& directive, const WCHAR* text, size_t units)
{
    const size_t padding = directive.FieldWidth - std::min(directive.FieldWidth, units);
    if (!directive.Left) out.Fill(' ', padding);
    for (size_t i = 0, used = 0; i < units; i += used) {
        char bytes[4];
        const char32_t c = DecodeUtf16(text + i, units - i, &used);
        out.Put(std::string_view(bytes, EncodeUtf8(c, bytes)));
    }
    if (directive.Left) out.Fill(' ', padding);
}

size_t Limited(const Directive& directive, size_t length)
{
    return directive.Precision < 0 ? length : std::min(length, static_cast<size_t>(directive.Precision));
}

// Up to the terminator, which need not be there when the precision ends the text first.
template <typename Character>
size_t TerminatedLength(const Directive& directive, const Character* text)
{
    const size_t most = Limited(directive, SIZE_MAX);
    size_t length = 0;
    while (length < most && text[length]) ++length;
    return length;
}

constexpr std::string_view kNull = "(null)";

// 8-bit text is printed as it is, 16-bit text as UTF-8.
void PutUnits(Output& out, const Directive& directive, const char* text, size_t units)
{
    PutField(out, directive, {text, units});
}

void PutUnits(Output& out, const Directive& directive, const WCHAR* text, size_t units)
{
    PutWide(out, directive, text, units);
}

template <typename Character>
void PutText(Output& out, const Directive& directive, Arguments& arguments)
{
    const auto* text = arguments.Pointer<Character>();
    if (text)
        PutUnits(out, directive, text, TerminatedLength(directive, text));
    else
        PutField(out, directive, kNull);
}

template <typename String>
void PutCounted(Output& out, const Directive& directive, Arguments& arguments)
{
    const auto* text = arguments.Pointer<String>();
    if (text && text->Buffer)
        PutUnits(out, directive, text->Buffer, Limited(directive, text->Length / sizeof(*text->Buffer)));
    else
        PutField(out, directive, kNull);
}

void PutCharacter(Output& out, const Directive& directive, bool wide, int value)
{
    const WCHAR unit = static_cast<WCHAR>(value);
    const char byte = static_cast<char>(value);
    if (wide)
        PutWide(out, directive, &unit, 1);
    else
        PutField(out, directive, {&byte, 1});
}

uint64_t FetchUnsigned(const Directive& directive, Arguments& arguments)
{
    if (directive.Size == Width::Quad) return static_cast<uint64_t>(arguments.Int64());
    const auto value = static_cast<unsigned>(arguments.Int());
    return directive.Size == Width::Byte ? value & 0xff : directive.Size == Width::Short ? value & 0xffff : value;
}

int64_t FetchSigned(const Directive& directive, Arguments& arguments)
{
    const uint64_t value = FetchUnsigned(directive, arguments);
    switch (directive.Size) {
    case Width::Byte: return static_cast<int8_t>(value);
    case Width::Short: return static_cast<int16_t>(value);
    case Width::Quad: return static_cast<int64_t>(value);
    default: return static_cast<int32_t>(value);
    }
}

// Sign or base prefix, zeros of the precision or the zero flag, digits.
void PutNumber(Output& out, const Directive& directive, std::string_view prefix, std::string_view digits)
{
    const size_t least = directive.Precision < 0 ? 0 : static_cast<size_t>(directive.Precision);
    size_t zeros = least - std::min(least, digits.size());
    const size_t length = prefix.size() + zeros + digits.size();
    size_t padding = directive.FieldWidth - std::min(directive.FieldWidth, length);
    if (directive.Zero && !directive.Left && directive.Precision < 0) zeros += std::exchange(padding, 0);
    if (!directive.Left) out.Fill(' ', padding);
    out.Put(prefix);
    out.Fill('0', zeros);
    out.Put(digits);
    if (directive.Left) out.Fill(' ', padding);
}

void PutDigits(Output& out, const Directive& directive, std::string_view prefix, uint64_t value, unsigned base,
               bool upper)
{
    char buffer[24];
    char* first = std::end(buffer);
    const char* const alphabet = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    for (uint64_t rest = value; rest; rest /= base) *--first = alphabet[rest % base];
    if (first == std::end(buffer) && directive.Precision != 0) *--first = '0';
    PutNumber(out, directive, prefix, {first, static_cast<size_t>(std::end(buffer) - first)});
}

void PutSigned(Output& out, const Directive& directive, int64_t value)
{
    const std::string_view sign = value < 0 ? "-" : directive.Plus ? "+" : directive.Blank ? " " : "";
    const auto magnitude = static_cast<uint64_t>(value);
    PutDigits(out, directive, sign, value < 0 ? 0 - magnitude : magnitude, 10, false);
}

void PutHexadecimal(Output& out, const Directive& directive, uint64_t value, bool upper)
{
    const std::string_view prefix = !directive.Alternate || value == 0 ? "" : upper ? "0X" : "0x";
    PutDigits(out, directive, prefix, value, 16, upper);
}

void PutOctal(Output& out, const Directive& directive, uint64_t value)
{
    PutDigits(out, directive, directive.Alternate && value ? "0" : "", value, 8, false);
}

// NT prints all digits of a pointer, in upper case and without a prefix.
void PutPointer(Output& out, Directive directive, const void* value)
{
    directive.Precision = 2 * sizeof(void*);
    PutDigits(out, directive, "", reinterpret_cast<uintptr_t>(value), 16, true);
}

// The lower-case letters take 8-bit text unless a prefix says otherwise, the upper-case ones 16-bit text; %Z as well
// as the lower-case ones.
bool TakesWideText(const Directive& directive)
{
    const bool upper = directive.Conversion == 'S' || directive.Conversion == 'C';
    return directive.Size == Width::Long || (upper && directive.Size != Width::Short);
}

// False for a conversion that is not known.
bool Convert(Output& out, const Directive& directive, Arguments& arguments)
{
    const bool wide = TakesWideText(directive);
    switch (directive.Conversion) {
    case 'd':
    case 'i': PutSigned(out, directive, FetchSigned(directive, arguments)); return true;
    case 'u': PutDigits(out, directive, "", FetchUnsigned(directive, arguments), 10, false); return true;
    case 'o': PutOctal(out, directive, FetchUnsigned(directive, arguments)); return true;
    case 'x':
    case 'X':
        PutHexadecimal(out, directive, FetchUnsigned(directive, arguments), directive.Conversion == 'X');
        return true;
    case 'p': PutPointer(out, directive, arguments.Pointer<void>()); return true;
    case 'c':
    case 'C': PutCharacter(out, directive, wide, arguments.Int()); return true;
    case 's':
    case 'S': wide ? PutText<WCHAR>(out, directive, arguments) : PutText<char>(out, directive, arguments); return true;
    case 'Z':
        wide ? PutCounted<UNICODE_STRING>(out, directive, arguments) : PutCounted<STRING>(out, directive, arguments);
        return true;
    case '%': out.Put('%'); return true;
    default: return false;
    }
}

} // namespace

size_t FormatDebug(char* out, size_t size, const char* format, NT_VA_LIST list)
{
    Output output(out, size);
    Arguments arguments(list);
    while (*format) {
        const char* const start = format;
        if (*format++ != '%') {
            output.Put(*start);
            continue;
        }
        const Directive directive = ParseSpec(format, arguments);
        if (!Convert(output, directive, arguments)) output.Put({start, static_cast<size_t>(format - start)});
    }
    return output.Finish();
}

} // namespace nthost::rtl
