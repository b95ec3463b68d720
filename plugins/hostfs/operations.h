// The operations of the table, one routine per slot that hostfs fills. Each contains its C++ exceptions, leaves its out
// pointers null when it fails, and takes the volume as its context. Access is what Lookup says, and names are used as
// they come, so AccessCheck and GetNormalizedPath stay empty.
#pragma once

#include <gvnd/plugin.h>

namespace hostfs {

class Volume;
[[nodiscard]] PluginOps MakeOperations(Volume* volume);

#define HOSTFS_CALL void *context, PKEVENT

// objects.cpp: looking up, opening, making
NTSTATUS NTAPI Lookup(HOSTFS_CALL, PCUNICODE_STRING path, PluginFileInfo** info, PluginAccessMask* maxAccess);
NTSTATUS NTAPI Open(HOSTFS_CALL, PCUNICODE_STRING path, PluginAccessMask wanted, PluginFd* fd);
NTSTATUS NTAPI OpenDir(HOSTFS_CALL, PCUNICODE_STRING path, PluginAccessMask wanted, PluginFd* fd);
NTSTATUS NTAPI Create(HOSTFS_CALL, PCUNICODE_STRING path, PluginFd* fd);
NTSTATUS NTAPI CreateDir(HOSTFS_CALL, PCUNICODE_STRING path, PluginFd* fd);
NTSTATUS NTAPI Close(HOSTFS_CALL, PluginFd fd);

// data.cpp
NTSTATUS NTAPI Read(HOSTFS_CALL, PluginFd fd, LONGLONG offset, ULONG* length, void* buffer);
NTSTATUS NTAPI Write(HOSTFS_CALL, PluginFd fd, LONGLONG offset, ULONG* length, const void* buffer);
NTSTATUS NTAPI SetFileSize(HOSTFS_CALL, PluginFd fd, LONGLONG* fileSize, const LONGLONG* allocationSize);
NTSTATUS NTAPI FlushFile(HOSTFS_CALL, PluginFd fd);

// information.cpp
NTSTATUS NTAPI ReadDirEntry(HOSTFS_CALL, PluginFd fd, ULONG index, PluginDirEntry** entry);
NTSTATUS NTAPI GetInfo(HOSTFS_CALL, PluginFd fd, PluginFileInfo** info);
NTSTATUS NTAPI SetAttr(HOSTFS_CALL, PluginFd fd, ULONG attributes);
NTSTATUS NTAPI SetTime(HOSTFS_CALL, PluginFd fd, LONGLONG creation, LONGLONG lastAccess, LONGLONG lastWrite,
                       LONGLONG change);

// namespace.cpp
NTSTATUS NTAPI Rename(HOSTFS_CALL, PCUNICODE_STRING from, PCUNICODE_STRING to);
NTSTATUS NTAPI Delete(HOSTFS_CALL, PCUNICODE_STRING path);
NTSTATUS NTAPI ReadLink(HOSTFS_CALL, PCUNICODE_STRING path, PUNICODE_STRING* target, PUNICODE_STRING* other);
// No slot of the table: the boundary has no operation that makes a link.
[[nodiscard]] NTSTATUS MakeLink(const Volume& volume, PCUNICODE_STRING path, PCUNICODE_STRING target);

// eas.cpp
NTSTATUS NTAPI ListEa(HOSTFS_CALL, PluginFd fd, char** names, ULONG* count);
NTSTATUS NTAPI GetEa(HOSTFS_CALL, PluginFd fd, const char* name, void** value, ULONG* length);
NTSTATUS NTAPI SetEa(HOSTFS_CALL, PluginFd fd, const char* name, const void* value, ULONG length);
NTSTATUS NTAPI DeleteEa(HOSTFS_CALL, PluginFd fd, const char* name);

// volinfo.cpp
NTSTATUS NTAPI GetVolInfo(HOSTFS_CALL, PluginVolInfo** info);
NTSTATUS NTAPI SetVolLabel(HOSTFS_CALL, PCUNICODE_STRING label);
NTSTATUS NTAPI FlushVol(HOSTFS_CALL);

#undef HOSTFS_CALL

} // namespace hostfs
