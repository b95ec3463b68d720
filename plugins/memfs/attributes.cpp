// Extended attributes by name, and the target of a link, which is one. Takes Node.Lock; the list itself is ea.cpp's.

#include "ops.h"

#include "ea.h"
#include "locks.h"
#include <gvnd/memfs.h>
#include "names.h"
#include "path.h"

namespace memfs {
namespace {

ULONG BytesOfNames(const Node* node, ULONG* count)
{
    ULONG bytes = 0;
    *count = 0;
    for (const Ea* ea = node->Eas; ea; ea = ea->Next) {
        bytes += ea->NameLength + 1u;
        ++*count;
    }
    return bytes;
}

// The target is refused unless it fits a counted string, so its length does.
NTSTATUS CopyTarget(const Ea* ea, UNICODE_STRING** target)
{
    UNICODE_STRING* const string = AllocateString(static_cast<USHORT>(ea->ValueLength));
    if (!string) return STATUS_INSUFFICIENT_RESOURCES;
    RtlCopyMemory(string->Buffer, EaValue(ea), ea->ValueLength);
    *target = string;
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS NTAPI ListEa(void* context, PKEVENT, PluginFd fd, char** names, ULONG* count)
{
    NodeRef node;
    *names = nullptr;
    *count = 0;
    if (const NTSTATUS status = HandleResolve(VolumeOf(context)->Handles, fd, node.Out()); !NT_SUCCESS(status)) {
        return status;
    }
    SharedLock lock(node->Lock);
    ULONG found;
    const ULONG bytes = BytesOfNames(node.Get(), &found);
    if (found == 0) return STATUS_SUCCESS;
    char* at = Allocate<char>(PagedPool, bytes);
    if (!at) return STATUS_INSUFFICIENT_RESOURCES;
    *names = at;
    *count = found;
    for (const Ea* ea = node->Eas; ea; ea = ea->Next) {
        RtlCopyMemory(at, ea->Name, ea->NameLength + 1u);
        at += ea->NameLength + 1u;
    }
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI GetEa(void* context, PKEVENT, PluginFd fd, const char* name, void** value, ULONG* length)
{
    NodeRef node;
    *value = nullptr;
    if (const NTSTATUS status = HandleResolve(VolumeOf(context)->Handles, fd, node.Out()); !NT_SUCCESS(status)) {
        return status;
    }
    SharedLock lock(node->Lock);
    const Ea* const ea = EaFind(node.Get(), name);
    if (!ea) return STATUS_NONEXISTENT_EA_ENTRY;
    void* const copy = Allocate<void>(PagedPool, ea->ValueLength);
    if (!copy) return STATUS_INSUFFICIENT_RESOURCES;
    RtlCopyMemory(copy, EaValue(ea), ea->ValueLength);
    *value = copy;
    *length = ea->ValueLength;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI SetEa(void* context, PKEVENT, PluginFd fd, const char* name, const void* value, ULONG length)
{
    NodeRef node;
    if (const NTSTATUS status = HandleResolve(VolumeOf(context)->Handles, fd, node.Out()); !NT_SUCCESS(status)) {
        return status;
    }
    ExclusiveLock lock(node->Lock);
    const NTSTATUS status = EaSet(node.Get(), name, value, length);
    if (NT_SUCCESS(status)) NodeTouch(node.Get(), Touched::Attributes);
    return status;
}

NTSTATUS NTAPI DeleteEa(void* context, PKEVENT, PluginFd fd, const char* name)
{
    NodeRef node;
    if (const NTSTATUS status = HandleResolve(VolumeOf(context)->Handles, fd, node.Out()); !NT_SUCCESS(status)) {
        return status;
    }
    ExclusiveLock lock(node->Lock);
    const NTSTATUS status = EaDelete(node.Get(), name);
    if (NT_SUCCESS(status)) NodeTouch(node.Get(), Touched::Attributes);
    return status;
}

NTSTATUS NTAPI ReadLink(void* context, PKEVENT, PCUNICODE_STRING path, PUNICODE_STRING* target, PUNICODE_STRING* other)
{
    NodeRef node;
    *target = *other = nullptr;
    if (const NTSTATUS status = PathReference(VolumeOf(context), *path, node.Out()); !NT_SUCCESS(status)) return status;
    SharedLock lock(node->Lock);
    const Ea* const ea = EaFind(node.Get(), MEMFS_LINK_EA_NAME);
    return ea ? CopyTarget(ea, target) : STATUS_INVALID_PARAMETER;
}

} // namespace memfs
