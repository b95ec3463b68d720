// Extended attributes: the bridges to the plugin and the list format. The driver keeps no attribute of its own; names
// cross byte for byte and are compared by nobody here. No lock is taken: whatever the caller holds, at PASSIVE_LEVEL.
#pragma once

#include "frame/plugincall.h"
#include "frame/pool.h"

// What ListEa hands back: Count NUL-terminated names, back to back.
struct GvEaNames {
    GvBlock<char> Names;
    ULONG Count = 0;
};

struct GvEaValue {
    GvBlock<void> Value; // null for length 0
    ULONG Length = 0;
};

// The bridges. An object that was just created has a bare handle: no control block, and so no gate.
[[nodiscard]] NTSTATUS GvListEaFromPlugin(IrpContext* context, GvHandle handle, GvEaNames* names);
[[nodiscard]] NTSTATUS GvGetEaFromPlugin(IrpContext* context, GvHandle handle, const char* name, GvEaValue* value);
[[nodiscard]] NTSTATUS GvSetEaOnPlugin(IrpContext* context, GvHandle handle, const char* name, const void* value,
                                       ULONG length);
[[nodiscard]] NTSTATUS GvDeleteEaOnPlugin(IrpContext* context, GvHandle handle, const char* name);

// The length of a NUL-terminated name.
ULONG GvEaNameLength(const char* name);

// A list of records while it is built in a buffer: Previous is null before the first record.
struct GvEaList {
    UCHAR* Cursor;
    UCHAR* Previous;
    ULONG Remaining; // free bytes from Cursor on
};

// STATUS_BUFFER_OVERFLOW when the record does not fit, and also, with the record written and linked, when nothing is
// left behind its alignment. STATUS_INVALID_PARAMETER for a name or a value over the limits. The buffer may be a
// caller's: an exception while it is written is the caller's to contain.
[[nodiscard]] NTSTATUS GvAppendEaNameValueToFullEaInfo(const char* name, ULONG nameLength, const void* value,
                                                       ULONG valueLength, GvEaList* list);

// The size of the object's whole list, each record padded. One ListEa, and a GetEa for each attribute.
[[nodiscard]] NTSTATUS GvGetFullEaInfoTotalLen(IrpContext* context, const Fcb* fcb, ULONG* length);

// Applies a list, record by record; *errorOffset is the offset of a record that was refused. Nothing is undone.
[[nodiscard]] NTSTATUS GvSetFullEaInfo(IrpContext* context, GvHandle handle, void* buffer, ULONG length,
                                       ULONG* errorOffset);

// What queries and sets refuse alike, in this order: STATUS_UNSUCCESSFUL above PASSIVE_LEVEL, STATUS_INVALID_PARAMETER
// for a nested request, with the given text, and for an object that is neither file nor directory.
[[nodiscard]] NTSTATUS GvScreenEaRequest(const IrpContext* context, const Fcb* fcb, const char* function,
                                         const char* nestedText);
