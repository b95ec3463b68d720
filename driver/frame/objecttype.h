// The kernel's object types.
#pragma once

#include "frame/nt.h"

// What the kernel exports as IoFileObjectType and the like is a variable of type POBJECT_TYPE. Header sets differ in
// how many pointers they declare before it, so that a * is right with one and reads a level too many with the other;
// that the name's address is the variable's holds for all of them.
template <typename Exported>
POBJECT_TYPE GvObjectType(Exported& exported)
{
    return *reinterpret_cast<POBJECT_TYPE*>(&exported);
}
