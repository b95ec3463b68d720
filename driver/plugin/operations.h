// The plugin's operations as the rest of the driver asks for them: one routine for each that is asked for in several
// places, with what its answer must be like. Under whatever locks the caller has.
#pragma once

#include "frame/pool.h"
#include "plugin/call.h"

// STATUS_NOT_SUPPORTED: use the name unchanged. The string is the caller's to free.
[[nodiscard]] NTSTATUS GvPnGetNormalizedPathFromPlugin(IrpContext* context, PCUNICODE_STRING path,
                                                       PUNICODE_STRING* normalized);
// The name in the form that is matched: the plugin's, which holder then owns, or as it stands. The caller traces.
[[nodiscard]] NTSTATUS GvNormalizedOrGiven(IrpContext* context, PCUNICODE_STRING name, GvBlock<UNICODE_STRING>* holder,
                                           PCUNICODE_STRING* result);

// The record is one block for the caller to free.
[[nodiscard]] NTSTATUS GvPerformLookupOnPlugin(IrpContext* context, PCUNICODE_STRING path,
                                               GvBlock<PluginFileInfo>* info, PluginAccessMask* maxAccess);

// Open for GvFile, else OpenDir; untraced. *fd is 0 after a failure: whatever a failed open has written is no handle.
[[nodiscard]] NTSTATUS GvOpenByType(IrpContext* context, ULONG type, PCUNICODE_STRING path, PluginAccessMask access,
                                    PluginFd* fd);
[[nodiscard]] NTSTATUS GvOpenFileFromPlugin(IrpContext* context, PCUNICODE_STRING path, PluginAccessMask access,
                                            PluginFd* fd);
[[nodiscard]] NTSTATUS GvOpenDirFromPlugin(IrpContext* context, PCUNICODE_STRING path, PluginAccessMask access,
                                           PluginFd* fd);
// One of the two, by the type; a failure is traced as function's step.
[[nodiscard]] NTSTATUS GvOpenFromPlugin(const char* function, IrpContext* context, ULONG type, PCUNICODE_STRING path,
                                        PluginAccessMask access, PluginFd* fd);

// A handle that no object owns; a failure is traced as function's step, and forgotten.
void GvCloseBareHandle(const char* function, IrpContext* context, PluginFd fd);
// The object's handle: forgotten whatever the plugin says. The caller traces.
NTSTATUS GvCloseObjectHandle(IrpContext* context, Fcb* fcb);

// The plugin's own decision about a token; a plugin without one allows everything. The caller traces.
[[nodiscard]] NTSTATUS GvAskAccess(IrpContext* context, PCUNICODE_STRING path, PluginAccessMask wanted, void* token);

// Queries and settings begin with this record: nothing of it is kept. A success without a record counts as a failure.
// The caller traces.
[[nodiscard]] NTSTATUS GvGetInfoFromPlugin(IrpContext* context, GvHandle handle, GvBlock<PluginFileInfo>* record);

// The directory's entry of that ordinal, with a name that is a counted string. STATUS_NO_MORE_FILES behind the last
// one, STATUS_UNSUCCESSFUL for a success without an entry. The caller traces.
[[nodiscard]] NTSTATUS GvReadDirEntryFromPlugin(IrpContext* context, const Fcb* directory, ULONG index,
                                                GvBlock<PluginDirEntry>* entry);
