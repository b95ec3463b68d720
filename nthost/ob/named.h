// The end of a service that makes an object: its name and its handle.
#pragma once

#include "ob/object.h"
#include "ob/capture.h"

namespace nthost::ob {

// Names the object if the attributes have a name, and gives a handle to the caller. With OBJ_OPENIF a name that stands
// already gives that object instead, with STATUS_OBJECT_NAME_EXISTS. Takes over the caller's reference.
[[nodiscard]] NTSTATUS NameAndReturn(void* body, const CapturedAttributes& attributes, ACCESS_MASK granted,
                                     KPROCESSOR_MODE mode, PHANDLE handle);

// For types whose objects keep their name as long as a handle is open.
void RemoveNameWithLastHandle(PEPROCESS, void* body, ACCESS_MASK, ULONG, ULONG remaining);

} // namespace nthost::ob
