// A plugin in C: a read-only volume with one file, hello.txt.
#pragma once

#include <gvnd/plugin.h>

const PluginOps* HelloTable(void);
