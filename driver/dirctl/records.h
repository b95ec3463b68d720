// The public record formats of a directory listing.
#pragma once

#include "frame/nt.h"

// A record class: what the buffer accounting charges for the fixed part (the public structure's size, one character of
// name included), and where the name begins.
struct DirectoryClass {
    FILE_INFORMATION_CLASS Class;
    ULONG FixedSize;
    ULONG NameOffset;
    void (*FillFixed)(void* record, const PluginDirEntry* entry);
};

// Null for a class that is not one of a directory listing.
const DirectoryClass* GvDirectoryClassOf(FILE_INFORMATION_CLASS infoClass);

// Room that a record takes: every record starts 8-byte aligned. Wider than a buffer, for a length that no name has.
ULONGLONG GvDirEntrySize(const DirectoryClass* infoClass, const PluginDirEntry* entry);

// Writes one record and links the previous one of this query, if any. May fault: the buffer can be the caller's.
void GvFillDirEntryInfo(const DirectoryClass* infoClass, const PluginDirEntry* entry, ULONG index, UCHAR* previous,
                        UCHAR* destination);
