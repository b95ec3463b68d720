// An image in memory, from its file to its end. Thread-safe.
#pragma once

#include <string>

#include <ntifs.h>

#include "image/module.h"

namespace nthost::image {

// STATUS_INVALID_IMAGE_FORMAT, STATUS_DRIVER_ENTRYPOINT_NOT_FOUND for imports that nothing stands behind,
// STATUS_INSUFFICIENT_RESOURCES, STATUS_NOT_SUPPORTED in a build whose routines have another calling convention; a
// finding says more.
[[nodiscard]] NTSTATUS Load(const std::string& path, Module** module);

// Its code is gone afterwards, its names stay until Forget.
void Unload(Module* module);

// At the end of the host.
void Forget();

} // namespace nthost::image
