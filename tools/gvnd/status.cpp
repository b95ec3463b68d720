// What to do about a status. Rows only where there is something to say beyond the status's own name.
#include "gvnd/status.h"

namespace tool {

namespace {

struct Advice {
    NTSTATUS Status;
    const char* Text;
};

constexpr Advice Advices[] = {
    {STATUS_OBJECT_NAME_NOT_FOUND, "nothing has this name; `ls` its directory, and mind that names are the plugin's"},
    {STATUS_OBJECT_PATH_NOT_FOUND, "a directory on the way does not exist; `ls` the path from the root on"},
    {STATUS_OBJECT_PATH_SYNTAX_BAD,
     "the path is malformed: from the root it has no `.` or `..`, and no file in the middle"},
    {STATUS_OBJECT_NAME_INVALID, "the name has a character that NT does not allow, or a file's name ends in a slash"},
    {STATUS_OBJECT_NAME_COLLISION, "something with this name exists already"},
    {STATUS_ACCESS_DENIED,
     "refused by plugin, handle or --sddl, a read-only file is in the way, or the volume is going"},
    {STATUS_SHARING_VIOLATION, "another handle does not share this access; see `handles`"},
    {STATUS_FILE_LOCK_CONFLICT, "another handle has locked these bytes; see `handles`"},
    {STATUS_LOCK_NOT_GRANTED, "another handle has locked some of these bytes; see `handles`"},
    {STATUS_RANGE_NOT_LOCKED, "unlock names exactly the range that was locked, on the same handle"},
    {STATUS_FILE_IS_A_DIRECTORY, "this is a directory; use `ls`"},
    {STATUS_NOT_A_DIRECTORY, "this is a file, and a directory is wanted; `stat` shows what it is"},
    {STATUS_OBJECT_TYPE_MISMATCH, "only files can be read"},
    {STATUS_NO_SUCH_FILE, "nothing matches the pattern"},
    {STATUS_INSUFFICIENT_RESOURCES, "out of memory, or too many requests wait; try again"},
    {STATUS_DIRECTORY_NOT_EMPTY, "remove what is in it first"},
    {STATUS_CANNOT_DELETE, "it is read-only (`attr PATH -r`), mapped, or the root"},
    {STATUS_DELETE_PENDING, "it goes away as soon as its last handle is closed; see `handles`"},
    {STATUS_USER_MAPPED_FILE, "a view or a section of the file stands in the way"},
    {STATUS_DISK_FULL, "the volume is full; `df` shows how much it holds"},
    {STATUS_MEDIA_WRITE_PROTECTED, "the volume was mounted with --read-only"},
    {STATUS_EAS_NOT_SUPPORTED, "the plugin keeps no extended attributes for this object"},
    {STATUS_NO_EAS_ON_FILE, "there are none; `ea set` makes one"},
    {STATUS_NONEXISTENT_EA_ENTRY, "there is no attribute of this name; `ea list` shows those that are"},
    {STATUS_INVALID_EA_NAME, "a name of an extended attribute has letters that FAT allows in names"},
    {STATUS_EA_TOO_LARGE, "all extended attributes of one object must fit into 64 KB"},
    {STATUS_INVALID_VOLUME_LABEL, "the plugin takes no label like this; memfs allows 32 characters"},
    {STATUS_MAPPED_FILE_SIZE_ZERO, "an empty file cannot be mapped; write something first"},
    {STATUS_NOT_SAME_DEVICE, "a rename cannot leave the volume"},
    {STATUS_NOT_SUPPORTED, "the plugin or the driver does not offer this at all"},
    {STATUS_VOLUME_DISMOUNTED, "the volume has been unmounted; mount it again"},
    {STATUS_NO_SUCH_DEVICE, "the volume is not mounted"},
};

} // namespace

std::string Advised(const std::exception& error)
{
    const std::string text = error.what();
    const auto* const failure = dynamic_cast<const Failure*>(&error);
    if (!failure) return text;
    for (const Advice& advice : Advices) {
        if (advice.Status == failure->Status()) return text + "\n  " + advice.Text;
    }
    return text + "\n  `trace on` shows how the driver came to it";
}

} // namespace tool
