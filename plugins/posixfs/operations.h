// The operations of the table, one routine per slot that is filled. Each contains its C++ exceptions, leaves its out
// pointers null when it fails, and takes the volume as its context. Access is what Lookup says, and names are used as
// they come, so AccessCheck and GetNormalizedPath stay empty.
#pragma once

#include <gvnd/plugin.h>

namespace posixfs {

class Volume;
[[nodiscard]] PluginOps MakeOperations(Volume* volume);

#define POSIXFS_CALL void *context, PKEVENT

// objects.cpp: looking up, opening, making
NTSTATUS NTAPI Lookup(POSIXFS_CALL, PCUNICODE_STRING path, PluginFileInfo** info, PluginAccessMask* maxAccess);
NTSTATUS NTAPI Open(POSIXFS_CALL, PCUNICODE_STRING path, PluginAccessMask wanted, PluginFd* fd);
NTSTATUS NTAPI OpenDir(POSIXFS_CALL, PCUNICODE_STRING path, PluginAccessMask wanted, PluginFd* fd);
NTSTATUS NTAPI Create(POSIXFS_CALL, PCUNICODE_STRING path, PluginFd* fd);
NTSTATUS NTAPI CreateDir(POSIXFS_CALL, PCUNICODE_STRING path, PluginFd* fd);
NTSTATUS NTAPI Close(POSIXFS_CALL, PluginFd fd);

// data.cpp
NTSTATUS NTAPI Read(POSIXFS_CALL, PluginFd fd, LONGLONG offset, ULONG* length, void* buffer);
NTSTATUS NTAPI Write(POSIXFS_CALL, PluginFd fd, LONGLONG offset, ULONG* length, const void* buffer);
NTSTATUS NTAPI SetFileSize(POSIXFS_CALL, PluginFd fd, LONGLONG* fileSize, const LONGLONG* allocationSize);
NTSTATUS NTAPI FlushFile(POSIXFS_CALL, PluginFd fd);

// information.cpp
NTSTATUS NTAPI ReadDirEntry(POSIXFS_CALL, PluginFd fd, ULONG index, PluginDirEntry** entry);
NTSTATUS NTAPI GetInfo(POSIXFS_CALL, PluginFd fd, PluginFileInfo** info);
NTSTATUS NTAPI SetAttr(POSIXFS_CALL, PluginFd fd, ULONG attributes);
NTSTATUS NTAPI SetTime(POSIXFS_CALL, PluginFd fd, LONGLONG creation, LONGLONG lastAccess, LONGLONG lastWrite,
                       LONGLONG change);

// namespace.cpp
NTSTATUS NTAPI Rename(POSIXFS_CALL, PCUNICODE_STRING from, PCUNICODE_STRING to);
NTSTATUS NTAPI Delete(POSIXFS_CALL, PCUNICODE_STRING path);
NTSTATUS NTAPI ReadLink(POSIXFS_CALL, PCUNICODE_STRING path, PUNICODE_STRING* target, PUNICODE_STRING* other);
// No slot of the table: the boundary has no operation that makes a link.
[[nodiscard]] NTSTATUS MakeLink(const Volume& volume, PCUNICODE_STRING path, PCUNICODE_STRING target);

// eas.cpp
NTSTATUS NTAPI ListEa(POSIXFS_CALL, PluginFd fd, char** names, ULONG* count);
NTSTATUS NTAPI GetEa(POSIXFS_CALL, PluginFd fd, const char* name, void** value, ULONG* length);
NTSTATUS NTAPI SetEa(POSIXFS_CALL, PluginFd fd, const char* name, const void* value, ULONG length);
NTSTATUS NTAPI DeleteEa(POSIXFS_CALL, PluginFd fd, const char* name);

// volinfo.cpp
NTSTATUS NTAPI GetVolInfo(POSIXFS_CALL, PluginVolInfo** info);
NTSTATUS NTAPI SetVolLabel(POSIXFS_CALL, PCUNICODE_STRING label);
NTSTATUS NTAPI FlushVol(POSIXFS_CALL);

#undef POSIXFS_CALL

} // namespace posixfs
