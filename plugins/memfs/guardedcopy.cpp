// The exception guard in the forms of the two builds, and the touching of buffers. Holds no state and no lock. What may
// vanish between a touch and the copy is caught by the guard around the copy, which is the data code's.

#include "guardedcopy.h"

namespace memfs {

#ifdef _WIN32

// The compiler catches faults of callees, not of the frame of __try itself; the call through the pointer is one.
__attribute__((noinline)) bool RunGuarded(void (*body)(void*), void* argument)
{
    __try {
        body(argument);
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        return false;
    }
    return true;
}

#else

__attribute__((noinline)) bool RunGuarded(void (*body)(void*), void* argument)
{
    NT_GUARD guard;
    if (!NtGuardEnter(&guard)) return false;
    body(argument);
    NtGuardLeave(&guard);
    return true;
}

#endif

namespace {

struct Range {
    const UCHAR* First;
    const UCHAR* Last;
};

void TouchPages(void* argument)
{
    constexpr ULONG_PTR kPage = 4096;
    const Range& range = *static_cast<Range*>(argument);
    const volatile UCHAR* at = range.First;
    while (at < range.Last) {
        (void)*at;
        at = reinterpret_cast<const volatile UCHAR*>((reinterpret_cast<ULONG_PTR>(at) | (kPage - 1)) + 1);
    }
    (void)*static_cast<const volatile UCHAR*>(range.Last);
}

} // namespace

bool TouchBuffer(const void* buffer, ULONG length)
{
    if (length == 0) return true;
    const UCHAR* const first = static_cast<const UCHAR*>(buffer);
    Range range = {first, first + length - 1};
    return RunGuarded(TouchPages, &range);
}

} // namespace memfs
