// What to do about a status. Rows only where there is something to say beyond the status's own name.
#include "gvnd/status.h"

#include <fmt/format.h>

#include <nthost/debug.h>

namespace tool {

namespace {

struct Advice {
    NTSTATUS Status;
    const char* Text;
};

constexpr Advice Advices[] = {
    {STATUS_OBJECT_NAME_NOT_FOUND, "nothing has this name; `ls` its directory, and mind that names are the plugin's"},
    {STATUS_OBJECT_PATH_NOT_FOUND, "a directory on the way does not exist; `ls` the path from the root on"},
    {STATUS_OBJECT_PATH_SYNTAX_BAD, "the path is malformed: absolute, no `.` or `..`, no file in the middle"},
    {STATUS_OBJECT_NAME_INVALID, "the name has a character that NT does not allow, or a file's name ends in a slash"},
    {STATUS_OBJECT_NAME_COLLISION, "something with this name exists already"},
    {STATUS_ACCESS_DENIED, "the plugin or the handle does not allow it, or the volume is on its way out"},
    {STATUS_SHARING_VIOLATION, "another handle does not share this access; see `handles`"},
    {STATUS_FILE_LOCK_CONFLICT, "another handle has locked these bytes; see `handles`"},
    {STATUS_LOCK_NOT_GRANTED, "another handle has locked some of these bytes; see `handles`"},
    {STATUS_RANGE_NOT_LOCKED, "unlock names exactly the range that was locked, on the same handle"},
    {STATUS_FILE_IS_A_DIRECTORY, "this is a directory; use `ls`"},
    {STATUS_NOT_A_DIRECTORY, "this is not a directory; use `cat`"},
    {STATUS_OBJECT_TYPE_MISMATCH, "only files can be read"},
    {STATUS_NO_SUCH_FILE, "nothing matches the pattern"},
    {STATUS_INSUFFICIENT_RESOURCES, "out of memory, or too many requests wait; try again"},
    {STATUS_VOLUME_DISMOUNTED, "the volume has been unmounted; mount it again"},
    {STATUS_NO_SUCH_DEVICE, "the volume is not mounted"},
};

std::string Describe(const std::string& request, NTSTATUS status)
{
    std::string text =
        fmt::format("{}: {} (0x{:08x})", request, nthost::StatusName(status), static_cast<unsigned>(status));
    for (const Advice& advice : Advices) {
        if (advice.Status == status) return text + "\n  " + advice.Text;
    }
    return text + "\n  `trace on` shows how the driver came to it";
}

} // namespace

Failure::Failure(std::string request, NTSTATUS status) : std::runtime_error(Describe(request, status)), status_(status)
{}

} // namespace tool
