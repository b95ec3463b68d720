// Reports on the current thread, and the end of the process. Relies on no lock: another thread may be stuck with it.
#include "check/fatal.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "check/stack.h"
#include "check/text.h"
#include "ke/thread.h"

namespace nthost {

namespace {

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

const char* KindText(HeldLock::Kind kind)
{
    switch (kind) {
    case HeldLock::Kind::Resource: return "resource";
    case HeldLock::Kind::SpinLock: return "spin lock";
    case HeldLock::Kind::Mutex: return "mutex";
    case HeldLock::Kind::FastMutex: return "fast mutex";
    case HeldLock::Kind::GuardedMutex: return "guarded mutex";
    }
    return "lock";
}

// Straight from the record: draining what others posted takes a lock.
void DescribeHeld(const _ETHREAD& thread, std::string& text)
{
    for (const HeldLock& held : thread.Held)
        text += Format("  holds %s %p shared %u exclusive %u, taken at %s\n", KindText(held.LockKind), held.Address,
                       held.Shared, held.Exclusive, FrameText(held.Where).c_str());
}

[[noreturn]] void Die(const std::string& message)
{
    static thread_local bool dying;
    if (!dying) {
        dying = true;
        std::string text = "nthost: fatal: " + message + "\n";
        DescribeThread(text);
        fputs(text.c_str(), stderr);
        fputs(CurrentStackText().c_str(), stderr);
        fflush(stderr);
    }
    abort();
}

} // namespace

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

void DescribeThread(std::string& text)
{
    const _ETHREAD* const thread = ke::CurrentThreadOrNull();
    if (!thread) {
        text += "  on a thread that is not attached to a process\n";
        return;
    }
    text += Format("  thread %zu of process %zu (%s), IRQL %u, critical regions %u\n",
                   reinterpret_cast<size_t>(thread->Id), reinterpret_cast<size_t>(thread->Process->Id),
                   thread->Process->Name.c_str(), thread->Irql, thread->ApcDisable);
    if (thread->Calls) text += Format("  in %s, request %p\n", thread->Calls->What, thread->CurrentIrp);
    DescribeHeld(*thread, text);
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
