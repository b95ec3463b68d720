// Section objects: a range of a file, from its beginning, that can be mapped. Constant once made.
#pragma once

#include "mm/control_area.h"
#include "ob/object.h"

namespace nthost::zw {

struct SectionBody {
    mm::ControlArea* Area; // counted as a section
    LONGLONG Size;
    ULONG Protection;
};

extern OBJECT_TYPE SectionType;

} // namespace nthost::zw
