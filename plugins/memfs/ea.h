// The extended attributes of one node, under its Lock: shared to read, exclusive to change. Names are kept in upper
// case, as NT keeps them; a file's list is short, so it is a list. They are not charged to the volume.
#pragma once

#include "node.h"

namespace memfs {

// NT's limit on a file's whole list, as it goes over the wire.
constexpr ULONG kMaxEaBytes = 0xffff;

// Null if there is none.
Ea* EaFind(const Node* node, const char* name);
// Adds or replaces; a failure leaves the old value. STATUS_INVALID_EA_NAME, STATUS_INVALID_PARAMETER for an empty
// value, STATUS_EA_TOO_LARGE, and for a link STATUS_OBJECT_PATH_SYNTAX_BAD if the target is no path.
[[nodiscard]] NTSTATUS EaSet(Node* node, const char* name, const void* value, ULONG length);
// STATUS_NONEXISTENT_EA_ENTRY.
[[nodiscard]] NTSTATUS EaDelete(Node* node, const char* name);
void EaFreeAll(Node* node);

const void* EaValue(const Ea* ea);
// For names as they are kept.
bool EaIsLink(const Ea* ea);

} // namespace memfs
