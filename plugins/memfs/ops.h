// The operations, under the names of their slots; each has the type of its slot, and plugin.h says what passes. They
// take their locks themselves. The cancel event is of no use to them: none waits for anything but a lock.
#pragma once

#include "volume.h"

namespace memfs {

template <typename Slot>
struct RoutineOf;
template <typename Routine>
struct RoutineOf<Routine*> {
    using Type = Routine;
};
template <typename Slot>
using Operation = typename RoutineOf<Slot>::Type;

// open.cpp
Operation<PluginAccessCheckFn> AccessCheck;
Operation<PluginLookupFn> Lookup;
Operation<PluginOpenFn> Open;
Operation<PluginOpenFn> OpenDir;
Operation<PluginCreateFn> Create;
Operation<PluginCreateFn> CreateDir;
Operation<PluginFdFn> Close;

// content.cpp
Operation<PluginReadFn> Read;
Operation<PluginWriteFn> Write;
Operation<PluginSetFileSizeFn> SetFileSize;
Operation<PluginFdFn> FlushFile;
Operation<PluginFlushVolFn> FlushVol;

// listing.cpp
Operation<PluginReadDirEntryFn> ReadDirEntry;

// info.cpp
Operation<PluginGetInfoFn> GetInfo;
Operation<PluginSetAttrFn> SetAttr;
Operation<PluginSetTimeFn> SetTime;
Operation<PluginGetVolInfoFn> GetVolInfo;
Operation<PluginSetVolLabelFn> SetVolLabel;

// namespace.cpp
Operation<PluginGetNormalizedPathFn> GetNormalizedPath;
Operation<PluginRenameFn> Rename;
Operation<PluginDeleteFn> Delete;

// attributes.cpp
Operation<PluginListEaFn> ListEa;
Operation<PluginGetEaFn> GetEa;
Operation<PluginSetEaFn> SetEa;
Operation<PluginDeleteEaFn> DeleteEa;
Operation<PluginReadLinkFn> ReadLink;

// One block with the node's information, for the driver to free.
[[nodiscard]] NTSTATUS AllocateInfo(Node* node, PluginFileInfo** info);

} // namespace memfs
