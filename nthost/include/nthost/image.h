// Drivers from kernel images: the .sys file that is shipped, instead of the same sources linked into the process. Needs
// a build whose NT routines have the platform's calling convention (CMake option GVND_MS_ABI).
//
// Stacks in findings and reports name an image's functions if its link map (NAME.map beside NAME.sys) is there. A
// debugger sees them too.
#pragma once

#include <string>

#include <ntifs.h>

namespace nthost {

// Whether this build can load images at all.
inline constexpr bool kLoadsImages = NTHOST_MS_ABI;

// Like LoadDriver (nthost/host.h), but maps the file and enters it at its entry. UnloadDriver unmaps it. Besides what
// LoadDriver returns: STATUS_INVALID_IMAGE_FORMAT, STATUS_DRIVER_ENTRYPOINT_NOT_FOUND for imports that nthost does not
// have, STATUS_NOT_SUPPORTED in other builds; each with a finding that says what is wrong ("image-unusable",
// "image-import-missing").
[[nodiscard]] NTSTATUS LoadImage(const std::string& name, const std::string& path, PDRIVER_OBJECT* driver);

// The most stack that frames of images took on one thread, nested requests included, and what was on it then. Known in
// builds with checks, since the process began; a finding "image-stack-deep" comes above half a kernel stack.
struct StackUse {
    size_t Bytes;
    std::string Stack;
};
StackUse DeepestImageStack();

} // namespace nthost
