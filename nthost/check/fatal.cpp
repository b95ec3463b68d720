// Texts for reports, and the end of the process. Relies on no lock: another thread may be stuck with it.
#include "check/fatal.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "check/stack.h"
#include "check/text.h"

namespace nthost {

namespace {

std::atomic<const ThreadTexts*> g_threadTexts;

std::string ThreadLines()
{
    const ThreadTexts* const texts = g_threadTexts.load(std::memory_order_acquire);
    const std::string lines = texts ? texts->Lines() : "";
    return lines.empty() ? "  on a thread that is not attached to a process\n" : lines;
}

std::string FormatList(const char* format, va_list arguments)
{
    va_list copy;
    va_copy(copy, arguments);
    const int length = vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    vsnprintf(text.data(), text.size() + 1, format, arguments);
    return text;
}

[[noreturn]] void Die(const std::string& message)
{
    static thread_local bool dying;
    if (!dying) {
        dying = true;
        std::string text = "nthost: fatal: " + message + "\n";
        text += ThreadLines();
        fputs(text.c_str(), stderr);
        fputs(CurrentStackText().c_str(), stderr);
        fflush(stderr);
    }
    abort();
}

} // namespace

void SetThreadTexts(const ThreadTexts* texts) { g_threadTexts.store(texts, std::memory_order_release); }

std::string ThreadPlace()
{
    const ThreadTexts* const texts = g_threadTexts.load(std::memory_order_acquire);
    return texts ? texts->Place() : "";
}

std::string ThreadReport() { return ThreadLines(); }

std::string Format(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::string text = FormatList(format, arguments);
    va_end(arguments);
    return text;
}

std::string HexText(const volatile void* address) { return Format("%p", const_cast<void*>(address)); }

std::string TagText(unsigned tag)
{
    std::string text;
    for (unsigned i = 0; i < 4; ++i, tag >>= 8) {
        const char character = static_cast<char>(tag & 0xff);
        text += character >= 0x20 && character < 0x7f ? character : '.';
    }
    return text;
}

void Fatal(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const std::string message = FormatList(format, arguments);
    va_end(arguments);
    Die(message);
}

void FatalFinding(const char* rule, const std::string& detail)
{
    ReportFinding(rule, detail);
    Die(std::string(rule) + ": " + detail);
}

} // namespace nthost
