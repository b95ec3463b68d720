// The two forms of the exception guard. Holds no state.

#include "frame/guard.h"

#ifdef _WIN32

// The compiler catches faults of callees, not of the frame of __try itself; the call through the pointer is one.
__attribute__((noinline)) bool GvRunGuarded(void (*body)(void*), void* argument)
{
    __try {
        body(argument);
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        return false;
    }
    return true;
}

#else

__attribute__((noinline)) bool GvRunGuarded(void (*body)(void*), void* argument)
{
    NT_GUARD guard;
    if (!NtGuardEnter(&guard)) return false;
    body(argument);
    NtGuardLeave(&guard);
    return true;
}

#endif
