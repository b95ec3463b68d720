// Kept for its includers: all of it is in client.h.
#pragma once

#include "support/client.h"
