// Completion ports: objects that threads take packets from. What a file object is bound to stands in its
// CompletionContext, once and for all.
#pragma once

#include <ntifs.h>

namespace nthost::io {

struct CompletionPort; // the object's body

struct PacketContent {
    PVOID Key;
    PVOID Context;
    IO_STATUS_BLOCK Status;
};

// In a port's queue, under its lock.
struct CompletionPacket {
    LIST_ENTRY Link;
    PacketContent Content;
    void (*Release)(CompletionPacket* packet); // out of the queue; the memory is the routine's to give back
};

void QueuePacket(CompletionPort* port, CompletionPacket* packet);
// A packet of its own. STATUS_INSUFFICIENT_RESOURCES.
[[nodiscard]] NTSTATUS PostPacket(CompletionPort* port, PVOID key, PVOID context, const IO_STATUS_BLOCK& status);

// Null if the file object has none.
const IO_COMPLETION_CONTEXT* PortOf(PFILE_OBJECT file);
// STATUS_INVALID_PARAMETER for a file object that has one, or is for synchronous I/O.
[[nodiscard]] NTSTATUS BindPort(PFILE_OBJECT file, const FILE_COMPLETION_INFORMATION& binding, KPROCESSOR_MODE mode);
// The file object goes.
void UnbindPort(PFILE_OBJECT file);

// Whether the request ended before its service returned.
enum class Inline { No, Yes };
// Of a file object with a port and a request with a context: an error that the service itself returns is told nowhere
// else, and a success that it returns may be unwanted.
bool TellsPort(PFILE_OBJECT file, NTSTATUS status, Inline how);

} // namespace nthost::io
