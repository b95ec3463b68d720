// The NT interface that drivers and plugins compile against when they run inside a Linux process. It plays the part
// of the system header of the same name: the public x64 types, layouts and routines, nothing of nthost's own beyond
// the guard (nt/guard.h), which stands in for structured exception handling. C11 and C++20; needs -fshort-wchar.
#pragma once

#include "nt/base.h"
#include "nt/status.h"
#include "nt/intrinsics.h"
#include "nt/list.h"
#include "nt/guard.h"
#include "nt/rtl.h"
#include "nt/ob.h"
#include "nt/ke.h"
#include "nt/ex.h"
#include "nt/ps.h"
#include "nt/mm.h"
#include "nt/io.h"
#include "nt/fsrtl_file.h"
#include "nt/fsrtl.h"
#include "nt/cc.h"
#include "nt/se.h"
#include "nt/zw.h"
#include "nt/section.h"
