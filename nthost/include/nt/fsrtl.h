// What the kernel keeps ready for file systems.
#pragma once

#include "fsrtl_names.h"
