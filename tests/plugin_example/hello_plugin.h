// The smallest useful plugin: a read-only volume whose root holds one file, hello.txt. As a service it
// mounts at \??\Hello when it is loaded and unmounts when it is unloaded. docs/plugin-guide.md walks through it.
#pragma once

#include <gvnd/plugin.h>

extern "C" NTSTATUS NTAPI HelloDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);
