// Object bodies with a counted header in front, types, names and handles. Directories and names are guarded by one
// namespace lock, each handle table by its own; deletion runs on whatever thread drops the last reference, with none of
// them held.
#pragma once

#include <atomic>
#include <cstddef>
#include <string>
#include <vector>

#include <ntifs.h>

typedef struct _OBJECT_TYPE {
    const char* Name;
    GENERIC_MAPPING Mapping;
    ACCESS_MASK ValidAccess;
    bool UsesDispatcherHeader; // body (or WaitOffset into it) can be waited for by handle
    size_t WaitOffset;         // where the DISPATCHER_HEADER stands in the body
    // One handle less: called with no lock held, before the handle's reference is given back. remaining = handles left
    // on the object in the whole system, processRemaining = in the process whose handle was closed.
    void (*Close)(PEPROCESS process, void* body, ACCESS_MASK granted, ULONG processRemaining, ULONG remaining);
    // The last reference is gone. The body's memory is freed by the caller afterwards.
    void (*Delete)(void* body);
    std::atomic<LONG> Live; // objects of the type, for the leak report
} OBJECT_TYPE;

namespace nthost::ob {

class HandleTable;

// Zeroed body of `size` bytes, 16-byte aligned, one reference for the caller; null without memory. The memory is not
// pool.
void* CreateObject(POBJECT_TYPE type, size_t size);
POBJECT_TYPE TypeOf(void* body);
LONG PointerCount(void* body);
LONG HandleCount(void* body);
// Drops a reference if it is not the last one, which then stays with the caller: for places where deletion must not
// run.
[[nodiscard]] bool DereferenceUnlessLast(void* body);

// --- handles. A kernel handle goes into the system process's table and is marked so in its value.

// The new handle takes a reference of its own.
[[nodiscard]] NTSTATUS InsertHandle(void* body, PEPROCESS process, ACCESS_MASK granted, ULONG attributes,
                                    HANDLE* handle);
[[nodiscard]] NTSTATUS CloseHandle(PEPROCESS process, HANDLE handle, KPROCESSOR_MODE mode);
// Closes all; for process exit.
void CloseAllHandles(PEPROCESS process);
HandleTable* NewHandleTable();
void DeleteHandleTable(HandleTable* table);

// --- names. "\Device", "\??" (the same directory as "\GLOBAL??" and "\DosDevices"), "\Driver" exist from boot.
// Component compare is case-insensitive.

// The directory takes a reference; STATUS_OBJECT_NAME_COLLISION, STATUS_OBJECT_PATH_NOT_FOUND,
// STATUS_OBJECT_PATH_SYNTAX_BAD, STATUS_OBJECT_NAME_INVALID.
[[nodiscard]] NTSTATUS InsertName(PCUNICODE_STRING path, void* body);
// Takes the name back, and with it the directory's reference. No-op for an object without a name.
void RemoveName(void* body);
// The full path of a named object; empty if it has none.
std::u16string NameOf(void* body);
std::string NameText(void* body); // in UTF-8
[[nodiscard]] NTSTATUS CreateSymbolicLink(PCUNICODE_STRING path, PCUNICODE_STRING target);
[[nodiscard]] NTSTATUS DeleteSymbolicLink(PCUNICODE_STRING path);

// Walks the path through directories and symbolic links until it meets an object of another type or ends. On success
// *body is referenced and *remaining is what of the path was not used, with its leading backslash ("" if none): a path
// under a device. STATUS_OBJECT_NAME_NOT_FOUND, STATUS_OBJECT_PATH_NOT_FOUND, STATUS_OBJECT_PATH_SYNTAX_BAD; at most 32
// links, then STATUS_OBJECT_NAME_INVALID.
[[nodiscard]] NTSTATUS LookupPath(PCUNICODE_STRING path, void** body, std::u16string* remaining);

// --- what is left, for leak reports

struct LiveObject {
    std::string Type;
    std::string Name; // full path, empty for a nameless object
    LONG Pointers;
    LONG Handles;
};
// Objects made since the last boot, without the directories of the boot itself.
std::vector<LiveObject> LiveObjects();
// The object belongs to the system itself and is no leak.
void MarkOfBoot(void* body);
// The open handles of a process, as text: value, type, name.
std::vector<std::string> OpenHandles(PEPROCESS process);

void Boot();
// Takes all names back. Objects that are still referenced stay, but are no longer listed.
void Shutdown();

} // namespace nthost::ob
