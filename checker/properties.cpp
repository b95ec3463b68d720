// The rules, in the order of reports.
#include "checker/checker.h"

namespace checker {

// clang-format off
const Property kProperties[] = {
    // of every call
    {"call.status", "An operation returns an NT status: success, an error (0xc...), or STATUS_NO_MORE_FILES at the end of a listing.", "return STATUS_ codes; an errno, a bool and a warning are none"},
    {"call.not-pending", "When an operation returns it is done, so STATUS_PENDING is no result.", "wait for the end inside of the operation"},
    {"call.returns", "An operation returns.", "see the stack; look for a lock that was left held, and wait for `cancel` as well as for your own event"},
    {"call.survives", "No operation ends the process.", "an assertion, an arithmetic fault or a stack overflow stops the whole kernel; return a status"},
    {"call.no-exception", "No exception leaves an operation, except for a fault on the buffer of Read and Write.", "see address and stack; test what you dereference"},
    {"call.no-throw", "No C++ exception leaves an operation.", "catch it inside, and return a status: the driver has no C++ exceptions"},
    {"call.thread-state", "IRQL, critical regions, top-level request and locks are after a call as they were before.", "undo on every way out what the operation did to its thread"},
    {"call.kernel-rules", "Kernel routines are called by their rules.", "see the rule that nthost names"},
    {"call.no-reentry", "An operation opens nothing on its own volume.", "work on your own data; the driver refuses such an open"},
    {"call.arguments-unchanged", "Paths, names and data that come in are the driver's, and constant.", "copy what you want to change"},
    {"call.arguments-not-kept", "What comes in is valid during the call only.", "copy what you want to keep"},
    {"record.pool", "What is handed back is the start of a live block from ExAllocatePoolWithTag, handed back once.", "allocate a block for each call; the driver frees it"},
    {"record.room", "A block is as long as the record in it, with its name.", "allocate the fixed part and the name's bytes"},
    {"record.within", "Nobody writes in front of a block or behind it.", "allocate what you write"},
    {"record.owed", "Success comes with the record, the value or the string that is owed.", "set the out parameter, or fail"},
    {"record.values", "Sizes and times are not negative, and every field that the driver reads is set.", "initialise the whole record; 0 is a valid time"},
    {"record.attributes", "Attributes are within GVND_ATTRIBUTE_MASK.", "mask them; FILE_ATTRIBUTE_NORMAL is not one of them"},
    {"handle.set", "Success comes with a handle, and no handle is 0.", "set *fd; count from 1"},
    {"handle.unique", "Two live objects never share a handle.", "make a number of its own for each open"},
    {"handle.none-on-failure", "A failed open leaves no handle.", "leave *fd alone when you fail"},
    // of the table
    {"table.version", "Version is GVND_PLUGIN_VERSION.", "fill the table from the header that you are built with"},
    {"table.slots", "Lookup, Open, OpenDir, Read, ReadDirEntry, GetInfo and GetVolInfo are there, and what belongs together.", "fill the slot"},
    {"table.close", "Close is there if Rename or Delete is: the driver closes before it calls them, and gives up if it cannot.", "fill Close"},
    // of each operation
    {"lookup.root", "The root exists, and is a directory.", "answer for the path of a single backslash"},
    {"lookup.missing-name", "A name that is not there is STATUS_OBJECT_NAME_NOT_FOUND: on it hang creation and existence tests.", "return exactly this status"},
    {"lookup.access", "The access is within GVND_ACCESS_ALL, and set.", "set *maxAccess, in bits of GVND_ACCESS_"},
    {"lookup.access-read", "An object that can be opened allows GVND_ACCESS_READ.", "without it nobody but a writer can open the object"},
    {"lookup.steady", "Two lookups of one object answer the same.", "derive the answer from the object alone"},
    {"lookup.file-id", "The file id tells objects apart.", "give each object a number of its own for its lifetime"},
    {"lookup.agrees", "Lookup and GetInfo agree on type, sizes, attributes and file id of one object.", "fill both records by one routine"},
    {"open.type", "Open is for files, OpenDir for directories, and a name that is not there opens as neither.", "fail with STATUS_FILE_IS_A_DIRECTORY, STATUS_NOT_A_DIRECTORY or STATUS_OBJECT_NAME_NOT_FOUND"},
    {"open.works", "What Lookup finds can be opened for what it allows.", "let Open and Lookup use the same rules"},
    {"create.found", "What was created is found at once, empty, and of the type asked for.", "enter the object before you return"},
    {"create.collision", "Creation of a name that exists is STATUS_OBJECT_NAME_COLLISION.", "look first; the driver relies on it when two create at once"},
    {"create.parent", "Creation in a directory that is not there is STATUS_OBJECT_PATH_NOT_FOUND.", "tell a missing parent from a missing name"},
    {"read.count", "Read says how many bytes it has read, and no more than were asked for.", "set *length to what you copied"},
    {"read.bounds", "Read writes nothing behind the bytes that it was asked for.", "copy at most *length bytes"},
    {"read.end", "A read that begins behind the end gives nothing, and one that crosses it is short.", "compare offset and size first; STATUS_END_OF_FILE is what programs expect"},
    {"read.bad-buffer", "After a fault on the caller's buffer the next call works.", "hold no lock while you touch the buffer"},
    {"write.count", "Write says how many bytes it has written, and no more than were offered.", "set *length to what you stored; to store less is to be full"},
    {"write.reads-back", "What was written is read back, and what nobody wrote is zero.", "store the bytes at their offset; fill gaps with zeros"},
    {"write.size", "A write behind the end moves the end of file.", "keep the size with the data"},
    {"size.told", "SetFileSize hands back the size that GetInfo tells then.", "set *fileSize to the size that stands there now"},
    {"size.done", "SetFileSize cuts and extends; what it adds is zero.", "change the size, or fail"},
    {"list.index", "An index gives the same entry each time while nothing changes.", "look at the index, not at a position of your own"},
    {"list.no-name-twice", "No two indexes give one name.", "count entries from 0, one for each index"},
    {"list.end", "A listing ends with STATUS_NO_MORE_FILES and nothing else, and stays there.", "return it for every index behind the last"},
    {"list.names", "A name is not empty, has an even length, and no backslash, slash or NUL.", "FileNameLength is in bytes; give a component, not a path"},
    {"list.complete", "All that is in a directory is listed, once.", "begin at index 0"},
    {"list.found", "What is listed is found by Lookup under that name.", "list the names that Lookup takes"},
    {"list.agrees", "An entry's type and size are those of Lookup.", "fill both records by one routine"},
    {"attributes.kept", "Read-only, hidden, system and archive are kept, one by one, and cleared again.", "store what SetAttr gives, but for the directory bit"},
    {"times.kept", "A time that is set is kept, and 0 leaves it.", "store what SetTime gives; leave the slot empty if you keep none"},
    {"delete.done", "Delete removes the name, from Lookup and from the listing.", "remove it, or fail"},
    {"delete.not-empty", "A directory with something in it is not deleted.", "fail with STATUS_DIRECTORY_NOT_EMPTY"},
    {"rename.done", "Rename takes the old name away and gives the new one, with content, EAs and file id.", "move the object, or fail"},
    {"rename.subtree", "A directory cannot be moved into itself.", "fail with STATUS_INVALID_PARAMETER"},
    {"close.succeeds", "Close of a live handle succeeds: when it fails, deletion and renaming end there.", "return STATUS_SUCCESS; keep errors of writing for FlushFile"},
    {"link.target", "A link's target begins at the root, and leads to something else than the link.", "turn relative targets into paths from the root"},
    {"ea.names", "ListEa hands back as many terminated names as it says.", "write a NUL behind each name; count them"},
    {"ea.kept", "An EA that is set can be listed, read and removed.", "keep names and values with the object"},
    {"volume.sector", "BytesPerSector is 1: sizes of volumes are counted in allocation units.", "set it to 1, and the unit's size in SectorsPerAllocationUnit"},
    {"volume.space", "No more units are free than there are, and a unit has a size.", "count units of one size"},
    {"volume.label", "The label that is set is told.", "keep it, or leave SetVolLabel empty"},
    {"normalized.same", "A normalised path leads to the same object, and normalises to itself.", "change the spelling only"},
    {"flush.succeeds", "Flush of a file that is open succeeds.", "return STATUS_SUCCESS if there is nothing to write"},
    {"access.steady", "AccessCheck answers the same question in the same way.", "decide by path, access and token alone"},
    // of the whole
    {"mount.works", "The volume mounts, and stays mounted until it is asked to go.", "see the status; unmount from outside of operations only"},
    {"mount.requests", "Requests of NT programs do what they say.", "run it with `gvnd shell -c 'calls on; ...'`"},
    {"model.files", "Content after any sequence of writes, cuts and reads is that of an array of bytes.", "repeat it with --seed and --only model"},
    {"model.names", "The tree after any sequence of creations, renames and deletions is that of the names.", "repeat it with --seed and --only model"},
    {"memory.status", "An allocation that fails makes the call fail, with nothing half done.", "test every allocation; undo what was begun"},
    {"memory.nothing-left", "A volume that is gone leaves no pool block.", "free what you allocated for yourself; hand out what you allocated for the driver"},
    {"threads.work", "Calls at the same time do as calls one by one.", "guard what they share"},
    {"cancel.survives", "A call whose request is cancelled ends, and the next one works.", "undo what was begun before STATUS_CANCELLED"},
    {"remount.keeps", "What was written is there after the volume was made anew.", "write it out in FlushFile, FlushVol and OnUnmounted"},
    {nullptr, nullptr, nullptr},
};
// clang-format on

bool Report::AllHold() const
{
    for (const Result& result : Results)
        if (result.Outcome == Verdict::Broken) return false;
    return true;
}

} // namespace checker
