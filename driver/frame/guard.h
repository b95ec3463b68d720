// Contains NT exceptions: a bad caller address, a raise or a fault in a plugin. Destructors of the frames that an
// exception passes through do not run, in either build, so a body is one call (a plugin operation, a probe, a copy)
// and everything that must be undone is owned outside of it.
#pragma once

#include "frame/nt.h"

// Runs body(argument); false if an exception ended it. Never inlined: what the body changes must live in memory, not in
// registers of the frame that the exception comes back to.
[[nodiscard]] bool GvRunGuarded(void (*body)(void*), void* argument);

template <typename Body>
[[nodiscard]] bool GvGuarded(Body&& body)
{
    return GvRunGuarded([](void* argument) { (*static_cast<decltype(&body)>(argument))(); }, &body);
}
